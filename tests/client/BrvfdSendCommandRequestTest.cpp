#include "client/BrvfdSendCommandRequest.h"

#include "settings/LoggerSettingManager.h"
#include "support/SingletonTest.h"
#include "support/TestFiles.h"
#include "util/LoggerLog.h"

#include <gtest/gtest.h>

#include <cstring>
#include <future>
#include <string>

namespace brvo {
namespace {

// A 12-byte reply with `result` in the word at offset 8.
std::string Reply(std::int32_t result) {
    std::string reply(12, '\x55');
    std::memcpy(&reply[8], &result, sizeof result);
    return reply;
}

// The tests that log leave no process-wide instance behind, even when one
// fails before it deletes them itself.
class BrvfdSendCommandRequestTest : public test::SingletonTest {};

TEST_F(BrvfdSendCommandRequestTest, FulfilsItsPromiseOnce) {
    BrvfdSendCommandRequest callback(1);
    EXPECT_EQ(1, callback.GetCommand());
    std::future<int> result = callback.GetFuture();
    const std::string reply = Reply(9);
    callback.OnResult(0, reinterpret_cast<const unsigned char*>(reply.data()));
    callback.OnResult(2, nullptr);
    EXPECT_EQ(9, result.get());
}

TEST_F(BrvfdSendCommandRequestTest, ReplyWithoutSuccessStatusIsAFailure) {
    BrvfdSendCommandRequest callback(1);
    std::future<int> result = callback.GetFuture();
    const std::string reply = Reply(0);
    callback.OnResult(4, reinterpret_cast<const unsigned char*>(reply.data()));
    EXPECT_EQ(1, result.get());
}

TEST_F(BrvfdSendCommandRequestTest, FailureIsLoggedWithItsStatus) {
    test::WriteLoggerSetting("<OutputScheduleEnableLogBufferedIO>0</OutputScheduleEnableLogBufferedIO>");
    LoggerSettingManager::CreateInstance();
    LoggerLog::CreateInstance();
    BrvfdSendCommandRequest callback(1);
    std::future<int> result = callback.GetFuture();
    callback.OnResult(6, nullptr);
    EXPECT_EQ(1, result.get());
    LoggerLog::DeleteInstance();
    LoggerSettingManager::DeleteInstance();
    EXPECT_TRUE(test::HasLogLine(test::ReadLines(test::LogFilePath()), "E", "BrvfdSendCommandRequest",
                                 "sending error. error_code [6]"));
}

} // namespace
} // namespace brvo
