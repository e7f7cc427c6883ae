// pvoctl: command-line client of pvocd's command socket, for installers and
// for people debugging a data logger in the field. One request per call;
// exit code 0 only when the daemon reports success.
#include "settings/LoggerSettingManager.h"
#include "util/FileUtil.h"
#include "util/TimeStamp.h"

#include <sqlite3.h>

#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <poll.h>
#include <sstream>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

namespace {

const char kUsage[] =
    "usage: pvoctl [--socket PATH] [--json] [--timeout SECONDS] COMMAND [ARGS]\n"
    "\n"
    "Commands (each sends one request to pvocd and prints its answer):\n"
    "  current [CAPACITY]          target power of the slot in force now\n"
    "  next [CAPACITY]             target power of the next slot\n"
    "                              CAPACITY is the plant capacity in the unit you want\n"
    "                              the answer in (default 100: the answer is a percentage)\n"
    "  update                      fetch the update and fixed schedules from the server now\n"
    "  check-plant-id ID URL       ask the schedule server at URL whether plant ID is registered\n"
    "  fixed-schedule FILE [--force]\n"
    "                              store the fixed schedule in FILE (payload as hex text);\n"
    "                              --force replaces the schedule of another plant\n"
    "  settings-changed            make pvocd reread SystemSetting.xml\n"
    "  flush-log                   make pvocd write its buffered log lines\n"
    "  show-schedule [YYYY-MM-DD] [--db FILE]\n"
    "                              print the stored slots of a day (UTC; default today)\n"
    "                              as a table with a bar per rate (reads the database only)\n"
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
    "  --timeout SEC   how long to wait for the answer (default 120)\n"
    "Exit code: 0 success, 1 the daemon reported a failure, 2 usage or connection error.\n";

struct Options {
    std::string socketPath;
    bool json = false;
    int timeoutSeconds = 120;
    std::vector<std::string> args;
};

int Fail(const std::string& message) {
    std::cerr << "pvoctl: " << message << std::endl;
    return 2;
}

std::string Word(std::int32_t value) {
    std::string bytes(4, '\0');
    std::memcpy(&bytes[0], &value, 4);
    return bytes;
}

std::int32_t WordAt(const std::string& data, std::size_t offset) {
    std::int32_t value = 0;
    std::memcpy(&value, data.data() + offset, 4);
    return value;
}

std::string TextAt(const std::string& data, std::size_t offset, std::size_t size) {
    const std::string field = data.substr(offset, size);
    return field.substr(0, field.find('\0'));
}

std::string Field(const std::string& text, std::size_t size) {
    std::string field = text.substr(0, size - 1);
    field.resize(size, '\0');
    return field;
}

std::string JsonText(const std::string& text) {
    std::string out = "\"";
    for (const char c : text) {
        const unsigned char byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (byte < 0x20) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", byte);
            out += escaped;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

// Sends `request` and returns the answer; `error` is set when there is none.
std::string Exchange(const Options& options, const std::string& request, std::string& error) {
    sockaddr_un address;
    std::memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    if (options.socketPath.size() >= sizeof address.sun_path) {
        error = "socket path too long: " + options.socketPath;
        return std::string();
    }
    std::memcpy(address.sun_path, options.socketPath.data(), options.socketPath.size());
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        error = "cannot connect to pvocd at " + options.socketPath + ": " + std::strerror(errno) +
                " (is the daemon running?)";
        if (fd >= 0) close(fd);
        return std::string();
    }
    if (send(fd, request.data(), request.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(request.size())) {
        error = errno == EPIPE || errno == ECONNRESET
                    ? std::string("pvocd closed the connection without an answer")
                    : std::string("cannot send the request: ") + std::strerror(errno);
        close(fd);
        return std::string();
    }
    std::string answer;
    char buffer[512];
    for (;;) {
        pollfd in = {fd, POLLIN, 0};
        const int ready = poll(&in, 1, options.timeoutSeconds * 1000);
        if (ready == 0) {
            error = "pvocd did not answer within " + std::to_string(options.timeoutSeconds) + " s";
            break;
        }
        if (ready < 0) break;
        const ssize_t n = read(fd, buffer, sizeof buffer);
        if (n <= 0) break;
        answer.append(buffer, static_cast<std::size_t>(n));
    }
    close(fd);
    if (answer.empty() && error.empty()) error = "pvocd closed the connection without an answer";
    return answer;
}

std::string Request(std::int32_t type, const std::string& params) {
    return Word(static_cast<std::int32_t>(8 + params.size())) + Word(type) + params;
}

int PrintTargetPower(const Options& options, const std::string& answer) {
    if (answer.size() < 167) return Fail("short answer from pvocd");
    double power = 0;
    std::memcpy(&power, answer.data() + 8, 8);
    const std::string slot = TextAt(answer, 16, 15);
    const std::int32_t code = WordAt(answer, 31);
    const std::string message = TextAt(answer, 39, 128);
    std::string slotText = slot;
    if (slot.size() == 14) {
        slotText = slot.substr(0, 4) + "-" + slot.substr(4, 2) + "-" + slot.substr(6, 2) + " " +
                   slot.substr(8, 2) + ":" + slot.substr(10, 2) + ":" + slot.substr(12, 2) + " UTC";
    }
    if (options.json) {
        std::cout << "{\"ok\":" << (code == 0 ? "true" : "false") << ",\"code\":" << code
                  << ",\"power\":" << power << ",\"slot\":" << JsonText(slot)
                  << ",\"message\":" << JsonText(message) << "}" << std::endl;
    } else if (code == 0) {
        std::cout << "target power " << power << " for the slot starting " << slotText << std::endl;
    } else {
        std::cout << "no target power: " << message << " (code " << code << "); fall-back power " << power
                  << std::endl;
    }
    return code == 0 ? 0 : 1;
}

int PrintUpdate(const Options& options, const std::string& answer, bool fixedLayout) {
    const std::size_t need = fixedLayout ? 171 : 144;
    if (answer.size() < need) return Fail("short answer from pvocd");
    const std::size_t base = fixedLayout ? 35 : 8;
    const std::int32_t reason = WordAt(answer, base);
    const std::int32_t status = WordAt(answer, base + 4);
    const std::string message = TextAt(answer, base + 8, 128);
    const std::string plantId = fixedLayout ? TextAt(answer, 8, 27) : std::string();
    if (options.json) {
        std::cout << "{\"ok\":" << (reason == 0 ? "true" : "false") << ",\"reason\":" << reason
                  << ",\"status\":" << status << ",\"message\":" << JsonText(message);
        if (fixedLayout) std::cout << ",\"plantId\":" << JsonText(plantId);
        std::cout << "}" << std::endl;
    } else if (reason == 0) {
        std::cout << "ok";
        if (!plantId.empty()) std::cout << " (settings changed: plant " << plantId << ", stand-alone)";
        std::cout << std::endl;
    } else {
        std::cout << "failed: " << message << " (reason " << reason << ", HTTP status " << status << ")"
                  << std::endl;
    }
    return reason == 0 ? 0 : 1;
}

std::string DefaultDatabase() {
    brvo::LoggerSettingManager::CreateInstance();
    const std::string card = brvo::LoggerSettingManager::GetInstance()->GetSdcardPath() +
                             "/kestrovanyx/Database/OutputControl/output_control_schedule.db";
    if (brvo::FileUtil::Exists(card)) return card;
    return "/tmp/kestrovanyx/Database/OutputControl/output_control_schedule.db";
}

int ShowSchedule(const Options& options, std::vector<std::string> args) {
    std::string db;
    std::string day;
    for (std::size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--db" && i + 1 < args.size()) {
            db = args[++i];
        } else {
            day = args[i];
        }
    }
    if (db.empty()) db = DefaultDatabase();
    if (day.empty()) day = brvo::TimeStamp().Format("%Y-%m-%d");
    std::shared_ptr<brvo::TimeStamp> start = brvo::TimeStamp::ParseDisplay(day + " 00:00:00");
    if (!start) return Fail("not a date (YYYY-MM-DD): " + day);
    sqlite3* handle = nullptr;
    if (sqlite3_open_v2(db.c_str(), &handle, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
        sqlite3_close(handle);
        return Fail("cannot open the schedule database " + db);
    }
    const std::int64_t from = start->EpochSeconds();
    sqlite3_stmt* query = nullptr;
    const char* sql =
        "SELECT time, controlRate, sent FROM output_control_schedule WHERE time >= ? AND time < ? ORDER BY time";
    if (sqlite3_prepare_v2(handle, sql, -1, &query, nullptr) != SQLITE_OK) {
        sqlite3_close(handle);
        return Fail("cannot read the schedule table in " + db);
    }
    sqlite3_bind_int64(query, 1, from);
    sqlite3_bind_int64(query, 2, from + 86400);
    std::ostringstream json;
    int rows = 0;
    if (!options.json) std::cout << "slots of " << day << " (UTC) in " << db << "\n start  rate  sent\n";
    json << "{\"day\":" << JsonText(day) << ",\"slots\":[";
    while (sqlite3_step(query) == SQLITE_ROW) {
        const std::int64_t time = sqlite3_column_int64(query, 0);
        const int rate = sqlite3_column_int(query, 1);
        const bool sent = sqlite3_column_int(query, 2) != 0;
        const std::string hhmm = brvo::TimeStamp::FromEpochSeconds(time)->Format("%H:%M");
        if (options.json) {
            json << (rows > 0 ? "," : "") << "{\"start\":" << time << ",\"rate\":" << rate
                 << ",\"sent\":" << (sent ? "true" : "false") << "}";
        } else {
            const int width = std::max(0, std::min(rate, 200)) / 5;
            std::printf(" %s  %3d%%  %s  %s\n", hhmm.c_str(), rate, sent ? "yes" : " no",
                        std::string(static_cast<std::size_t>(width), '#').c_str());
        }
        ++rows;
    }
    sqlite3_finalize(query);
    sqlite3_close(handle);
    if (options.json) {
        std::cout << json.str() << "]}" << std::endl;
    } else if (rows == 0) {
        std::cout << " (no slots stored for this day)" << std::endl;
    }
    return rows > 0 ? 0 : 1;
}

bool ParseOptions(int argc, char** argv, Options& options) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--socket" && i + 1 < argc) {
            options.socketPath = argv[++i];
        } else if (arg == "--json") {
            options.json = true;
        } else if (arg == "--timeout" && i + 1 < argc) {
            options.timeoutSeconds = std::max(1, std::atoi(argv[++i]));
        } else if (arg == "--help" || arg == "-h") {
            return false;
        } else {
            options.args.push_back(arg);
        }
    }
    return !options.args.empty();
}

