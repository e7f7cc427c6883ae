// Shared set-up of the fuzz targets and of their corpus replay. The daemon's
// code works on fixed absolute paths (settings, database, log), so every
// target refuses to run outside the test sandbox, which lays private tmpfs
// mounts over those directories.
#ifndef BRVO_TESTS_FUZZ_FUZZENVIRONMENT_H
#define BRVO_TESTS_FUZZ_FUZZENVIRONMENT_H

#include <cstddef>
#include <cstdint>
#include <string>

// The entry points every target defines: libFuzzer calls them, and so does
// the replay main of the normal build.
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace brvo {
namespace fuzz {

class FuzzEnvironment {
public:
    // Ends the process (exit 2, with a message naming `target`) unless it
    // runs inside tests/support/run-in-sandbox.
    static void RequireSandbox(const char* target);

    // Moves the process into a network namespace of its own with only the
    // loopback interface up: whatever address an input names, nothing
    // leaves the machine, a name lookup fails at once and a closed port on
    // 127.0.0.1 refuses at once. Must run before any thread is started.
    // Ends the process (exit 2) when that is not possible.
    static void IsolateNetwork();

    // Writes `content` to `path`, creating its parent directories. Ends the
    // process (exit 2) on failure: a target without its files tests nothing.
    static void WriteFile(const std::string& path, const std::string& content);

    // Writes LoggerSetting.xml with the given child elements (raw XML text)
    // and creates the logger settings and log singletons from it, as the
    // daemon's start does. The log lives on the sandbox's SD card mount.
    static void SetUpSettingsAndLog(const std::string& loggerSettingElements);

    // The plant id of the settings below.
    static const std::string kPlantId;
    // Base name of the device description file the settings below name.
    static const std::string kDeviceFile;
    // A SystemSetting.xml of plant kPlantId, not stand-alone, whose schedule
    // server is a closed port on 127.0.0.1, with one household solar unit
    // described by kDeviceFile.
    static std::string SystemSettingText();
    // A device description whose Limit variable scales 0..100 and has the
    // lowest value 0x10.
    static std::string DeviceText();

    // Reports a broken invariant of the code under test and aborts, which
    // libFuzzer records as a crash with the input that caused it.
    static void Check(bool condition, const char* what);

    // The text of `size` bytes at `data`, NUL and high bytes included.
    static std::string Text(const std::uint8_t* data, std::size_t size);
};

} // namespace fuzz
} // namespace brvo

#endif
