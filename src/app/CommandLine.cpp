#include "app/CommandLine.h"

#include "app/Constants.h"
#include "util/FileUtil.h"

namespace brvo {

CommandLine::CommandLine(int argc, const char* const argv[]) : action_(kRun) {
    if (argc <= 1) return;
    const std::string first = argv[1] != nullptr ? argv[1] : "";
    const bool alone = argc == 2;
    if (alone && first == "--help") {
        action_ = kHelp;
    } else if (alone && first == "--version") {
        action_ = kVersion;
    } else {
        // An option followed by more: the first extra one is the culprit.
        const bool known = first == "--help" || first == "--version";
        action_ = kBadArgument;
        bad_ = known && !alone && argv[2] != nullptr ? argv[2] : first;
    }
}

int CommandLine::Answer(std::FILE* out, std::FILE* err) const {
    switch (action_) {
    case kHelp:
        std::fputs(Usage().c_str(), out);
        return 0;
    case kVersion:
        std::fputs((Version() + "\n").c_str(), out);
        return 0;
    case kBadArgument:
        std::fputs(("pvocd: unexpected argument '" + bad_ + "'\n\n" + Usage()).c_str(), err);
        return kUsageExitStatus;
    case kRun:
        break;
    }
    return 0;
}

std::string CommandLine::Usage() {
    return "Usage: pvocd [--help | --version]\n"
           "\n"
           "pvocd is the output-control daemon of the PV data logger. It fetches the\n"
           "plant's output-control schedules from the schedule server, keeps them in\n"
           "its databases and answers local clients with the target power on its\n"
           "command socket.\n"
           "\n"
           "It is started without arguments, normally by the service manager, and runs\n"
           "once per device. Its settings are LoggerSetting.xml and SystemSetting.xml in\n" +
           FileUtil::GetSettingsDirectory() +
           ".\n"
           "\n"
           "SIGTERM, SIGUSR1, SIGHUP, SIGINT and SIGQUIT stop it cleanly.\n"
           "\n"
           "Options:\n"
           "  --help     print this text and exit\n"
           "  --version  print the version and exit\n";
}

std::string CommandLine::Version() {
    return std::string("pvocd ") + PVOCD_VERSION + " (application " + kAppVersion + ")";
}

} // namespace brvo
