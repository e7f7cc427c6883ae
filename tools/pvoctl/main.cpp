// pvoctl: command-line client of pvocd's command socket, for installers and
// for people debugging a data logger in the field. One request per call;
// exit code 0 only when the daemon reports success. status and
// check-config read files only and never change them.
#include "CommandSocket.h"
#include "ConfigCheck.h"
#include "JsonValue.h"
#include "Options.h"
#include "ScheduleView.h"
#include "StatusReport.h"

#include "server/CommandWire.h"
#include "settings/LoggerSettingManager.h"
#include "util/FileUtil.h"

#include <cstdint>
#include <iostream>
#include <string>
#include <vector>

namespace {

using brvo::JsonValue;
using brvo::Options;

const char kUsage[] = "usage: pvoctl [--socket PATH] [--json] [--timeout SECONDS] COMMAND [ARGS]\n"
                      "\n"
                      "Commands (each sends one request to pvocd and prints its answer):\n"
                      "  current [CAPACITY]          target power of the slot in force now\n"
                      "  next [CAPACITY]             target power of the next slot\n"
                      "                              CAPACITY is the plant capacity in the unit you want\n"
                      "                              the answer in, which may follow it (10kW); default 100:\n"
                      "                              the answer is a percentage\n"
                      "  update                      fetch the update and fixed schedules from the server now\n"
                      "  check-plant-id ID URL       ask the schedule server at URL whether plant ID is registered\n"
                      "  fixed-schedule FILE [--force]\n"
                      "                              store the fixed schedule in FILE (payload as hex text);\n"
                      "                              --force replaces the schedule of another plant\n"
                      "  settings-changed            make pvocd reread SystemSetting.xml\n"
                      "  flush-log                   make pvocd write its buffered log lines\n"
                      "Commands that read files only:\n"
                      "  show-schedule [YYYY-MM-DD] [--db FILE] [--server-time]\n"
                      "                              print the stored slots of a day (UTC; default today)\n"
                      "                              as a table with a bar per rate (reads the database only);\n"
                      "                              --server-time: the schedule server's day and times (UTC+9)\n"
                      "  status [--json|--prometheus]\n"
                      "                              plant ID, last and next update, fixed schedule, card or\n"
                      "                              /tmp in use, log I/O error note, watchdog file age, whether\n"
                      "                              the socket answers, and a verdict with its reasons (exit 0\n"
                      "                              healthy, 3 degraded: /tmp fall-back, log writes failing or an\n"
                      "                              update overdue, 1 unhealthy); --prometheus writes the\n"
                      "                              textfile-collector format\n"
                      "  check-config [DIR]          check the settings in DIR (default\n"
                      "                              /usr/local/etc/kestrovanyx/SettingsXML): one FILE:LINE:COLUMN:\n"
                      "                              finding per line; exit 0 clean, 1 with findings\n"
                      "\n"
                      "Answer fields:\n"
                      "  target power: power  the limit for the slot; slot  its start (UTC);\n"
                      "                code   0 ok, 5 no slot stored, 10 clock before 2020, 11 no plant ID\n"
                      "  updates:      reason 0 ok, 1 server access, 2 unreadable answer, 3 invalid payload,\n"
                      "                       4 no slots, 5 database, 6 plant ID not registered,\n"
                      "                       7 fixed data of another plant, 9 file not found, 12 exception;\n"
                      "                status the schedule server's HTTP status (0 none, -1 not asked)\n"
                      "\n"
                      "Options:\n"
                      "  --socket PATH   command socket (default: OutputControlSocketPath of LoggerSetting.xml)\n"
                      "  --json          print one JSON object instead of text\n"
                      "  --timeout SEC   how long to wait for the answer, 1 to 86400 (default 120; status: 5)\n"
                      "  --help          print this text; --version: the version\n"
                      "Relative paths (FILE, --db, --socket) are taken from the current directory.\n"
                      "Exit code: 0 success, 1 the daemon reported a failure, 2 usage or connection error.\n";

int Fail(const std::string& message) {
    std::cerr << "pvoctl: " << message << std::endl;
    return 2;
}

int Usage(const std::string& message) {
    std::cerr << kUsage;
    return Fail(message);
}

using brvo::CommandWire;

std::string SlotText(const std::string& slot) {
    if (slot.size() != 14) return slot;
    return slot.substr(0, 4) + "-" + slot.substr(4, 2) + "-" + slot.substr(6, 2) + " " + slot.substr(8, 2) + ":" +
           slot.substr(10, 2) + ":" + slot.substr(12, 2) + " UTC";
}

// What a target power is given in: a share of the capacity when none was
// given, else the capacity's unit when it names one, else the capacity.
std::string PowerUnit(const Options& options) {
    if (options.args.size() < 2) return "% of capacity";
    double capacity = 0.0;
    std::string unit;
    if (Options::Capacity(options.args[1], capacity, unit) && !unit.empty()) return unit;
    return "of capacity " + options.args[1];
}

int PrintTargetPower(const Options& options, const std::string& answer) {
    CommandWire::TargetPowerReply reply;
    if (!CommandWire::DecodeTargetPowerAnswer(answer, reply)) return Fail("short answer from pvocd");
    const std::string& slot = reply.timeText;
    const std::int32_t code = reply.code;
    const std::string& message = reply.message;
    const std::string powerText = JsonValue::Number(reply.power);
    if (options.json) {
        std::cout << "{\"ok\":" << (code == 0 ? "true" : "false") << ",\"code\":" << code << ",\"power\":" << powerText
                  << ",\"slot\":" << JsonValue::Text(slot) << ",\"message\":" << JsonValue::Text(message) << "}"
                  << std::endl;
    } else if (code == 0) {
        std::cout << "target power " << powerText << " " << PowerUnit(options) << " for the slot starting "
                  << SlotText(slot) << std::endl;
    } else {
        std::cout << "no target power: " << message << " (code " << code << "); fall-back power " << powerText << " "
                  << PowerUnit(options) << std::endl;
    }
    return code == 0 ? 0 : 1;
}

int PrintUpdate(const Options& options, const std::string& answer, bool fixedLayout) {
    CommandWire::UpdateReply reply;
    const bool whole = fixedLayout ? CommandWire::DecodeFixedScheduleAnswer(answer, reply)
                                   : CommandWire::DecodeUpdateAnswer(answer, reply);
    if (!whole) return Fail("short answer from pvocd");
    const std::int32_t reason = reply.reason;
    const std::int32_t status = reply.status;
    const std::string& message = reply.message;
    const std::string& plantId = reply.plantId;
    if (options.json) {
        std::cout << "{\"ok\":" << (reason == 0 ? "true" : "false") << ",\"reason\":" << reason
                  << ",\"status\":" << status << ",\"message\":" << JsonValue::Text(message);
        if (fixedLayout) std::cout << ",\"plantId\":" << JsonValue::Text(plantId);
        std::cout << "}" << std::endl;
    } else if (reason == 0) {
        std::cout << "ok";
        if (!plantId.empty()) std::cout << " (settings changed: plant " << plantId << ", stand-alone)";
        std::cout << std::endl;
    } else {
        std::cout << "failed: " << message << " (reason " << reason << ", HTTP status " << status << ")" << std::endl;
    }
    return reason == 0 ? 0 : 1;
}

// The request of a socket command; empty with `error` set when the
// arguments do not fit the command.
std::string BuildRequest(const Options& options, std::int32_t& type, std::string& error) {
    const std::vector<std::string>& args = options.args;
    const std::string& command = args[0];
    if ((command == "current" || command == "next") && args.size() <= 2) {
        type = command == "current" ? CommandWire::kCurrentTargetPower : CommandWire::kNextTargetPower;
        double capacity = 100.0;
        std::string unit;
        if (args.size() == 2 && !Options::Capacity(args[1], capacity, unit)) {
            error = "CAPACITY must be a positive number, not \"" + args[1] + "\"";
            return std::string();
        }
        return CommandWire::EncodeRequest(type, CommandWire::EncodeCapacityBlock(capacity));
    }
    const std::size_t count = args.size();
    if (command == "check-plant-id" && count == 3) {
        type = CommandWire::kCheckPlantId;
        return CommandWire::EncodeRequest(type, CommandWire::EncodeCheckPlantIdBlock(args[1], args[2]));
    }
    if (command == "fixed-schedule" && count == 2) {
        type = CommandWire::kUpdateFixedSchedule;
        const std::string file = Options::AbsolutePath(args[1]);
        return CommandWire::EncodeRequest(type, CommandWire::EncodeFixedScheduleBlock(file, options.force ? 1 : 0));
    }
    if (count == 1 && (command == "update" || command == "settings-changed" || command == "flush-log")) {
        type = command == "update"             ? CommandWire::kUpdateSchedule
               : command == "settings-changed" ? CommandWire::kChangeSettingNotify
                                               : CommandWire::kFlushLog;
        return CommandWire::EncodeRequest(type);
    }
    error = "unknown command or wrong arguments: " + command;
    return std::string();
}

std::string SocketPath(const Options& options) {
    if (!options.socketPath.empty()) return options.socketPath;
    brvo::LoggerSettingManager::CreateInstance();
    return brvo::LoggerSettingManager::GetInstance()->GetOutputControlSocketPath();
}

int RunSocketCommand(const Options& options) {
    std::int32_t type = 0;
    std::string error;
    const std::string request = BuildRequest(options, type, error);
    if (request.empty()) return Usage(error);
    const std::string answer =
        brvo::CommandSocket::Exchange(SocketPath(options), request, options.timeoutSeconds * 1000, error);
    if (answer.empty()) return Fail(error);
    if (type == CommandWire::kCurrentTargetPower || type == CommandWire::kNextTargetPower) {
        return PrintTargetPower(options, answer);
    }
    if (type == CommandWire::kUpdateFixedSchedule) return PrintUpdate(options, answer, true);
    if (type == CommandWire::kFlushLog) {
        std::cout << (options.json ? "{\"ok\":true}" : "log flush requested") << std::endl;
        return 0;
    }
    return PrintUpdate(options, answer, false);
}

int RunStatus(const Options& options) {
    if (options.args.size() != 1) return Usage("status takes no arguments");
    brvo::StatusReport report(SocketPath(options), options.timeoutGiven ? options.timeoutSeconds * 1000 : 5000);
    if (options.prometheus) {
        std::cout << report.Prometheus();
    } else if (options.json) {
        std::cout << report.Json() << std::endl;
    } else {
        std::cout << report.Text();
    }
    switch (report.GetVerdict()) {
    case brvo::StatusReport::Verdict::kHealthy:
        return 0;
    case brvo::StatusReport::Verdict::kDegraded:
        return 3;
    default:
        return 1;
    }
}

int RunCheckConfig(const Options& options) {
    if (options.args.size() > 2) return Usage("check-config takes at most one directory");
    const std::string dir =
        options.args.size() == 2 ? Options::AbsolutePath(options.args[1]) : brvo::FileUtil::GetSettingsDirectory();
    brvo::ConfigCheck check(dir);
    std::string error;
    if (!check.Run(error)) return Fail(error);
    for (const std::string& finding : check.Findings()) std::cout << finding << "\n";
    std::cout.flush();
    return check.Findings().empty() ? 0 : 1;
}

} // namespace

int main(int argc, char** argv) {
    Options options;
    std::string error;
    const bool parsed = options.Parse(argc, argv, error);
    if (options.help) {
        std::cout << kUsage;
        return 0;
    }
    if (options.version) {
        std::cout << "pvoctl " PVOCD_VERSION "\n";
        return 0;
    }
    if (!parsed) {
        Fail(error);
        std::cerr << "(pvoctl --help lists the commands and options)" << std::endl;
        return 2;
    }
    const std::string& command = options.args[0];
    if (command == "show-schedule") return brvo::ScheduleView(options).Run();
    if (command == "status") return RunStatus(options);
    if (command == "check-config") return RunCheckConfig(options);
    return RunSocketCommand(options);
}
