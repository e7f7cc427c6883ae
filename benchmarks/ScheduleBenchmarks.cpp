// Benchmarks of the schedule path and the request path's computation:
// payload decoding, table writes and reads, the target power and the server
// answer parser. Run inside the sandbox (scripts/bench), since the daemon's
// paths are fixed.
#include "client/ServerResponseParser.h"
#include "database/ScheduleDatabase.h"
#include "schedule/RateControl.h"
#include "schedule/ScheduleModel.h"
#include "settings/DeviceSettingXmlManager.h"
#include "settings/LoggerSettingManager.h"
#include "settings/SystemSettingXmlManager.h"
#include "support/SchedulePayload.h"
#include "util/TimeStamp.h"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

namespace {

using brvo::ScheduleRow;

std::string Payload(std::size_t slots, int kind) {
    brvo::test::ScheduleRecord record;
    record.start = "203001010000";
    record.rates.clear();
    for (std::size_t i = 0; i < slots; ++i) record.rates.push_back(static_cast<int>((i * 7) % 101));
    return brvo::test::BuildSchedulePayload({record}, kind).hex;
}

std::vector<ScheduleRow> Rows(std::size_t count, std::int64_t start) {
    std::vector<ScheduleRow> rows;
    for (std::size_t i = 0; i < count; ++i) {
        ScheduleRow row;
        row.time = start + static_cast<std::int64_t>(i) * 1800;
        row.controlRate = static_cast<std::int32_t>(i % 101);
        rows.push_back(row);
    }
    return rows;
}

void WriteFile(const std::string& path, const std::string& text) {
    const std::string dir = path.substr(0, path.rfind('/'));
    const std::string mkdir = "mkdir -p '" + dir + "'";
    if (std::system(mkdir.c_str()) != 0) return;
    std::ofstream(path) << text;
}

// The settings files of a device with plant ID P`variant` and a description
// whose lowest value is `variant`.
void WriteSettings(int variant) {
    const std::string n = std::to_string(variant);
    WriteFile("/usr/local/etc/kestrovanyx/SettingsXML/SystemSetting.xml",
              "<logger><general><outputControlPlantId>P" + n +
                  "</outputControlPlantId></general><channelList><channel>"
                  "<addressList><address><type>HouseHoldSolarPowerGeneration</type><deviceSettingFile>pv"
                  "</deviceSettingFile></address></addressList></channel></channelList></logger>");
    WriteFile("/usr/local/etc/kestrovanyx/DeviceXML/pv.xml",
              "<lggrdev:EchonetLiteDevices xmlns:lggrdev=\"urn:x\"><lggrdev:Device><lggrdev:Properties>"
              "<lggrdev:Property><lggrdev:Variables><lggrdev:VariableInfo Name=\"Limit\" Value0=\"0\" "
              "Value100=\"100\" ValueMin=\"" +
                  n +
                  "\"/></lggrdev:Variables></lggrdev:Property></lggrdev:Properties>"
                  "</lggrdev:Device></lggrdev:EchonetLiteDevices>");
}

// Settings with a plant ID and a device description, as on a device.
void InstallSettings() {
    WriteFile("/usr/local/etc/kestrovanyx/SettingsXML/LoggerSetting.xml",
              "<LoggerSetting><LogLevel>5</LogLevel></LoggerSetting>");
    WriteSettings(1);
    brvo::LoggerSettingManager::CreateInstance();
    brvo::ScheduleDatabase::CreateInstance();
}

void DecodeWeek(benchmark::State& state) {
    const std::string hex = Payload(336, 1);
    for (auto _ : state) {
        brvo::ScheduleModel model(hex, 1);
        benchmark::DoNotOptimize(model.GetSlots());
    }
}
BENCHMARK(DecodeWeek);

void DecodeYearFixed(benchmark::State& state) {
    const std::string hex = Payload(17520, 0);
    for (auto _ : state) {
        brvo::ScheduleModel model(hex, 0);
        benchmark::DoNotOptimize(model.GetSlots());
    }
}
BENCHMARK(DecodeYearFixed)->Unit(benchmark::kMillisecond);

void InsertUpdateSchedule(benchmark::State& state) {
    InstallSettings();
    const std::vector<ScheduleRow> rows = Rows(static_cast<std::size_t>(state.range(0)), 1893456000);
    for (auto _ : state) benchmark::DoNotOptimize(brvo::ScheduleDatabase::GetInstance()->InsertUpdateSchedule(rows));
}
BENCHMARK(InsertUpdateSchedule)->Arg(336)->Arg(17520)->Arg(35136)->Unit(benchmark::kMillisecond);

void InsertFixedSchedule(benchmark::State& state) {
    InstallSettings();
    const std::vector<ScheduleRow> rows = Rows(17520, brvo::TimeStamp().EpochSeconds() + 3600);
    for (auto _ : state) {
        state.PauseTiming();
        brvo::ScheduleDatabase::GetInstance()->DeleteAll();
        state.ResumeTiming();
        benchmark::DoNotOptimize(brvo::ScheduleDatabase::GetInstance()->InsertFixedSchedule(rows));
    }
}
BENCHMARK(InsertFixedSchedule)->Unit(benchmark::kMillisecond);

// Selects current (argument 1) or next (0) on a year of rows, every call
// `step` seconds after the one before, alternately forward and back.
void SelectEvery(benchmark::State& state, std::int64_t step) {
    InstallSettings();
    const std::int64_t start = brvo::TimeStamp().EpochSeconds() - 86400 * 180;
    brvo::ScheduleDatabase::GetInstance()->InsertUpdateSchedule(Rows(17520, start));
    const bool current = state.range(0) != 0;
    std::int64_t offset = 0;
    for (auto _ : state) {
        offset = step - offset;
        benchmark::DoNotOptimize(
            brvo::ScheduleDatabase::GetInstance()->SelectSchedule(start + 86400 * 180 + 77 + offset, current));
    }
}

// Every call in the same slot: the slots kept from the call before serve it.
void SelectSchedule(benchmark::State& state) {
    SelectEvery(state, 0);
}
BENCHMARK(SelectSchedule)->Arg(1)->Arg(0);

// Each call falls in another slot than the call before, so the slots kept
// from the last call never serve it: the cost of the queries themselves
// (the asked slot and its neighbour, which is kept for the next call).
void SelectScheduleOtherSlot(benchmark::State& state) {
    SelectEvery(state, 1800);
}
BENCHMARK(SelectScheduleOtherSlot)->Arg(1)->Arg(0);

// The current target power of a day's schedule; with `rewrite`, both
// settings files get other content before every call (the writing not
// timed), so that they are read and parsed again each time.
void TargetPower(benchmark::State& state, bool rewrite) {
    InstallSettings();
    const std::int64_t now = brvo::TimeStamp().EpochSeconds();
    brvo::ScheduleDatabase::GetInstance()->InsertUpdateSchedule(Rows(48, now - 3600));
    brvo::RateControl control;
    int variant = 0;
    for (auto _ : state) {
        if (rewrite) {
            state.PauseTiming();
            variant = 1 - variant;
            WriteSettings(variant);
            state.ResumeTiming();
        }
        benchmark::DoNotOptimize(control.GetTargetPower(49.5, 6));
    }
}

void GetTargetPower(benchmark::State& state) {
    TargetPower(state, false);
}
BENCHMARK(GetTargetPower);

void GetTargetPowerSettingsChanged(benchmark::State& state) {
    TargetPower(state, true);
}
BENCHMARK(GetTargetPowerSettingsChanged);

void ParseYearAnswer(benchmark::State& state) {
    brvo::test::ScheduleRecord record;
    record.start = "203001010000";
    record.rates.assign(17520, 60);
    const std::string body =
        brvo::test::BinaryPartBody("b", brvo::test::BytesText(brvo::test::BuildSchedulePayload({record}, 1).bytes));
    const std::string type = brvo::test::MultipartContentType("b");
    for (auto _ : state) {
        brvo::ServerResponseParser parser(type, body.data(), static_cast<std::int64_t>(body.size()));
        benchmark::DoNotOptimize(parser.GetHexData());
    }
}
BENCHMARK(ParseYearAnswer)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
