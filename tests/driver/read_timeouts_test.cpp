// The arithmetic of the serial time-outs at its ends; what a read does under them is seen on the port.
#include "read_timeouts.h"

#include <gtest/gtest.h>

namespace {

constexpr ULONG kMax = 0xFFFFFFFF;

// 64-bit arithmetic: no wrap at 32 bits, and a wrap at 64 like the platform's.
TEST(ReadPlan, CountsIn64Bits)
{
    const auto total = [](ULONG multiplier, ULONG constant, ULONG length) {
        const ReadPlan plan = PlanRead({0, multiplier, constant, 7, 7}, length);
        EXPECT_TRUE(plan.UseTotalTimer);
        return plan.TotalTime;
    };
    EXPECT_EQ(total(1000, 0, 100'000'000), -1'000'000'000'000'000);
    EXPECT_EQ(total(kMax - 1, kMax, kMax),
              static_cast<LONGLONG>(0ULL - (0xFFFFFFFFULL * 0xFFFFFFFEULL + 0xFFFFFFFFULL) * 10'000ULL));
    EXPECT_EQ(PlanRead({kMax, kMax, kMax, 0, 0}, 100).UseTotalTimer, FALSE); // whatever the multiplier
    EXPECT_EQ(PlanRead({0x80000000, 0, 0, 0, 0}, 1).IntervalTime, -2'147'483'648LL * 10'000);
}

} // namespace
