// Armed timers in order of expiry, and the thread that expires them.
#pragma once

#include "ke/dispatcher.h"

#include <map>
#include <memory>
#include <vector>

namespace host {

class TimerQueue {
  public:
    explicit TimerQueue(Kernel& kernel);

    // `due` is interrupt time. True: the timer was armed already (and is now armed anew).
    bool Set(KTIMER& timer, Time due, ULONG period_ms, KDPC* dpc);
    // True: the timer was armed.
    bool Cancel(KTIMER& timer);
    void Shutdown();

    KTIMER* ArmedIn(const void* begin, const void* end) const;
    std::vector<const KTIMER*> Armed() const;

  private:
    void Serve();
    bool Disarm(KTIMER& timer) HOST_REQUIRES(KiDispatcher());
    void Arm(KTIMER& timer, Time due) HOST_REQUIRES(KiDispatcher());
    void Expire(KTIMER& timer) HOST_REQUIRES(KiDispatcher());

    Kernel& kernel_;
    std::multimap<Time, KTIMER*> armed_ HOST_GUARDED_BY(KiDispatcher());
    std::shared_ptr<Thread> thread_ HOST_GUARDED_BY(KiDispatcher());
    bool stop_ HOST_GUARDED_BY(KiDispatcher()) = false;
};

} // namespace host