// The capacity argument; false when it is not a finite number.
bool CapacityArg(const std::vector<std::string>& args, double& capacity) {
    capacity = 100.0;
    if (args.size() < 2) return true;
    if (args.size() > 2) return false;
    char* end = nullptr;
    capacity = std::strtod(args[1].c_str(), &end);
    return end != args[1].c_str() && *end == '\0' && std::isfinite(capacity);
}

} // namespace

int main(int argc, char** argv) {
    Options options;
    if (!ParseOptions(argc, argv, options)) {
        std::cout << kUsage;
        return argc > 1 && (std::string(argv[1]) == "--help" || std::string(argv[1]) == "-h") ? 0 : 2;
    }
    const std::string command = options.args[0];
    if (command == "show-schedule") {
        return ShowSchedule(options, std::vector<std::string>(options.args.begin() + 1, options.args.end()));
    }
    if (options.socketPath.empty()) {
        brvo::LoggerSettingManager::CreateInstance();
        options.socketPath = brvo::LoggerSettingManager::GetInstance()->GetOutputControlSocketPath();
    }
    std::string request;
    std::int32_t type = 0;
    if (command == "current" || command == "next") {
        type = command == "current" ? 6 : 7;
        double capacity = 0;
        if (!CapacityArg(options.args, capacity)) {
            return Fail("CAPACITY must be a number, not \"" + options.args.back() + "\"");
        }
        std::string bytes(8, '\0');
        std::memcpy(&bytes[0], &capacity, 8);
        request = Request(type, bytes);
    } else if (command == "update") {
        type = 2;
        request = Request(type, "");
    } else if (command == "check-plant-id" && options.args.size() == 3) {
        type = 3;
        request = Request(type, Field(options.args[1], 27) + Field(options.args[2], 256));
    } else if (command == "fixed-schedule" && options.args.size() >= 2) {
        type = 4;
        const bool force = options.args.size() > 2 && options.args[2] == "--force";
        request = Request(type, Field(options.args[1], 256) + std::string(1, force ? '\1' : '\0'));
    } else if (command == "settings-changed") {
        type = 5;
        request = Request(type, "");
    } else if (command == "flush-log") {
        type = 8;
        request = Request(type, "");
    } else {
        std::cerr << kUsage;
        return Fail("unknown command or missing arguments: " + command);
    }
    std::string error;
    const std::string answer = Exchange(options, request, error);
    if (answer.empty()) return Fail(error);
    if (type == 6 || type == 7) return PrintTargetPower(options, answer);
    if (type == 4) return PrintUpdate(options, answer, true);
    if (type == 8) {
        if (options.json) {
            std::cout << "{\"ok\":true}" << std::endl;
        } else {
            std::cout << "log flush requested" << std::endl;
        }
        return 0;
    }
    return PrintUpdate(options, answer, false);
}
