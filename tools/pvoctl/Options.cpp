#include "Options.h"

#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <getopt.h>
#include <unistd.h>

namespace brvo {

namespace {

enum OptionId { kSocket = 1000, kJson, kPrometheus, kTimeout, kDb, kForce, kServerTime, kHelp, kVersion };

const option kLongOptions[] = {{"socket", required_argument, nullptr, kSocket},
                               {"json", no_argument, nullptr, kJson},
                               {"prometheus", no_argument, nullptr, kPrometheus},
                               {"timeout", required_argument, nullptr, kTimeout},
                               {"db", required_argument, nullptr, kDb},
                               {"force", no_argument, nullptr, kForce},
                               {"server-time", no_argument, nullptr, kServerTime},
                               {"help", no_argument, nullptr, kHelp},
                               {"version", no_argument, nullptr, kVersion},
                               {nullptr, 0, nullptr, 0}};

std::string Command(const std::vector<std::string>& args) {
    return args.empty() ? std::string() : args[0];
}

} // namespace

bool Options::Parse(int argc, char** argv, std::string& error) {
    opterr = 0;
    optind = 1;
    for (;;) {
        const int option = getopt_long(argc, argv, ":h", kLongOptions, nullptr);
        if (option == -1) break;
        const std::string given = argv[optind - 1];
        if (option == '?') {
            error = optopt != 0 ? "unknown option -" + std::string(1, static_cast<char>(optopt))
                                : "unknown option " + given;
            return false;
        }
        if (option == ':') {
            error = "option " + given + " needs a value";
            return false;
        }
        if (!Take(option, optarg, error)) return false;
    }
    for (int i = optind; i < argc; ++i) args.push_back(argv[i]);
    if (help || version) return true;
    return CheckCommand(error);
}

bool Options::Take(int option, const char* value, std::string& error) {
    switch (option) {
    case kSocket:
        socketPath = AbsolutePath(value);
        return true;
    case kJson:
        json = true;
        return true;
    case kPrometheus:
        prometheus = true;
        return true;
    case kTimeout: {
        long long seconds = 0;
        if (!WholeNumber(value, 1, kMaxTimeoutSeconds, seconds)) {
            error = "--timeout must be a whole number of seconds from 1 to " + std::to_string(kMaxTimeoutSeconds) +
                    ", not \"" + value + "\"";
            return false;
        }
        timeoutSeconds = static_cast<int>(seconds);
        timeoutGiven = true;
        return true;
    }
    case kDb:
        database = AbsolutePath(value);
        return true;
    case kForce:
        force = true;
        return true;
    case kServerTime:
        serverTime = true;
        return true;
    case kVersion:
        version = true;
        return true;
    default:
        help = true;
        return true;
    }
}

// Options that only some commands take are refused with the others, so
// that a misplaced switch is not silently ignored.
bool Options::CheckCommand(std::string& error) const {
    const std::string command = Command(args);
    if (command.empty()) {
        error = "no command given";
        return false;
    }
    if (force && command != "fixed-schedule") error = "--force applies to fixed-schedule only";
    if ((!database.empty() || serverTime) && command != "show-schedule") {
        error = "--db and --server-time apply to show-schedule only";
    }
    if (prometheus && command != "status") error = "--prometheus applies to status only";
    if (prometheus && json) error = "--json and --prometheus exclude each other";
    if (json && command == "check-config") error = "--json does not apply to check-config";
    return error.empty();
}

bool Options::WholeNumber(const std::string& text, long long low, long long high, long long& value) {
    if (text.empty() || !(text[0] == '-' || (text[0] >= '0' && text[0] <= '9'))) return false;
    char* end = nullptr;
    errno = 0;
    const long long parsed = std::strtoll(text.c_str(), &end, 10);
    if (errno == ERANGE || *end != '\0' || end == text.c_str()) return false;
    if (parsed < low || parsed > high) return false;
    value = parsed;
    return true;
}

bool Options::PositiveNumber(const std::string& text, double& value) {
    if (text.empty() || text[0] == ' ' || text[0] == '\t' || text[0] == '\n') return false;
    char* end = nullptr;
    const double parsed = std::strtod(text.c_str(), &end);
    if (end == text.c_str() || *end != '\0' || !std::isfinite(parsed) || !(parsed > 0)) return false;
    value = parsed;
    return true;
}

bool Options::Capacity(const std::string& text, double& value, std::string& unit) {
    std::size_t start = text.size();
    while (start > 0 && std::isalpha(static_cast<unsigned char>(text[start - 1]))) --start;
    if (text.size() - start > kMaxUnitLetters) return false;
    if (!PositiveNumber(text.substr(0, start), value)) return false;
    unit = text.substr(start);
    return true;
}

std::string Options::AbsolutePath(const std::string& path) {
    if (path.empty() || path[0] == '/') return path;
    char* current = ::getcwd(nullptr, 0);
    if (current == nullptr) return path;
    std::string absolute = current;
    std::free(current);
    if (absolute.empty() || absolute.back() != '/') absolute += '/';
    return absolute + path;
}

} // namespace brvo
