#include "schedule/UpdateResult.h"

#include "util/GuardedCall.h"

#include <gtest/gtest.h>

#include <memory>

namespace brvo {
namespace {

TEST(UpdateResultTest, DefaultIsSuccess) {
    UpdateResult result;
    EXPECT_TRUE(result.IsResult());
    EXPECT_EQ(0, ToWire(result.GetFailureReason()));
    EXPECT_EQ(0, result.GetStatusCode());
    EXPECT_EQ("", result.GetMessage());
    EXPECT_FALSE(result.IsSettingChanged());
    EXPECT_EQ("", result.GetPlantId());
}

TEST(UpdateResultTest, NamedSuccessIsTheDefault) {
    EXPECT_EQ(UpdateResult().ToString(), UpdateResult::Success()->ToString());
    EXPECT_FALSE(UpdateResult::Success()->IsSettingChanged());
}

TEST(UpdateResultTest, NamedFailureHoldsItsFields) {
    const std::shared_ptr<UpdateResult> result =
        UpdateResult::Failure(FailureReason::kNoSlots, 200, "Schedule data is nothing.");
    EXPECT_FALSE(result->IsResult());
    EXPECT_EQ(4, ToWire(result->GetFailureReason()));
    EXPECT_EQ(200, result->GetStatusCode());
    EXPECT_EQ("Schedule data is nothing.", result->GetMessage());
    EXPECT_EQ("", result->GetPlantId());
}

TEST(UpdateResultTest, FixedDataAppliedIsASuccessWithThePlant) {
    const std::shared_ptr<UpdateResult> result = UpdateResult::FixedDataApplied(true, "P9");
    EXPECT_TRUE(result->IsResult());
    EXPECT_EQ(0, ToWire(result->GetFailureReason()));
    EXPECT_TRUE(result->IsSettingChanged());
    EXPECT_EQ("P9", result->GetPlantId());
}

TEST(UpdateResultTest, WhatAFlowThrewIsReasonTwelveWithItsText) {
    const Caught caught = GuardedCall([] { throw Poco::IOException("card gone"); });
    const std::shared_ptr<UpdateResult> result = UpdateResult::FromCaught(caught);
    EXPECT_EQ("UpdateResult [false]  FailureReason:12 StatusCode:0 Message:I/O error: card gone", result->ToString());
    const Caught other = GuardedCall([] { throw 7; });
    EXPECT_EQ("UpdateResult [false]  FailureReason:12 StatusCode:0 Message:",
              UpdateResult::FromCaught(other)->ToString());
}

TEST(UpdateResultTest, ReasonsKeepTheNumbersClientsRead) {
    EXPECT_EQ(0, ToWire(FailureReason::kNone));
    EXPECT_EQ(1, ToWire(FailureReason::kAccessFailed));
    EXPECT_EQ(2, ToWire(FailureReason::kResponseUnparsable));
    EXPECT_EQ(3, ToWire(FailureReason::kPayloadInvalid));
    EXPECT_EQ(4, ToWire(FailureReason::kNoSlots));
    EXPECT_EQ(5, ToWire(FailureReason::kDatabaseWriteFailed));
    EXPECT_EQ(6, ToWire(FailureReason::kPlantIdNotRegistered));
    EXPECT_EQ(7, ToWire(FailureReason::kPlantIdMismatch));
    EXPECT_EQ(9, ToWire(FailureReason::kFileNotFound));
    EXPECT_EQ(12, ToWire(FailureReason::kException));
}

TEST(UpdateResultTest, DefaultPrintsWithTwoBlanksAfterBracket) {
    EXPECT_EQ("UpdateResult [true]  FailureReason:0 StatusCode:0 Message:", UpdateResult().ToString());
}

TEST(UpdateResultTest, FailureCarriesReasonStatusAndMessage) {
    UpdateResult result(FailureReason::kPayloadInvalid, 200, "Output rate data Checksum error.");
    EXPECT_FALSE(result.IsResult());
    EXPECT_EQ(3, ToWire(result.GetFailureReason()));
    EXPECT_EQ(200, result.GetStatusCode());
    EXPECT_EQ("Output rate data Checksum error.", result.GetMessage());
    EXPECT_FALSE(result.IsSettingChanged());
    EXPECT_EQ("", result.GetPlantId());
    EXPECT_EQ("UpdateResult [false]  FailureReason:3 StatusCode:200 Message:Output rate data Checksum error.",
              result.ToString());
}

TEST(UpdateResultTest, FailureBeforeAnyAccessPrintsMinusOne) {
    UpdateResult result(FailureReason::kAccessFailed, -1, "Update information of fixed schedule does not exist.");
    EXPECT_EQ("UpdateResult [false]  FailureReason:1 StatusCode:-1 "
              "Message:Update information of fixed schedule does not exist.",
              result.ToString());
}

TEST(UpdateResultTest, SuccessWithSettingsFlagAndPlantId) {
    UpdateResult result(true, "01234567890123456789012345");
    EXPECT_TRUE(result.IsResult());
    EXPECT_EQ(0, ToWire(result.GetFailureReason()));
    EXPECT_EQ(0, result.GetStatusCode());
    EXPECT_EQ("", result.GetMessage());
    EXPECT_TRUE(result.IsSettingChanged());
    EXPECT_EQ("01234567890123456789012345", result.GetPlantId());
    EXPECT_EQ("UpdateResult [true]  FailureReason:0 StatusCode:0 Message:", result.ToString());

    UpdateResult unchanged(false, "7");
    EXPECT_TRUE(unchanged.IsResult());
    EXPECT_FALSE(unchanged.IsSettingChanged());
    EXPECT_EQ("7", unchanged.GetPlantId());
}

TEST(UpdateResultTest, HeldBySharedPointerThroughBase) {
    std::shared_ptr<UpdateResult> result = std::make_shared<UpdateResult>(FailureReason::kException, 0, "boom");
    EXPECT_EQ("UpdateResult [false]  FailureReason:12 StatusCode:0 Message:boom", result->ToString());
}

} // namespace
} // namespace brvo
