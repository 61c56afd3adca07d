// What a read does under each combination of the serial time-outs.
#include "read_timeouts.h"

#include <gtest/gtest.h>

namespace {

constexpr ULONG kMax = 0xFFFFFFFF;

struct Case {
    ULONG interval, multiplier, constant, length;
    bool immediately, withWhatIsPresent, toOne, total, byInterval;
    LONGLONG totalTime, intervalTime;
};

constexpr bool yes = true;
constexpr bool no = false;
constexpr Case kCases[] = {
    // interval, multiplier, constant, length; now, with some, to one, total, by interval; total and interval time
    {0, 0, 0, 100, no, no, no, no, no, 0, 0}, // waits until the buffer is full
    {0, 0, 250, 100, no, no, no, yes, no, -2'500'000, 0},
    {0, 3, 50, 100, no, no, no, yes, no, -3'500'000, 0},
    {kMax, 0, 0, 100, yes, no, no, no, no, 0, 0},
    {kMax, kMax, 0, 100, no, yes, yes, yes, no, 0, 0}, // cut to one byte, due at once
    {kMax, kMax, 1000, 100, no, yes, yes, yes, no, -10'000'000, 0},
    {kMax, 2, 5, 10, no, yes, no, yes, no, -250'000, 0},
    {kMax, 0, kMax, 100, no, no, no, no, no, 0, 0}, // no time-out at all, whatever the multiplier
    {kMax, kMax, kMax, 100, no, no, no, no, no, 0, 0},
    {1, 0, 0, 100, no, no, no, no, yes, 0, 10'000},
    {20'000, 0, 10, 1, no, no, no, yes, yes, -100'000, 200'000'000},
    {0x80000000, 0, 0, 1, no, no, no, no, yes, 0, -2'147'483'648LL * 10'000}, // counts as negative
    {0xFFFFFFFE, 0, 0, 1, no, no, no, no, yes, 0, -20'000},
    // 64-bit arithmetic: no wrap at 32 bits, and a wrap at 64 like the platform's.
    {0, 1000, 0, 100'000'000, no, no, no, yes, no, -1'000'000'000'000'000, 0},
    {0, kMax - 1, kMax, kMax, no, no, no, yes, no,
     static_cast<LONGLONG>(0ULL - (0xFFFFFFFFULL * 0xFFFFFFFEULL + 0xFFFFFFFFULL) * 10'000ULL), 0},
};

TEST(ReadPlan, FollowsTheTable)
{
    for (const Case& c : kCases) {
        SCOPED_TRACE("case " + std::to_string(&c - kCases + 1));
        const ReadPlan plan = PlanRead({c.interval, c.multiplier, c.constant, 7, 7}, c.length);
        EXPECT_EQ(plan.ReturnImmediately, c.immediately);
        EXPECT_EQ(plan.ReturnWithWhatIsPresent, c.withWhatIsPresent);
        EXPECT_EQ(plan.CrunchDownToOne, c.toOne);
        EXPECT_EQ(plan.UseTotalTimer, c.total);
        EXPECT_EQ(plan.UseIntervalTimer, c.byInterval);
        if (c.total)
            EXPECT_EQ(plan.TotalTime, c.totalTime);
        if (c.byInterval)
            EXPECT_EQ(plan.IntervalTime, c.intervalTime);
    }
}

} // namespace
