// Writes the seed corpora of the fuzz targets (corpus/<target>/ in this
// directory): schedule payloads of both kinds as the schedule server builds
// them, the multipart answers that carry them, one request of every type
// on the command socket, and the example settings files. Run it after a
// change of a format and commit what it wrote:
//
//   build/tests/fuzz/pvocd-fuzz-seeds tests/fuzz/corpus
//
// Seeds are small on purpose: the fuzzer grows its own corpus from them.
#include "server/CommandWire.h"
#include "support/SchedulePayload.h"

#include <Poco/File.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

using namespace brvo::test;

namespace {

std::string g_root;

void Write(const std::string& target, const std::string& name, const std::string& content) {
    const std::string directory = g_root + "/" + target;
    Poco::File(directory).createDirectories();
    std::ofstream out(directory + "/" + name, std::ios::binary | std::ios::trunc);
    out.write(content.data(), static_cast<std::streamsize>(content.size()));
    if (!out.good()) {
        std::fprintf(stderr, "cannot write %s/%s\n", directory.c_str(), name.c_str());
        std::exit(1);
    }
}

std::string Example(const std::string& relative) {
    std::ifstream in(std::string(PVOCD_SOURCE_DIR) + "/examples/" + relative, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    if (text.str().empty()) {
        std::fprintf(stderr, "cannot read examples/%s\n", relative.c_str());
        std::exit(1);
    }
    return text.str();
}

std::string Byte(int value) {
    return std::string(1, static_cast<char>(static_cast<unsigned char>(value)));
}

// --- schedule payloads -----------------------------------------------------

ScheduleRecord Record() {
    ScheduleRecord record;
    record.plantId = "01234567890123456789012345";
    return record;
}

// Two records as the structured modes of the fuzz targets read them: the
// record count less one, then per record year (from 2000), month, day,
// hour, half hour, plant ID (two bytes), slot count (two bytes), the
// rates and the fixed schedule update flag.
std::string StructuredRecords() {
    std::string text = Byte(1);
    for (int day : {19, 20}) {
        text += Byte(22) + Byte(0) + Byte(day - 1) + Byte(9) + Byte(0) + Byte(3) + Byte(9) + Byte(0) + Byte(48);
        for (int i = 0; i < 48; ++i) text += Byte(i * 2);
        text += Byte(3);
    }
    return text;
}

void WriteScheduleModelSeeds() {
    const std::string target = "ScheduleModelFuzz";
    const ScheduleRecord record = Record();
    // First byte: kind in the low three bits (0 fixed, 1 update, 3 the
    // kind -1); high bit: the rest is payload bytes instead of hex text.
    Write(target, "fixed-valid", Byte(0) + BuildSchedulePayload({record}, kFixedSchedule).hex);
    Write(target, "update-valid", Byte(1) + BuildSchedulePayload({record}, kUpdateSchedule).hex);
    Write(target, "fixed-valid-bytes", Byte(0x80) + BytesText(BuildSchedulePayload({record}, kFixedSchedule).bytes));
    Write(target, "update-valid-bytes", Byte(0x81) + BytesText(BuildSchedulePayload({record}, kUpdateSchedule).bytes));
    Write(target, "kind-minus-one", Byte(3) + BuildSchedulePayload({record}, kFixedSchedule).hex);

    ScheduleRecord second = record;
    second.start = "202201200900";
    second.rates = {0, 10, 20, 30, 40, 50, 60, 70, 80, 90, 100, 255};
    second.fixedFlag = 3;
    Write(target, "update-two-records", Byte(1) + BuildSchedulePayload({record, second}, kUpdateSchedule).hex);

    ScheduleRecord quarter = record;
    quarter.start = "202201191215";
    Write(target, "start-minute-15", Byte(0) + BuildSchedulePayload({quarter}, kFixedSchedule).hex);

    ScheduleRecord broken = record;
    broken.corruptChecksum = true;
    Write(target, "checksum-wrong", Byte(1) + BuildSchedulePayload({broken}, kUpdateSchedule).hex);

    ScheduleRecord zeroSum = record;
    zeroSum.rates = std::vector<int>(4, 0);
    Write(target, "checksum-zero", Byte(0) + BuildSchedulePayload({zeroSum}, kFixedSchedule).hex);

    ScheduleRecord badNext = record;
    badNext.nextUpdate = "20221399999999";
    Write(target, "next-update-invalid", Byte(1) + BuildSchedulePayload({badNext}, kUpdateSchedule).hex);

    ScheduleRecord badStart = record;
    badStart.start = "202213450900";
    Write(target, "start-invalid", Byte(0) + BuildSchedulePayload({badStart}, kFixedSchedule).hex);

    ScheduleRecord longCount = record;
    longCount.slotCountOverride = 99999;
    Write(target, "slot-count-beyond-text", Byte(0) + BuildSchedulePayload({longCount}, kFixedSchedule).hex);

    SchedulePayload overflowed = BuildSchedulePayload({record}, kUpdateSchedule);
    for (std::size_t i = 0; i < kRecordCountBytes; ++i) overflowed.bytes[i] = 0xff;
    Write(target, "record-count-overflow-bytes", Byte(0x81) + BytesText(overflowed.bytes));
    SchedulePayload million = BuildSchedulePayload({record}, kFixedSchedule);
    const std::size_t slotCount = kRecordCountBytes + kReservedBytes + kPlantIdBytes + kStartBytes;
    million.bytes[slotCount] = 100; // 100, 0, 0, 0, 0 reads "1000000"
    for (std::size_t i = 1; i < kSlotCountBytes; ++i) million.bytes[slotCount + i] = 0;
    Write(target, "slot-count-million-bytes", Byte(0x80) + BytesText(million.bytes));
    ScheduleRecord cut = record;
    Write(target, "update-cut-short", Byte(1) + BuildSchedulePayload({cut}, kUpdateSchedule).hex.substr(0, 200));

    // Bit 0x40: a valid payload described by the rest, then damaged (second
    // byte: 0 none, 1 cut, 2 count overflowed, 3 slot count of a million;
    // two bytes: where), see ScheduleModelFuzz.cpp.
    const std::string described = StructuredRecords();
    Write(target, "structured-update-valid", Byte(0x41) + Byte(0) + Byte(0) + Byte(0) + described);
    Write(target, "structured-fixed-cut", Byte(0x40) + Byte(1) + Byte(1) + Byte(44) + described);
    Write(target, "structured-update-overflow", Byte(0x41) + Byte(2) + Byte(0) + Byte(1) + described);
    Write(target, "structured-update-huge-slot-count", Byte(0x41) + Byte(3) + Byte(0) + Byte(2) + described);

    Write(target, "no-records", Byte(1) + BuildSchedulePayload({}, kUpdateSchedule).hex);
    Write(target, "count-without-records", Byte(1) + BuildSchedulePayload({}, kUpdateSchedule, 1).hex);
    Write(target, "too-short", Byte(0) + "00000000000");
}

// --- schedule server answers -----------------------------------------------

void WriteServerResponseSeeds() {
    const std::string target = "ServerResponseParserFuzz";
    // First line: the Content-Type value; the rest: the body.
    const std::string type = MultipartContentType("pvocsim") + "\n";
    const ScheduleRecord record = Record();
    Write(target, "update-schedule",
          type + BinaryPartBody("pvocsim", BytesText(BuildSchedulePayload({record}, kUpdateSchedule).bytes)));
    std::string registered(40, '\0');
    registered[0] = '\1';
    Write(target, "plant-id-registered", type + BinaryPartBody("pvocsim", registered));
    Write(target, "plant-id-unknown", type + BinaryPartBody("pvocsim", std::string(32, '\0') + "\x01\x02"));
    Write(target, "text-message", type + TextPartBody("pvocsim", "Plant ID is not registered"));
    Write(target, "no-content-length",
          type + MultipartBody("pvocsim", {"Content-Type: application/octet-stream"}, "\x01\x02"));
    Write(target, "no-content-type", type + MultipartBody("pvocsim", {"Content-Length: 2"}, "OK"));
    Write(target, "length-beyond-body",
          type + MultipartBody("pvocsim", {"Content-Type: application/octet-stream", "Content-Length: 4000"},
                               "\x01\xab\xff", false));
    Write(target, "preamble-and-two-parts",
          type + "preamble\r\n" + TextPartBody("pvocsim", "first") + BinaryPartBody("pvocsim", "\x05"));
    Write(target, "unquoted-boundary", "multipart/form-data; boundary=pvocsim\n" + BinaryPartBody("pvocsim", "\x01"));
    Write(target, "closing-delimiter-only", type + "--pvocsim\r\n--pvocsim--\r\n");
    Write(target, "part-truncated",
          type + MultipartBody("pvocsim", {"Content-Type: application/octet-stream", "Content-Length: 120"},
                               BytesText(BuildSchedulePayload({record}, kUpdateSchedule).bytes).substr(0, 100)));

    // A zero byte first: a schedule answer described by the rest (kind,
    // closing delimiter or not, the records, then how the declared length
    // stands to the content: two bytes of difference and 0 exact, 1
    // beyond, 2 short, 3 huge, 4 the largest 32-bit value), see
    // ServerResponseParserFuzz.cpp.
    const std::string described = StructuredRecords();
    Write(target, "structured-exact", Byte(0) + Byte(1) + Byte(0) + described + Byte(0) + Byte(0) + Byte(0));
    Write(target, "structured-beyond", Byte(0) + Byte(1) + Byte(1) + described + Byte(0) + Byte(40) + Byte(1));
    Write(target, "structured-short", Byte(0) + Byte(0) + Byte(0) + described + Byte(0) + Byte(5) + Byte(2));
    Write(target, "structured-huge", Byte(0) + Byte(1) + Byte(0) + described + Byte(0) + Byte(0) + Byte(3));
}

// --- command socket requests -----------------------------------------------

using brvo::CommandWire;

std::string Request(std::int32_t type, const std::string& params = "") {
    return CommandWire::EncodeRequest(type, params);
}

std::string FixedSchedule(const std::string& path, std::uint8_t force) {
    return Request(CommandWire::kUpdateFixedSchedule, CommandWire::EncodeFixedScheduleBlock(path, force));
}

void WriteOutSocketWorkSeeds() {
    const std::string target = "OutSocketWorkFuzz";
    // The fixed-schedule files under /tmp/pvocd-fuzz are made by the target.
    // No https address: every one loads the system's CA store, which takes
    // the fuzzer's time without reaching more of the daemon's code.
    Write(target, "update-schedule", Request(CommandWire::kUpdateSchedule));
    Write(target, "check-plant-id",
          Request(CommandWire::kCheckPlantId,
                  CommandWire::EncodeCheckPlantIdBlock("01234567890123456789012345", "http://127.0.0.1:1/check")));
    Write(target, "fixed-valid", FixedSchedule("/tmp/pvocd-fuzz/valid.hex", 0));
    Write(target, "fixed-other-plant-forced", FixedSchedule("/tmp/pvocd-fuzz/other-plant.hex", 1));
    Write(target, "fixed-other-plant", FixedSchedule("/tmp/pvocd-fuzz/other-plant.hex", 0));
    Write(target, "fixed-update-kind", FixedSchedule("/tmp/pvocd-fuzz/update-kind.hex", 0));
    Write(target, "fixed-bad-checksum", FixedSchedule("/tmp/pvocd-fuzz/bad-checksum.hex", 2));
    Write(target, "fixed-empty", FixedSchedule("/tmp/pvocd-fuzz/empty.hex", 0));
    Write(target, "fixed-missing", FixedSchedule("/tmp/pvocd-fuzz/none.hex", 0));
    // What follows a fixed-schedule request is the content of input.hex.
    ScheduleRecord own = Record();
    own.start = "202201200900";
    own.rates = {100, 80, 60, 40, 20, 0};
    Write(target, "fixed-input-valid",
          FixedSchedule("/tmp/pvocd-fuzz/input.hex", 0) + BuildSchedulePayload({own}, kFixedSchedule).hex);
    ScheduleRecord other = own;
    other.plantId = "55555555555555555555555555";
    Write(target, "fixed-input-other-plant-forced",
          FixedSchedule("/tmp/pvocd-fuzz/input.hex", 1) + BuildSchedulePayload({other}, kFixedSchedule).hex);
    Write(target, "change-setting-notify", Request(CommandWire::kChangeSettingNotify));
    Write(target, "current-target-power",
          Request(CommandWire::kCurrentTargetPower, CommandWire::EncodeCapacityBlock(5.5)));
    Write(target, "next-target-power", Request(CommandWire::kNextTargetPower, CommandWire::EncodeCapacityBlock(49.5)));
    Write(target, "flush-log", Request(CommandWire::kFlushLog));
    Write(target, "unknown-type", Request(9));
    // A header cut after the first byte of its type.
    Write(target, "short-header", Request(CommandWire::kCurrentTargetPower).substr(0, CommandWire::kTypeOffset + 1));
}

// --- settings files --------------------------------------------------------

// `depth` elements named `name`, each inside the one before. Deep enough
// to show what a deep document does, small enough for a seed.
std::string Nested(const std::string& name, int depth = 5000) {
    std::string xml;
    for (int i = 0; i < depth; ++i) xml += "<" + name + ">";
    for (int i = 0; i < depth; ++i) xml += "</" + name + ">";
    return xml;
}

void WriteSettingsSeeds() {
    const std::string logger = "LoggerSettingFuzz";
    Write(logger, "example", Example("LoggerSetting.xml"));
    Write(logger, "odd-values",
          "<LoggerSetting><WatchdogFileUpdateInterval>15 seconds</WatchdogFileUpdateInterval>"
          "<OutputScheduleEnableLogBufferedIO></OutputScheduleEnableLogBufferedIO>"
          "<OutputControlScheduleRetensionCycle>-5</OutputControlScheduleRetensionCycle>"
          "<OutputControlSocketTimeout>99999999999</OutputControlSocketTimeout>"
          "<SdcardPath>/media/sdcard/</SdcardPath><LogLevel>abc</LogLevel></LoggerSetting>");
    Write(logger, "other-root", "<Settings><SdcardPath>/x</SdcardPath></Settings>");
    Write(logger, "nested-deep", "<LoggerSetting><SdcardPath>/x</SdcardPath>" + Nested("d") + "</LoggerSetting>");
    Write(logger, "nested-at-cap", "<LoggerSetting><SdcardPath>/x</SdcardPath>" + Nested("d", 63) + "</LoggerSetting>");
    Write(logger, "long-value",
          "<LoggerSetting><SdcardPath>/" + std::string(16 * 1024, 'x') + "</SdcardPath></LoggerSetting>");

    const std::string system = "SystemSettingFuzz";
    Write(system, "example", Example("SystemSetting.xml"));
    Write(system, "odd-values",
          "<logger planeName=\"p\"><general><cloudCooperation>false</cloudCooperation>"
          "<outputControlStandAlone>true</outputControlStandAlone>"
          "<system><communicationErrorRetry>0x10</communicationErrorRetry></system></general>"
          "<general><system><communicationErrorRetry>65536</communicationErrorRetry></system></general>"
          "</logger>");
    Write(system, "default-namespace",
          "<logger xmlns=\"urn:example:logger\" loggerId=\"L\"><general><outputControlPlantId>7"
          "</outputControlPlantId></general></logger>");
    Write(system, "other-root", "<general><outputControlPlantId>7</outputControlPlantId></general>");
    Write(system, "nested-deep",
          "<logger><general><outputControlPlantId>7</outputControlPlantId>" + Nested("d") + "</general></logger>");
    Write(system, "long-comment",
          "<logger><general><outputControlPlantId>7</outputControlPlantId></general></logger><!--" +
              std::string(16 * 1024, 'c') + "-->");

    const std::string device = "DeviceSettingFuzz";
    // First byte even: the rest is the device description; odd: the
    // system settings.
    Write(device, "description-example", Byte(0) + Example("DeviceXML/pv_inverter.xml"));
    Write(device, "system-example", Byte(1) + Example("SystemSetting.xml"));
    Write(device, "description-two-limits",
          Byte(0) + "<lggrdev:EchonetLiteDevices><lggrdev:Device><lggrdev:Properties><lggrdev:Property>"
                    "<lggrdev:Variables><lggrdev:VariableInfo Name=\"Limit\" Value0=\"010\" "
                    "Value100=\"0x5A\" ValueMin=\"abc\"/><lggrdev:VariableInfo Name=\"Limit\" ValueMin=\"7\"/>"
                    "</lggrdev:Variables></lggrdev:Property></lggrdev:Properties></lggrdev:Device>"
                    "</lggrdev:EchonetLiteDevices>");
    Write(device, "description-nested-deep",
          Byte(0) + "<lggrdev:EchonetLiteDevices><lggrdev:Device>" + Nested("d") +
              "</lggrdev:Device></lggrdev:EchonetLiteDevices>");
    Write(device, "system-nested-deep",
          Byte(1) + "<logger><channelList><channel><addressList>" + Nested("d") +
              "</addressList></channel></channelList></logger>");
    Write(device, "system-two-devices",
          Byte(1) + "<logger><channelList><channel><addressList>"
                    "<address><type>Battery</type><deviceSettingFile>battery</deviceSettingFile></address>"
                    "<address><type>HouseHoldSolarPowerGeneration</type>"
                    "<deviceSettingFile>pv_inverter</deviceSettingFile></address>"
                    "</addressList></channel></channelList></logger>");
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s CORPUS_DIRECTORY\n", argv[0]);
        return 2;
    }
    g_root = argv[1];
    WriteScheduleModelSeeds();
    WriteServerResponseSeeds();
    WriteOutSocketWorkSeeds();
    WriteSettingsSeeds();
    return 0;
}
