// Runs a fuzz target's entry function over files, without libFuzzer: every
// file named, and every regular file in every directory named (in name
// order), is one input. Used by the normal build's tests to keep the seed
// corpora valid inputs, and to replay a crash input under a debugger.
// Exits 0 after all inputs ran, 1 when there was no input at all; a crash
// or a broken invariant of an input ends the process as it would end the
// fuzzer.
#include "fuzz/FuzzEnvironment.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <dirent.h>
#include <fstream>
#include <iterator>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace {

bool IsDirectory(const std::string& path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

// The regular files of `directory`, sorted by name.
std::vector<std::string> FilesIn(const std::string& directory) {
    std::vector<std::string> files;
    DIR* dir = opendir(directory.c_str());
    if (dir == nullptr) return files;
    while (dirent* entry = readdir(dir)) {
        const std::string path = directory + "/" + entry->d_name;
        struct stat info;
        if (stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode)) files.push_back(path);
    }
    closedir(dir);
    std::sort(files.begin(), files.end());
    return files;
}

} // namespace

int main(int argc, char** argv) {
    LLVMFuzzerInitialize(&argc, &argv);
    std::vector<std::string> inputs;
    for (int i = 1; i < argc; ++i) {
        const std::string path = argv[i];
        if (IsDirectory(path)) {
            const std::vector<std::string> files = FilesIn(path);
            inputs.insert(inputs.end(), files.begin(), files.end());
        } else {
            inputs.push_back(path);
        }
    }
    for (const std::string& path : inputs) {
        std::ifstream in(path, std::ios::binary);
        if (!in) {
            std::fprintf(stderr, "%s: cannot read %s\n", argv[0], path.c_str());
            return 1;
        }
        const std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        std::printf("replay %s (%zu bytes)\n", path.c_str(), bytes.size());
        std::fflush(stdout);
        // An exact-size copy, as libFuzzer hands it over: a read past the
        // end is a read past the allocation.
        std::vector<std::uint8_t> input(bytes.begin(), bytes.end());
        std::uint8_t* data = input.empty() ? nullptr : input.data();
        LLVMFuzzerTestOneInput(data, input.size());
    }
    std::printf("replayed %zu inputs\n", inputs.size());
    return inputs.empty() ? 1 : 0;
}
