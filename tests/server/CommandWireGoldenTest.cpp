// The command socket's bytes as the local clients know them, written out by
// hand from the layout tables: every request type and every answer shape,
// padding and zero bytes included. No expected value here is computed with
// CommandWire's constants or functions, so the codec cannot agree with
// itself by mistake.
#include "server/CommandWire.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

namespace brvo {
namespace {

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "the expected bytes are those of the little-endian device");

// The bytes given, each 0 to 255.
std::string Hex(std::initializer_list<int> bytes) {
    std::string text;
    for (const int byte : bytes) text += static_cast<char>(static_cast<unsigned char>(byte));
    return text;
}

std::string Zeros(std::size_t count) {
    return std::string(count, '\0');
}

std::string Text(const std::vector<unsigned char>& bytes) {
    return std::string(bytes.begin(), bytes.end());
}

const unsigned char* Raw(const std::string& bytes) {
    return reinterpret_cast<const unsigned char*>(bytes.data());
}

// --- requests, as a client writes them ---

TEST(CommandWireGoldenTest, RequestsWithoutParametersAreTheHeaderAlone) {
    EXPECT_EQ(Hex({0x08, 0x00, 0x00, 0x00, 0x02, 0x00, 0x00, 0x00}), CommandWire::EncodeRequest(2));
    EXPECT_EQ(Hex({0x08, 0x00, 0x00, 0x00, 0x05, 0x00, 0x00, 0x00}), CommandWire::EncodeRequest(5));
    EXPECT_EQ(Hex({0x08, 0x00, 0x00, 0x00, 0x08, 0x00, 0x00, 0x00}), CommandWire::EncodeRequest(8));
}

TEST(CommandWireGoldenTest, CheckPlantIdRequest) {
    // 8 + 283 = 291 = 0x123.
    const std::string expected =
        Hex({0x23, 0x01, 0x00, 0x00, 0x03, 0x00, 0x00, 0x00}) + "PLANT-7" + Zeros(20) + "http://s/c" + Zeros(246);
    ASSERT_EQ(291u, expected.size());
    EXPECT_EQ(expected, CommandWire::EncodeRequest(3, CommandWire::EncodeCheckPlantIdBlock("PLANT-7", "http://s/c")));
}

TEST(CommandWireGoldenTest, CheckPlantIdFieldsKeepANul) {
    const std::string block =
        CommandWire::EncodeCheckPlantIdBlock("ABCDEFGHIJKLMNOPQRSTUVWXYZ0123", std::string(300, 'u'));
    EXPECT_EQ("ABCDEFGHIJKLMNOPQRSTUVWXYZ" + Zeros(1) + std::string(255, 'u') + Zeros(1), block);
}

TEST(CommandWireGoldenTest, UpdateFixedScheduleRequest) {
    // 8 + 257 = 265 = 0x109.
    const std::string header = Hex({0x09, 0x01, 0x00, 0x00, 0x04, 0x00, 0x00, 0x00});
    const std::string expected = header + "/tmp/f.hex" + Zeros(246) + Hex({0x01});
    ASSERT_EQ(265u, expected.size());
    EXPECT_EQ(expected, CommandWire::EncodeRequest(4, CommandWire::EncodeFixedScheduleBlock("/tmp/f.hex", 1)));
    EXPECT_EQ(header + "/tmp/f.hex" + Zeros(246) + Hex({0x00}),
              CommandWire::EncodeRequest(4, CommandWire::EncodeFixedScheduleBlock("/tmp/f.hex", 0)));
    EXPECT_EQ(header + "/tmp/f.hex" + Zeros(246) + Hex({0x02}),
              CommandWire::EncodeRequest(4, CommandWire::EncodeFixedScheduleBlock("/tmp/f.hex", 2)));
    // A path too long for its field keeps a NUL before the force byte.
    EXPECT_EQ(std::string(255, 'p') + Zeros(1) + Hex({0x01}),
              CommandWire::EncodeFixedScheduleBlock(std::string(400, 'p'), 1));
}

TEST(CommandWireGoldenTest, TargetPowerRequests) {
    // 100.0 is 0x4059000000000000; 2.5 is 0x4004000000000000.
    EXPECT_EQ(Hex({0x10, 0x00, 0x00, 0x00, 0x06, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x59, 0x40}),
              CommandWire::EncodeRequest(6, CommandWire::EncodeCapacityBlock(100.0)));
    EXPECT_EQ(Hex({0x10, 0x00, 0x00, 0x00, 0x07, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x04, 0x40}),
              CommandWire::EncodeRequest(7, CommandWire::EncodeCapacityBlock(2.5)));
}

// --- requests, as the daemon reads them ---

TEST(CommandWireGoldenTest, TypeIsTheSecondWordSigned) {
    EXPECT_EQ(7, CommandWire::DecodeType(Raw(Hex({0x10, 0x00, 0x00, 0x00, 0x07, 0x00, 0x00, 0x00}))));
    EXPECT_EQ(-1, CommandWire::DecodeType(Raw(Hex({0x00, 0x00, 0x00, 0x00, 0xff, 0xff, 0xff, 0xff}))));
    EXPECT_EQ(0x01020304, CommandWire::DecodeType(Raw(Hex({0xff, 0xff, 0xff, 0xff, 0x04, 0x03, 0x02, 0x01}))));
}

TEST(CommandWireGoldenTest, ParameterBlockSizes) {
    EXPECT_EQ(0u, CommandWire::ParameterSize(2));
    EXPECT_EQ(283u, CommandWire::ParameterSize(3));
    EXPECT_EQ(257u, CommandWire::ParameterSize(4));
    EXPECT_EQ(0u, CommandWire::ParameterSize(5));
    EXPECT_EQ(8u, CommandWire::ParameterSize(6));
    EXPECT_EQ(8u, CommandWire::ParameterSize(7));
    EXPECT_EQ(0u, CommandWire::ParameterSize(8));
    for (const std::int32_t unknown : {0, 1, 9, -1}) EXPECT_EQ(0u, CommandWire::ParameterSize(unknown)) << unknown;
}

TEST(CommandWireGoldenTest, CheckPlantIdParameters) {
    const CommandWire::CheckPlantIdRequest plain =
        CommandWire::DecodeCheckPlantId(Raw("PLANT-7" + Zeros(20) + "http://s/c" + Zeros(246)));
    EXPECT_EQ("PLANT-7", plain.plantId);
    EXPECT_EQ("http://s/c", plain.url);
    // A plant ID without NUL runs on into the URL.
    const CommandWire::CheckPlantIdRequest runOn =
        CommandWire::DecodeCheckPlantId(Raw(std::string(27, 'A') + "http://x" + Zeros(248)));
    EXPECT_EQ(std::string(27, 'A') + "http://x", runOn.plantId);
    EXPECT_EQ("http://x", runOn.url);
    // Nothing runs past the block.
    const std::string full = std::string(283, 'B') + "beyond";
    const CommandWire::CheckPlantIdRequest unended = CommandWire::DecodeCheckPlantId(Raw(full));
    EXPECT_EQ(std::string(283, 'B'), unended.plantId);
    EXPECT_EQ(std::string(256, 'B'), unended.url);
}

TEST(CommandWireGoldenTest, FixedScheduleParameters) {
    const CommandWire::FixedScheduleRequest forced =
        CommandWire::DecodeFixedSchedule(Raw("/tmp/f.hex" + Zeros(246) + Hex({0x01})));
    EXPECT_EQ("/tmp/f.hex", forced.path);
    EXPECT_TRUE(forced.force);
    EXPECT_FALSE(CommandWire::DecodeFixedSchedule(Raw("/tmp/f.hex" + Zeros(246) + Hex({0x00}))).force);
    EXPECT_FALSE(CommandWire::DecodeFixedSchedule(Raw("/tmp/f.hex" + Zeros(246) + Hex({0x02}))).force);
    EXPECT_FALSE(CommandWire::DecodeFixedSchedule(Raw("/tmp/f.hex" + Zeros(246) + Hex({0xff}))).force);
    // A path without NUL ends at its field, not in the force byte.
    const CommandWire::FixedScheduleRequest unended =
        CommandWire::DecodeFixedSchedule(Raw(std::string(256, 'p') + Hex({0x01})));
    EXPECT_EQ(std::string(256, 'p'), unended.path);
    EXPECT_TRUE(unended.force);
}

TEST(CommandWireGoldenTest, Capacity) {
    EXPECT_EQ(2.5, CommandWire::DecodeCapacity(Raw(Hex({0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x04, 0x40}))));
    EXPECT_EQ(0.0, CommandWire::DecodeCapacity(Raw(Zeros(8))));
}

// --- answers, as the daemon writes them ---

const std::string kUpdateAnswer =
    Hex({0x90, 0x00, 0x00, 0x00, 0x03, 0x00, 0x00, 0x00, 0x06, 0x00, 0x00, 0x00, 0xc8, 0x00, 0x00, 0x00}) +
    "Plant ID is not registered" + Zeros(102);

const std::string kFixedAnswer = Hex({0xab, 0x00, 0x00, 0x00, 0x04, 0x00, 0x00, 0x00}) + "PLANT9" + Zeros(21) +
                                 Hex({0x07, 0x00, 0x00, 0x00, 0xf4, 0x01, 0x00, 0x00}) + "[A] : [B]" + Zeros(119);

// 2.75 is 0x4006000000000000.
const std::string kTargetAnswer =
    Hex({0xa7, 0x00, 0x00, 0x00, 0x06, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x06, 0x40}) +
    "20220119030000" + Zeros(1) + Hex({0x05, 0x00, 0x00, 0x00}) + Zeros(4) + "can not get." + Zeros(116);

TEST(CommandWireGoldenTest, UpdateAnswer) {
    ASSERT_EQ(144u, kUpdateAnswer.size());
    EXPECT_EQ(kUpdateAnswer, Text(CommandWire::EncodeUpdateAnswer(3, 6, 200, "Plant ID is not registered")));
    EXPECT_EQ(Hex({0x90, 0x00, 0x00, 0x00, 0x02, 0x00, 0x00, 0x00, 0x0c, 0x00, 0x00, 0x00, 0xff, 0xff, 0xff, 0xff}) +
                  Zeros(128),
              Text(CommandWire::EncodeUpdateAnswer(2, 12, -1, "")));
    EXPECT_EQ(Hex({0x90, 0x00, 0x00, 0x00, 0x05, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00}) +
                  std::string(127, 'm') + Zeros(1),
              Text(CommandWire::EncodeUpdateAnswer(5, 0, 0, std::string(300, 'm'))));
}

TEST(CommandWireGoldenTest, FixedScheduleAnswer) {
    ASSERT_EQ(171u, kFixedAnswer.size());
    EXPECT_EQ(kFixedAnswer, Text(CommandWire::EncodeFixedScheduleAnswer("PLANT9", 7, 500, "[A] : [B]")));
    EXPECT_EQ(Hex({0xab, 0x00, 0x00, 0x00, 0x04, 0x00, 0x00, 0x00}) + Zeros(27) +
                  Hex({0x09, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00}) + "file not found." + Zeros(113),
              Text(CommandWire::EncodeFixedScheduleAnswer("", 9, 0, "file not found.")));
    EXPECT_EQ(
        Hex({0xab, 0x00, 0x00, 0x00, 0x04, 0x00, 0x00, 0x00}) + "ABCDEFGHIJKLMNOPQRSTUVWXYZ" + Zeros(1) + Zeros(8) +
            std::string(127, 'm') + Zeros(1),
        Text(CommandWire::EncodeFixedScheduleAnswer("ABCDEFGHIJKLMNOPQRSTUVWXYZ0123", 0, 0, std::string(128, 'm'))));
}

TEST(CommandWireGoldenTest, TargetPowerAnswer) {
    ASSERT_EQ(167u, kTargetAnswer.size());
    EXPECT_EQ(kTargetAnswer, Text(CommandWire::EncodeTargetPowerAnswer(6, 2.75, "20220119030000", 5, "can not get.")));
    EXPECT_EQ(Hex({0xa7, 0x00, 0x00, 0x00, 0x07, 0x00, 0x00, 0x00}) + Zeros(8) + "20400301003000" + Zeros(1) +
                  Zeros(4) + Zeros(4) + Zeros(128),
              Text(CommandWire::EncodeTargetPowerAnswer(7, 0.0, "20400301003000", 0, "")));
    // The slot text keeps a NUL; the message as in the other answers.
    EXPECT_EQ(Hex({0xa7, 0x00, 0x00, 0x00, 0x06, 0x00, 0x00, 0x00}) + Zeros(8) + "20220119030000" + Zeros(1) +
                  Hex({0xff, 0xff, 0xff, 0xff}) + Zeros(4) + std::string(127, 'm') + Zeros(1),
              Text(CommandWire::EncodeTargetPowerAnswer(6, 0.0, "2022011903000099", -1, std::string(200, 'm'))));
}

TEST(CommandWireGoldenTest, TargetPowerAnswerInAFixedBufferLeavesNothingStale) {
    unsigned char buffer[167];
    std::fill(buffer, buffer + sizeof buffer, static_cast<unsigned char>(0xee));
    CommandWire::FillTargetPowerAnswer(buffer, 6, 2.75, "20220119030000", 5, "can not get.");
    EXPECT_EQ(kTargetAnswer, std::string(buffer, buffer + sizeof buffer));
}

TEST(CommandWireGoldenTest, FlushAnswer) {
    const std::string expected = Hex({0x90, 0x00, 0x00, 0x00, 0x08, 0x00, 0x00, 0x00}) + Zeros(136);
    ASSERT_EQ(144u, expected.size());
    EXPECT_EQ(expected, Text(CommandWire::EncodeFlushAnswer()));
}

// --- answers, as a client reads them ---

TEST(CommandWireGoldenTest, ReadsUpdateAnswer) {
    CommandWire::UpdateReply reply;
    reply.plantId = "stale";
    ASSERT_TRUE(CommandWire::DecodeUpdateAnswer(kUpdateAnswer, reply));
    EXPECT_EQ(3, reply.type);
    EXPECT_EQ(6, reply.reason);
    EXPECT_EQ(200, reply.status);
    EXPECT_EQ("Plant ID is not registered", reply.message);
    EXPECT_EQ("", reply.plantId);
    EXPECT_FALSE(CommandWire::DecodeUpdateAnswer(kUpdateAnswer.substr(0, 143), reply));
    const std::string negative =
        Hex({0x90, 0x00, 0x00, 0x00, 0x02, 0x00, 0x00, 0x00, 0x0c, 0x00, 0x00, 0x00, 0xff, 0xff, 0xff, 0xff}) +
        Zeros(128);
    ASSERT_TRUE(CommandWire::DecodeUpdateAnswer(negative, reply));
    EXPECT_EQ(12, reply.reason);
    EXPECT_EQ(-1, reply.status);
    EXPECT_EQ("", reply.message);
}

TEST(CommandWireGoldenTest, ReadsFixedScheduleAnswer) {
    CommandWire::UpdateReply reply;
    ASSERT_TRUE(CommandWire::DecodeFixedScheduleAnswer(kFixedAnswer, reply));
    EXPECT_EQ(4, reply.type);
    EXPECT_EQ("PLANT9", reply.plantId);
    EXPECT_EQ(7, reply.reason);
    EXPECT_EQ(500, reply.status);
    EXPECT_EQ("[A] : [B]", reply.message);
    EXPECT_FALSE(CommandWire::DecodeFixedScheduleAnswer(kFixedAnswer.substr(0, 170), reply));
    // The update answer is too short to be read as a fixed-schedule one.
    EXPECT_FALSE(CommandWire::DecodeFixedScheduleAnswer(kUpdateAnswer, reply));
}

TEST(CommandWireGoldenTest, ReadsTargetPowerAnswer) {
    CommandWire::TargetPowerReply reply;
    ASSERT_TRUE(CommandWire::DecodeTargetPowerAnswer(kTargetAnswer, reply));
    EXPECT_EQ(6, reply.type);
    EXPECT_EQ(2.75, reply.power);
    EXPECT_EQ("20220119030000", reply.timeText);
    EXPECT_EQ(5, reply.code);
    EXPECT_EQ("can not get.", reply.message);
    EXPECT_FALSE(CommandWire::DecodeTargetPowerAnswer(kTargetAnswer.substr(0, 166), reply));
    // Fields filled to the last byte end at their field.
    const std::string full = Hex({0xa7, 0x00, 0x00, 0x00, 0x07, 0x00, 0x00, 0x00}) + Zeros(8) + std::string(15, '9') +
                             Hex({0xfe, 0xff, 0xff, 0xff}) + Zeros(4) + std::string(128, 'x');
    ASSERT_TRUE(CommandWire::DecodeTargetPowerAnswer(full, reply));
    EXPECT_EQ(7, reply.type);
    EXPECT_EQ(std::string(15, '9'), reply.timeText);
    EXPECT_EQ(-2, reply.code);
    EXPECT_EQ(std::string(128, 'x'), reply.message);
}

} // namespace
} // namespace brvo
