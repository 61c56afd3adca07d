// The live scheduler under real concurrency; ThreadSanitizer runs these.
#include "recorded.h"

#include <atomic>
#include <gtest/gtest.h>
#include <thread>
#include <wdm/ex.h>

namespace host {
namespace {

TEST(Live, ThreadsOfTheApplicationMayJoinIn)
{
    Kernel kernel({.mode = Mode::Live});
    TestEvent event;
    std::string name;
    std::thread application([&] {
        const AttachedThread attached("application");
        name = ActorName();
        KeSetEvent(&event, 0, FALSE);
    });
    event.Wait();
    application.join();
    EXPECT_EQ(name, "application");
}

TEST(Live, FindingsAreRecordedFromAnyThread)
{
    const std::vector<Finding> findings = Record({.mode = Mode::Live}, [](Kernel& kernel) {
        RunThreads(kernel, 1, [] {
            int local = 0;
            ExAllocatePoolWithTag(NonPagedPool, 8, 'kaeL');
            ExFreePool(&local);
        });
    });
    EXPECT_EQ(RuleNames(findings), "PoolFreeUnknown PoolLeak");
}

TEST(Live, ManyKernelsOneAfterTheOther)
{
    for (int i = 0; i < 200; ++i) {
        Kernel kernel({.mode = Mode::Live});
        std::atomic<int> ran{0};
        RunThreads(kernel, 4, [&] { ++ran; });
        EXPECT_EQ(ran, 4);
    }
}

} // namespace
} // namespace host
