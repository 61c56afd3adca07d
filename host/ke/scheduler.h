// What every synchronisation routine of the kernel is built on: block, wake, yield, now.
//
// Two implementations: simulated (one thread at a time, virtual time, a Strategy chooses) and live (the
// operating system's own scheduling and clock).
#pragma once

#include "ke/strategy.h"
#include "ke/time.h"

#include <cstdint>
#include <functional>
#include <memory>

namespace host {

class Kernel;
class Thread;
struct KernelOptions;

// The kinds of points where the simulated scheduler may switch threads.
enum class YieldPoint : std::uint8_t {
    Lock,
    Unlock,
    Interlocked,
    Event,
    Wait,
    Timer,
    Dpc,
    WorkItem,
    CallDriver,
    CompleteRequest,
    CancelLock,
    Spawn,
    Fault,
    Other,
};

// What a blocked thread waits for, for the deadlock report.
struct WaitReason {
    const char* what = "something"; // "spin lock", "event", "join" ...
    const void* object = nullptr;
    bool idle = false; // a system thread that waits for something to do: never the cause of a deadlock
};

class Scheduler {
  public:
    virtual ~Scheduler() = default;

    // Makes the calling operating-system thread the running kernel thread, and undoes that.
    virtual void Adopt(Thread& thread) = 0;
    virtual void Release(Thread& thread) = 0;

    // Makes a new thread ready to run `entry`, whose last act is Finish.
    virtual void Start(Thread& thread, std::function<void()> entry) = 0;
    // The calling thread runs no more: others do.
    virtual void Finish(Thread& thread) = 0;

    // Until every thread that was started has left Finish for good.
    virtual void Drain() = 0;

    // Blocks the calling thread until Wake or until `deadline` (interrupt time; kForever for none). A Wake
    // that came first is remembered, and may be spurious: callers test their condition in a loop. False:
    // time-out.
    virtual bool Block(const WaitReason& reason, Time deadline) = 0;
    virtual void Wake(Thread& thread) = 0;

    // Changes the deadline of a thread that is blocked, or wakes it so that it can do so itself.
    virtual void SetDeadline(Thread& thread, Time deadline) = 0;

    virtual void Yield(YieldPoint point) = 0;

    // Blocks the calling thread until every other thread waits with nothing due now.
    virtual void WaitUntilIdle() = 0;

    // Interrupt time: 100-ns units since the kernel started.
    virtual Time Now() const = 0;

    // Whether choices are the strategy's.
    virtual void SetFocus(bool in_focus) = 0;

    // Choices made so far, for a replay.
    virtual Schedule Recorded() const = 0;

    // Scheduling points passed so far.
    virtual std::uint64_t Step() const = 0;
};

} // namespace host
