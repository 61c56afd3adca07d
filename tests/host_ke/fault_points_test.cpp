#include "recorded.h"

#include <gtest/gtest.h>
#include <wdm/io.h>

namespace host {
namespace {

// "1" for each of ten calls that fails.
std::string Hits(FaultPlan plan, const char* detail = "abcd")
{
    FaultPoints faults(1);
    faults.Arm(FaultPoint::PoolAllocate, std::move(plan));
    std::string hits;
    for (int i = 0; i < 10; ++i)
        hits += faults.Hit(FaultPoint::PoolAllocate, detail) ? '1' : '0';
    return hits;
}

TEST(FaultPoints, APlanHitsTheCallsItNames)
{
    const struct {
        FaultPlan plan;
        const char* hits;
    } kTable[] = {
        {{}, "1000000000"},
        {{.nth = 4}, "0001000000"},
        {{.nth = 9, .count = 5}, "0000000011"},
        {{.nth = 3, .count = UINT64_MAX}, "0011111111"},
        {{.detail = "abcd", .nth = 2}, "0100000000"},
        {{.detail = "efgh"}, "0000000000"},
        {{.count = UINT64_MAX, .percent = 0}, "0000000000"},
    };
    for (const auto& [plan, hits] : kTable)
        EXPECT_EQ(Hits(plan), hits);
    const std::string half = Hits({.count = UINT64_MAX, .percent = 50});
    EXPECT_NE(half.find('0'), std::string::npos);
    EXPECT_NE(half.find('1'), std::string::npos);
    EXPECT_EQ(half, Hits({.count = UINT64_MAX, .percent = 50})); // the same seed
}

} // namespace
} // namespace host
