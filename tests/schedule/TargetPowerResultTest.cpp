#include "schedule/TargetPowerResult.h"

#include <gtest/gtest.h>

#include <memory>

namespace brvo {
namespace {

TEST(TargetPowerResultTest, SuccessCarriesPowerAndSlotTime) {
    const TargetPowerResult result(2.75, "20220119030000");
    EXPECT_TRUE(result.IsSuccess());
    EXPECT_EQ(0, ToWire(result.GetCode()));
    EXPECT_DOUBLE_EQ(2.75, result.GetTargetPower());
    EXPECT_EQ("20220119030000", result.GetTimeText());
    EXPECT_EQ("", result.GetMessage());
}

TEST(TargetPowerResultTest, FailureCarriesCodeMessageAndFallbackPower) {
    std::shared_ptr<TargetPowerResult> result =
        std::make_shared<TargetPowerResult>(3.0, TargetPowerResult::Code::kNoSchedule, "can not get.");
    EXPECT_FALSE(result->IsSuccess());
    EXPECT_EQ(5, ToWire(result->GetCode()));
    EXPECT_DOUBLE_EQ(3.0, result->GetTargetPower());
    EXPECT_EQ("", result->GetTimeText());
    EXPECT_EQ("can not get.", result->GetMessage());
    EXPECT_EQ(10, ToWire(TargetPowerResult::Code::kDateError));
    EXPECT_EQ(11, ToWire(TargetPowerResult::Code::kPlantIdNotFound));
}

} // namespace
} // namespace brvo
