// A kernel thread: what PKTHREAD points to.
#pragma once

#include "ke/mutex.h"
#include "ke/parker.h"
#include "ke/scheduler.h"
#include "ke/strategy.h"

#include <atomic>
#include <cstddef>
#include <exception>
#include <functional>
#include <memory>
#include <string>
#include <vector>
#include <wdm/ke.h>

namespace host {

class Kernel;

enum class ThreadKind : std::uint8_t {
    Main,     // the one that constructed the kernel
    User,     // Kernel::Spawn, PsCreateSystemThread
    System,   // the kernel's own: DPC processors, workers, timers
    Attached, // an application's thread in a live kernel
};

// One lock that a thread holds, innermost last.
struct HeldLock {
    const void* lock = nullptr;
    bool spin = true;
    KIRQL old_irql = 0;
    const void* caller = nullptr;
};

class Thread {
  public:
    Thread(Kernel& owner, ThreadId number, ThreadKind its_kind, std::function<void()> its_body)
        : kernel(owner), id(number), kind(its_kind), body(std::move(its_body))
    {}
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    // Signalled when the thread has ended. First, because drivers wait for a PKTHREAD.
    DISPATCHER_HEADER header{};

    Kernel& kernel;
    const ThreadId id;
    const ThreadKind kind;
    std::function<void()> body;
    std::exception_ptr failure; // what left the body, for Join
    NTSTATUS exit_status = 0;
    std::atomic<bool> done{false};

    // Of the process that it runs for; spawned threads inherit their maker's.
    static constexpr ULONG kSystemProcess = 4;
    ULONG process = kSystemProcess;

    // Of the thread itself; others look only in a report.
    KIRQL irql = PASSIVE_LEVEL;
    int critical_regions = 0;
    std::vector<HeldLock> locks;

    // The wait it is in; guarded by the dispatcher's mutex.
    struct Wait {
        KWAIT_BLOCK* blocks = nullptr;
        ULONG count = 0;
        bool all = false;
        bool satisfied = false;
        NTSTATUS status = 0;
    } wait;

    // The scheduler's.
    enum class State : std::uint8_t { Created, Ready, Running, Blocked, Done };
    State state = State::Created;
    bool started = false;        // it has an operating-system thread
    std::function<void()> entry; // what that thread runs
    bool wake_pending = false;   // simulated: a Wake came before the Block
    bool timed_out = false;
    std::atomic<bool> asleep{false}; // live
    WaitReason reason;
    Time deadline = kForever;
    Parker parker;

    // Bounds of its stack, once it runs.
    const std::byte* stack_low = nullptr;
    const std::byte* stack_high = nullptr;
};
static_assert(offsetof(Thread, header) == 0);

// The calling thread; nullptr when it is no kernel thread.
Thread* KiCurrentThread();
void KiSetCurrentThread(Thread* thread);

inline PKTHREAD KiHandleOf(Thread& thread)
{
    return reinterpret_cast<PKTHREAD>(&thread);
}
inline Thread& KiThreadOf(PKTHREAD thread)
{
    return *reinterpret_cast<Thread*>(thread);
}

} // namespace host
