// The operating system's own scheduling, by the wall clock.
#pragma once

#include "ke/kernel.h"
#include "ke/thread.h"

#include <atomic>
#include <chrono>

namespace host {

class LiveScheduler final : public Scheduler {
  public:
    void Adopt(Thread& thread) override;
    void Release(Thread& thread) override;
    void Start(Thread& thread, std::function<void()> entry) override;
    void Finish(Thread& thread) override;
    void Drain() override;
    bool Block(const WaitReason& reason, Time deadline) override;
    void Wake(Thread& thread) override;
    void SetDeadline(Thread& thread, Time deadline) override;
    void Yield(YieldPoint point) override;
    void WaitUntilIdle() override;
    void SetFocus(bool) override {} // every choice is the operating system's
    Schedule Recorded() const override { return {}; }
    Time Now() const override;
    std::uint64_t Step() const override { return 0; }

  private:
    using Clock = std::chrono::steady_clock;

    void FellAsleep(Thread& thread);
    // Once for each time it fell asleep, by its waker or by itself after a time-out.
    void WokeUp(Thread& thread);

    const Clock::time_point start_ = Clock::now();
    std::atomic<int> unfinished_{0};
    std::atomic<int> running_{0}; // kernel threads that are not blocked; attached ones are not counted
};

} // namespace host
