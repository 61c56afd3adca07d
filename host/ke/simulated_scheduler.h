// One thread at a time, chosen by a Strategy; virtual time.
//
// The running thread owns all the scheduler's data: it is handed over with the turn, so nothing here needs a
// lock.
#pragma once

#include "ke/kernel.h"
#include "ke/thread.h"

namespace host {

class SimulatedScheduler final : public Scheduler {
  public:
    SimulatedScheduler(Kernel& kernel, std::shared_ptr<Strategy> strategy, const KernelOptions& options);
    ~SimulatedScheduler() override;

    void Adopt(Thread& thread) override;
    void Release(Thread& thread) override;
    void Start(Thread& thread, std::function<void()> entry) override;
    void Finish(Thread& thread) override;
    void Drain() override {} // who finishes hands its turn over as the last thing
    bool Block(const WaitReason& reason, Time deadline) override;
    void Wake(Thread& thread) override;
    void SetDeadline(Thread& thread, Time deadline) override;
    void Yield(YieldPoint point) override;
    void WaitUntilIdle() override;
    void SetFocus(bool in_focus) override { in_focus_ = in_focus; }
    Schedule Recorded() const override { return recorded_; }
    Time Now() const override { return now_; }
    std::uint64_t Step() const override { return step_; }

  private:
    Thread& Self() const;
    void CountStep();
    // Chooses among the ready threads and, when given, the running one; takes it off the ready list.
    Thread& Pick(Thread* running);
    // The same when nothing runs: lets time pass until something is ready.
    Thread& PickWhenBlocked();
    std::size_t Ask(bool may_continue);
    void AddDueSoon();
    // Moves the clock to the next deadline; false when there is none.
    bool AdvanceClock();
    void MakeDueReady();
    void MakeReady(Thread& thread);
    void SwitchTo(Thread& next);
    // Static: the kernel may end while the thread is on its way to sleep.
    static void AwaitTurn(Thread& self);

    Kernel& kernel_;
    const std::shared_ptr<Strategy> strategy_;
    const std::uint64_t max_steps_;
    const Time drift_;
    const int
        processor_; // that all threads of this kernel are bound to: a hand-over is several times faster so

    Thread* current_ = nullptr;
    std::vector<Thread*> threads_; // that have not ended, in order of creation
    std::vector<Thread*> ready_;   // without the running one, the longest ready first
    std::vector<Thread*> idle_waiters_;
    std::vector<Thread*> candidates_; // scratch of Pick
    std::vector<ThreadId> candidate_ids_;

    Time now_ = 0;
    std::uint64_t step_ = 0;
    Schedule recorded_;
    bool in_focus_;
};

} // namespace host
