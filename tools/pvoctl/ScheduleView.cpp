#include "ScheduleView.h"

#include "JsonValue.h"
#include "StorageLocation.h"

#include "settings/LoggerSettingManager.h"
#include "util/TimeStamp.h"

#include <sqlite3.h>

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <limits>

namespace brvo {

namespace {

const char kQuery[] =
    "SELECT time, controlRate, sent FROM output_control_schedule WHERE time >= ? AND time < ? ORDER BY time";

int Fail(const std::string& message) {
    std::cerr << "pvoctl: " << message << std::endl;
    return 2;
}

} // namespace

ScheduleView::ScheduleView(const Options& options)
    : options_(options), shift_(options.serverTime ? TimeStamp::kServerOffsetSeconds : 0) {}

std::string ScheduleView::Database() const {
    if (!options_.database.empty()) return options_.database;
    LoggerSettingManager::CreateInstance();
    return StorageLocation(LoggerSettingManager::GetInstance()->GetSdcardPath()).ScheduleDatabase();
}

// Each day runs from midnight of its zone: UTC, or the schedule server's
// time with --server-time. Times print in the same zone.
int ScheduleView::Run() {
    if (options_.args.size() > 2) return Fail("show-schedule takes at most one day");
    const std::string zone = shift_ != 0 ? "server time, UTC+9" : "UTC";
    const std::string day = options_.args.size() == 2
                                ? options_.args[1]
                                : TimeStamp::FromEpochSeconds(TimeStamp().EpochSeconds() + shift_)->Format("%Y-%m-%d");
    std::shared_ptr<TimeStamp> start = TimeStamp::ParseDisplay(day + " 00:00:00");
    if (!start || start->Format("%Y-%m-%d") != day) return Fail("not a date (YYYY-MM-DD): " + day);
    const std::string db = Database();
    sqlite3* handle = nullptr;
    if (sqlite3_open_v2(db.c_str(), &handle, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
        sqlite3_close(handle);
        return Fail("cannot open the schedule database " + db);
    }
    sqlite3_stmt* query = nullptr;
    if (sqlite3_prepare_v2(handle, kQuery, -1, &query, nullptr) != SQLITE_OK) {
        sqlite3_close(handle);
        return Fail("cannot read the schedule table in " + db);
    }
    const std::int64_t from = start->EpochSeconds() - shift_;
    sqlite3_bind_int64(query, 1, from);
    sqlite3_bind_int64(query, 2, from + 86400);
    if (!options_.json) std::cout << "slots of " << day << " (" << zone << ") in " << db << "\n start  rate  sent\n";
    int rows = 0;
    for (; sqlite3_step(query) == SQLITE_ROW; ++rows) {
        PrintRow(sqlite3_column_int64(query, 0), sqlite3_column_int(query, 1), sqlite3_column_int(query, 2) != 0,
                 rows == 0);
    }
    sqlite3_finalize(query);
    sqlite3_close(handle);
    if (options_.json) {
        std::cout << "{\"day\":" << JsonValue::Text(day) << (shift_ != 0 ? ",\"zone\":\"UTC+9\"" : "") << ",\"slots\":["
                  << json_ << "]}" << std::endl;
    } else if (rows == 0) {
        std::cout << " (no slots stored for this day)" << std::endl;
    }
    return rows > 0 ? 0 : 1;
}

void ScheduleView::PrintRow(std::int64_t time, int rate, bool sent, bool first) {
    if (options_.json) {
        json_ += std::string(first ? "" : ",") + "{\"start\":" + std::to_string(time) +
                 ",\"rate\":" + std::to_string(rate) + ",\"sent\":" + (sent ? "true" : "false") + "}";
        return;
    }
    const bool fits = time <= std::numeric_limits<std::int64_t>::max() - shift_;
    const std::shared_ptr<TimeStamp> start = fits ? TimeStamp::FromEpochSeconds(time + shift_) : nullptr;
    const std::string hhmm = start ? start->Format("%H:%M") : "??:??";
    const int width = std::max(0, std::min(rate, 200)) / 5;
    std::printf(" %s  %3d%%  %s  %s\n", hhmm.c_str(), rate, sent ? "yes" : " no",
                std::string(static_cast<std::size_t>(width), '#').c_str());
}

} // namespace brvo
