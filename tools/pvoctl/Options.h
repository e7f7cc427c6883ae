// pvoctl's command line: options anywhere among the arguments, every value
// checked strictly before anything is sent or read.
#ifndef BRVO_TOOLS_PVOCTL_OPTIONS_H
#define BRVO_TOOLS_PVOCTL_OPTIONS_H

#include <cstddef>
#include <string>
#include <vector>

namespace brvo {

class Options {
public:
    // Longest answer wait that can be asked for, in seconds (one day).
    static constexpr long long kMaxTimeoutSeconds = 86400;

    // Command socket; empty for the one of LoggerSetting.xml.
    std::string socketPath;
    // One JSON object instead of text.
    bool json = false;
    // The metrics text format (status only).
    bool prometheus = false;
    // How long to wait for the daemon's answer.
    int timeoutSeconds = 120;
    // Whether --timeout was given.
    bool timeoutGiven = false;
    // Schedule database of show-schedule; empty for the daemon's.
    std::string database;
    // fixed-schedule: replace another plant's schedule.
    bool force = false;
    // show-schedule: the day and times in the schedule server's time.
    bool serverTime = false;
    // --help was asked for.
    bool help = false;
    // --version was asked for.
    bool version = false;
    // The command and its arguments.
    std::vector<std::string> args;

    // Reads argv; false with the reason in `error` for an unknown option,
    // a missing or bad value, or an option the command does not take.
    bool Parse(int argc, char** argv, std::string& error);

    // A whole decimal number in [low, high], the whole text and nothing
    // else (no blanks, no sign other than '-').
    static bool WholeNumber(const std::string& text, long long low, long long high, long long& value);
    // A finite number greater than zero, the whole text.
    static bool PositiveNumber(const std::string& text, double& value);
    // A plant capacity: a positive number (PositiveNumber), followed by at
    // most kMaxUnitLetters letters naming its unit, as in "10kW"; `unit`
    // is empty when none is given.
    static bool Capacity(const std::string& text, double& value, std::string& unit);
    static constexpr std::size_t kMaxUnitLetters = 8;
    // `path` made absolute against the current directory (unchanged when
    // it already is, or when it is empty).
    static std::string AbsolutePath(const std::string& path);

private:
    bool Take(int option, const char* value, std::string& error);
    bool CheckCommand(std::string& error) const;
};

} // namespace brvo

#endif
