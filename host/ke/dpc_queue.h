// Deferred procedure calls and the processors that run them.
#pragma once

#include "ke/dispatcher.h"

#include <deque>
#include <memory>
#include <string>
#include <vector>

namespace host {

// Queued DPCs are taken by whichever processor is free, so two of them may run at once, even the same one
// twice when it was queued again while it ran: as bad as it can get on the platform.
class DpcQueue {
  public:
    DpcQueue(Kernel& kernel, unsigned processors);

    // False: it is queued already.
    bool Insert(KDPC& dpc, PVOID argument1, PVOID argument2) HOST_REQUIRES(KiDispatcher());
    bool Remove(KDPC& dpc) HOST_REQUIRES(KiDispatcher());
    // Until every DPC that is queued or running now has ended.
    void Flush();
    // Ends the processors; what is queued stays so.
    void Shutdown();

    // A queued DPC that lies in the memory; nullptr when there is none.
    KDPC* QueuedIn(const void* begin, const void* end) const;
    std::vector<const KDPC*> Alive() const; // queued or running

  private:
    struct Entry {
        KDPC* dpc = nullptr;
        std::uint64_t number = 0;
    };
    struct Processor {
        std::shared_ptr<Thread> thread;
        bool idle = false;
        Entry running;
    };

    void WakeProcessor() HOST_REQUIRES(KiDispatcher());
    void Serve(Processor& processor);
    bool Take(Processor& processor, KDPC& copy);
    static void Call(KDPC& dpc, KDPC& copy);
    bool EndedUpTo(std::uint64_t number) const HOST_REQUIRES(KiDispatcher());

    Kernel& kernel_;
    const unsigned max_processors_;
    std::deque<Entry> queue_ HOST_GUARDED_BY(KiDispatcher());
    std::vector<std::unique_ptr<Processor>> processors_ HOST_GUARDED_BY(KiDispatcher());
    std::vector<Thread*> flushers_ HOST_GUARDED_BY(KiDispatcher());
    std::uint64_t last_number_ HOST_GUARDED_BY(KiDispatcher()) = 0;
    bool stop_ HOST_GUARDED_BY(KiDispatcher()) = false;
};

} // namespace host
