#include "ke/live_scheduler.h"

#include "ke/os_threads.h"

#include <cstdio>
#include <cstdlib>
#include <thread>
#include <utility>

namespace host {
namespace {

using Ticks = std::chrono::duration<Time, std::ratio<1, kSecond>>;

// What the clock's own units can count to, and longer than any run.
constexpr Time kFarthest = Time{100} * 365 * 86'400 * kSecond;

} // namespace

void LiveScheduler::Drain()
{
    while (unfinished_.load() > 0)
        std::this_thread::yield();
}

void LiveScheduler::Adopt(Thread& thread)
{
    if (thread.kind != ThreadKind::Attached)
        ++running_;
    KiSetCurrentThread(&thread);
}

void LiveScheduler::Release(Thread& thread)
{
    if (thread.kind != ThreadKind::Attached)
        --running_;
    KiSetCurrentThread(nullptr);
}

void LiveScheduler::Start(Thread& thread, std::function<void()> entry)
{
    ++running_;
    ++unfinished_;
    thread.started = true;
    OsRun(
        [&thread, run = std::move(entry)] {
            KiSetCurrentThread(&thread);
            run();
        },
        -1);
}

void LiveScheduler::Finish(Thread& /*thread*/)
{
    KiSetCurrentThread(nullptr);
    --running_;
    --unfinished_; // the last touch: this object may be gone right after
}

void LiveScheduler::FellAsleep(Thread& thread)
{
    thread.asleep.store(true);
    if (thread.kind != ThreadKind::Attached)
        --running_;
}

void LiveScheduler::WokeUp(Thread& thread)
{
    if (thread.asleep.exchange(false) && thread.kind != ThreadKind::Attached)
        ++running_;
}

bool LiveScheduler::Block(const WaitReason& /*reason*/, Time deadline)
{
    Thread* const self = KiCurrentThread();
    if (self == nullptr) {
        std::fprintf(stderr, "a thread that the kernel does not know blocked in it: see AttachedThread\n");
        std::abort();
    }
    FellAsleep(*self);
    bool woken = true;
    if (deadline > kFarthest)
        self->parker.Wait();
    else
        woken = self->parker.WaitUntil(start_ + std::chrono::duration_cast<Clock::duration>(Ticks(deadline)));
    WokeUp(*self);
    return woken;
}

void LiveScheduler::Wake(Thread& thread)
{
    WokeUp(thread);
    thread.parker.Post();
}

void LiveScheduler::SetDeadline(Thread& thread, Time /*deadline*/)
{
    Wake(thread); // it looks for itself how long it may sleep
}

void LiveScheduler::Yield(YieldPoint /*point*/) {}

void LiveScheduler::WaitUntilIdle()
{
    while (running_.load() > 1)
        std::this_thread::sleep_for(std::chrono::microseconds(100));
}

Time LiveScheduler::Now() const
{
    return std::chrono::duration_cast<Ticks>(Clock::now() - start_).count();
}

} // namespace host
