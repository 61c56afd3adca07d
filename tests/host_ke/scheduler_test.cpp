#include "recorded.h"

#include <gtest/gtest.h>
#include <wdm/ex.h>

namespace host {
namespace {

// Three threads that meet at a lock, an event and a timer; the result is the order they passed in.
std::string Meet(Kernel& kernel)
{
    std::string order;
    KSPIN_LOCK lock;
    KeInitializeSpinLock(&lock);
    TestEvent event(SynchronizationEvent, true);
    std::vector<ThreadHandle> threads;
    for (const char name : {'a', 'b', 'c'}) {
        threads.push_back(kernel.Spawn(std::string(1, name), [&, name] {
            for (int i = 0; i < 4; ++i) {
                event.Wait();
                KIRQL irql = KeAcquireSpinLockRaiseToDpc(&lock);
                order += name;
                KeReleaseSpinLock(&lock, irql);
                KeSetEvent(&event, 0, FALSE);
                kernel.RunFor(kMillisecond);
            }
        }));
    }
    for (ThreadHandle& thread : threads)
        thread.Join();
    return order;
}

struct Outcome {
    std::string order;
    std::uint64_t hash = 0;
    std::string schedule;
    Time took = 0;

    bool operator==(const Outcome&) const = default;
};

Outcome MeetWith(KernelOptions options)
{
    Outcome run;
    Kernel kernel(std::move(options));
    run.order = Meet(kernel);
    run.hash = kernel.TraceHash();
    run.schedule = FormatSchedule(kernel.RecordedSchedule());
    run.took = kernel.InterruptTime();
    return run;
}

TEST(Scheduler, SameSeedSameRunAndAnotherSeedAnother)
{
    for (const StrategyKind strategy : {StrategyKind::Fifo, StrategyKind::Random, StrategyKind::Pct}) {
        std::set<std::uint64_t> hashes;
        for (std::uint64_t seed = 1; seed <= 20; ++seed) {
            const Outcome first = MeetWith({.strategy = strategy, .seed = seed});
            EXPECT_EQ(first, MeetWith({.strategy = strategy, .seed = seed})) << seed;
            hashes.insert(first.hash);
        }
        EXPECT_GE(hashes.size(), strategy == StrategyKind::Fifo ? 1u : 15u);
    }
}

TEST(Scheduler, ReplayOfAnotherRunIsRefused)
{
    const std::vector<Finding> findings =
        Record({.strategy = StrategyKind::Replay, .schedule = "0x3 7"}, [](Kernel& kernel) { Meet(kernel); });
    EXPECT_EQ(RuleNames(findings), "ReplayDiverged");
}

TEST(Scheduler, ScheduleTexts)
{
    const struct {
        const char* text;
        Schedule schedule;
    } kGood[] = {{"", {}}, {"3", {3}}, {"0x3 2 1x2", {0, 0, 0, 2, 1, 1}}};
    for (const auto& [text, schedule] : kGood) {
        EXPECT_EQ(ParseSchedule(text), schedule) << text;
        EXPECT_EQ(FormatSchedule(schedule), text);
    }
    for (const char* const text : {"x", "1x", "1,2", "-1", "0x99999999", "5 a"})
        EXPECT_THROW(ParseSchedule(text), std::invalid_argument) << text;
}

TEST(Scheduler, DriftLetsATimeOutOvertakeAReadyThread)
{
    bool overtook = false;
    for (std::uint64_t seed = 1; seed <= 50 && !overtook; ++seed) {
        Kernel kernel({.strategy = StrategyKind::Random, .seed = seed, .drift = kMillisecond});
        LONG value = 0;
        ThreadHandle busy = kernel.Spawn("busy", [&] {
            for (int i = 0; i < 100; ++i)
                InterlockedIncrement(&value);
        });
        kernel.RunFor(kMillisecond);
        overtook = value < 100;
    }
    EXPECT_TRUE(overtook);
}

TEST(Scheduler, DeadlockNamesWhoWaitsAndWhoHolds)
{
    FAST_MUTEX one;
    FAST_MUTEX two;
    const std::vector<Finding> findings = Record([&](Kernel& kernel) {
        ExInitializeFastMutex(&one);
        ExInitializeFastMutex(&two);
        const auto lock_both = [&kernel](FAST_MUTEX& first, FAST_MUTEX& second) {
            ExAcquireFastMutex(&first);
            kernel.RunFor(kMillisecond);
            ExAcquireFastMutex(&second);
            ExReleaseFastMutex(&second);
            ExReleaseFastMutex(&first);
        };
        kernel.GetVerifier().AddExcuse(
            {.rule = Rule::LockOrder, .detail = "", .reason = "the hang is the subject"});
        ThreadHandle left = kernel.Spawn("left", [&] { lock_both(one, two); });
        ThreadHandle right = kernel.Spawn("right", [&] { lock_both(two, one); });
        left.Join();
    });
    ASSERT_EQ(RuleNames(findings), "Deadlock");
    const std::string& text = findings[0].text;
    EXPECT_NE(text.find("left (IRQL 1) waits for a fast mutex that is held by right"), std::string::npos)
        << text;
    EXPECT_NE(text.find("right (IRQL 1) waits for a fast mutex that is held by left"), std::string::npos)
        << text;
    EXPECT_NE(text.find("main (IRQL 0) waits for the end of a thread"), std::string::npos) << text;
}

// Threads of a run that was given up sleep for good: the next kernel, and the one after it, run as if alone.
TEST(Scheduler, AfterADeadlockTheNextRunIsSound)
{
    const Outcome sound = MeetWith({});
    for (int i = 0; i < 3; ++i) {
        bool went_on = false;
        const std::vector<Finding> findings = Record([&went_on](Kernel& kernel) {
            TestEvent never;
            RunThreads(kernel, 5, [&never] { never.Wait(); });
            went_on = true;
        });
        EXPECT_EQ(RuleNames(findings), "Deadlock");
        EXPECT_FALSE(went_on);
        EXPECT_EQ(MeetWith({}), sound);
    }
}

TEST(Scheduler, AnIsolatedRunHandsOnWhatItsScenarioThrows)
{
    EXPECT_TRUE(RunIsolated([] { Kernel kernel; }));
    EXPECT_THROW((void)RunIsolated([] {
                     Kernel kernel;
                     throw std::runtime_error("no");
                 }),
                 std::runtime_error);
}

TEST(Scheduler, LivelockEndsTheRun)
{
    const std::vector<Finding> findings = Record({.max_steps = 10'000}, [](Kernel& kernel) {
        LONG flag = 0;
        ThreadHandle spinner = kernel.Spawn("spinner", [&] {
            while (InterlockedCompareExchange(&flag, 0, 0) == 0) {
            }
        });
        spinner.Join();
    });
    EXPECT_EQ(RuleNames(findings), "Livelock");
}

TEST(Scheduler, BugCheckEndsTheRunFromAnyThread)
{
    for (const bool on_main : {true, false}) {
        const std::vector<Finding> findings = Record([on_main](Kernel& kernel) {
            const auto crash = [] { KeBugCheckEx(0xE2, 1, 2, 3, 4); };
            ThreadHandle other = kernel.Spawn("other", [&] {
                if (!on_main)
                    crash();
                kernel.RunFor(kSecond);
            });
            if (on_main)
                crash();
            other.Join();
            ADD_FAILURE() << "went on after a bug check";
        });
        ASSERT_EQ(RuleNames(findings), "BugCheck");
        EXPECT_EQ(findings[0].detail, "0xE2");
    }
}

using SchedulerDeathTest = ::testing::Test;

TEST(SchedulerDeathTest, AFailureSaysHowToReplayIt)
{
    const auto fail = [] {
        Kernel kernel({.strategy = StrategyKind::Random,
                       .seed = 77,
                       .replay_command = "chaos --seed {seed} --strategy {strategy}"});
        TestEvent never;
        never.Wait();
    };
    EXPECT_DEATH(
        fail(), "\\*\\*\\* Deadlock: no thread can run(.|\n)*actor main(.|\n)*main \\(IRQL 0\\) waits for an "
                "event(.|\n)*strategy random, seed 77, step [0-9]+(.|\n)*replay   chaos --seed 77 --strategy "
                "random");
}

} // namespace
} // namespace host
