#include "ke/explorer.h"
#include "ke/own_step.h"

#include "recorded.h"

#include <gtest/gtest.h>
#include <wdm/ex.h>

namespace host {
namespace {

// Two threads that read, then write: one increment is lost when the second reads between.
bool LoseAnUpdate(const KernelOptions& options)
{
    Kernel kernel(options);
    LONG value = 0;
    const auto increment = [&value] {
        const LONG read = InterlockedCompareExchange(&value, 0, 0);
        InterlockedExchange(&value, read + 1);
    };
    RunThreads(kernel, 2, increment);
    return value == 2;
}

// The flag is looked at before the lock is taken: freed memory is used when the other comes between.
bool UseAfterFree(const KernelOptions& options)
{
    Kernel kernel(options);
    KSPIN_LOCK lock;
    KeInitializeSpinLock(&lock);
    auto* const block = static_cast<LONG*>(ExAllocatePoolWithTag(NonPagedPool, sizeof(LONG), 'kcol'));
    LONG gone = 0;
    ThreadHandle user = kernel.Spawn("user", [&] {
        if (InterlockedCompareExchange(&gone, 0, 0) != 0)
            return;
        const KIRQL irql = KeAcquireSpinLockRaiseToDpc(&lock);
        *block = 1;
        KeReleaseSpinLock(&lock, irql);
    });
    ThreadHandle freer = kernel.Spawn("freer", [&] {
        InterlockedExchange(&gone, 1);
        const KIRQL irql = KeAcquireSpinLockRaiseToDpc(&lock);
        KeReleaseSpinLock(&lock, irql);
        ExFreePoolWithTag(block, 'kcol');
    });
    user.Join();
    freer.Join();
    return true;
}

bool CorrectIncrement(const KernelOptions& options)
{
    Kernel kernel(options);
    LONG value = 0;
    RunThreads(kernel, 2, [&value] { InterlockedIncrement(&value); });
    return value == 2;
}

TEST(Explorer, NoPreemptionMissesTheLostUpdateAndOneFindsIt)
{
    const Exploration none = ExploreSchedules({}, 0, 10'000, LoseAnUpdate);
    EXPECT_TRUE(none.exhausted);
    EXPECT_FALSE(none.failure);

    const Exploration one = ExploreSchedules({}, 1, 10'000, LoseAnUpdate);
    ASSERT_TRUE(one.failure);
    EXPECT_TRUE(one.failure->findings.empty());
    EXPECT_FALSE(LoseAnUpdate(one.failure->options)); // replays
}

TEST(Explorer, ACorrectScenarioIsExhausted)
{
    std::uint64_t runs = 0;
    for (unsigned preemptions = 0; preemptions <= 3; ++preemptions) {
        const Exploration result = ExploreSchedules({}, preemptions, 100'000, CorrectIncrement);
        EXPECT_TRUE(result.exhausted);
        EXPECT_FALSE(result.failure);
        EXPECT_GT(result.runs, runs); // a wider bound has more schedules
        runs = result.runs;
    }
}

TEST(Explorer, ARunLimitIsKept)
{
    const Exploration result = ExploreSchedules({}, 3, 5, CorrectIncrement);
    EXPECT_FALSE(result.exhausted);
    EXPECT_EQ(result.runs, 5u);
}

TEST(Explorer, PreemptsTheActorsAloneAndNobodyWithinAStepOfTheKernelsOwn)
{
    struct {
        const char* what;
        std::set<std::string> actors;
        bool own_steps, lost;
    } const rows[] = {
        {"all", {}, false, true},
        {"both that meet", {"thread 0", "thread 1"}, false, true},
        {"neither", {"thread 2"}, false, false},
        {"within the kernel's own steps", {}, true, false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        const auto scenario = [&row](const KernelOptions& options) {
            Kernel kernel(options);
            LONG value = 0;
            RunThreads(kernel, 2, [&] {
                std::optional<OwnStep> step;
                if (row.own_steps)
                    step.emplace();
                const LONG read = InterlockedCompareExchange(&value, 0, 0);
                InterlockedExchange(&value, read + 1);
            });
            return value == 2;
        };
        const Exploration result = ExploreSchedules({}, 1, 10'000, scenario, row.actors);
        EXPECT_EQ(result.failure.has_value(), row.lost);
        EXPECT_TRUE(row.lost || result.exhausted);
    }
}

TEST(Explorer, FindsAUseAfterFreeAndReplaysIt)
{
    const Exploration result = ExploreSchedules({}, 2, 10'000, UseAfterFree);
    ASSERT_TRUE(result.failure);
    EXPECT_EQ(RuleNames(result.failure->findings), "PoolUseAfterFree") << result.failure->Describe();
    std::vector<Finding> replayed;
    KernelOptions options = result.failure->options;
    options.on_finding = [&replayed](const Finding& finding) { replayed.push_back(finding); };
    UseAfterFree(options);
    EXPECT_EQ(RuleNames(replayed), "PoolUseAfterFree");
}

TEST(Explorer, SeedsFindItToo)
{
    const Exploration result = ExploreSeeds({.pct_length = 20}, 500, UseAfterFree);
    ASSERT_TRUE(result.failure);
    EXPECT_LT(result.runs, 500u);
    EXPECT_TRUE(ExploreSeeds({}, 50, CorrectIncrement).exhausted);
}

} // namespace
} // namespace host
