// The user-mode kernel as its owner sees it. Exported platform routines act on the one Kernel that is alive.
#pragma once

#include "ke/event_log.h"
#include "ke/scheduler.h"
#include "ke/strategy.h"
#include "ke/time.h"
#include "verifier/fault_points.h"
#include "verifier/verifier.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace host {

enum class Mode { Simulated, Live };
enum class StrategyKind { Fifo, Random, Pct, Replay, Custom };

class Kernel;

struct OsVersion {
    std::uint32_t major = 10;
    std::uint32_t minor = 0;
    std::uint32_t build = 19045;
};

struct KernelOptions {
    Mode mode = Mode::Simulated;

    StrategyKind strategy = StrategyKind::Fifo;
    std::uint64_t seed = 1; // of the strategy and of random faults
    unsigned pct_depth = 3;
    std::uint64_t pct_length = 2'000;    // choices among which PCT places its points
    std::string schedule;                // of Replay, as a failure printed it
    std::shared_ptr<Strategy> custom;    // of Custom
    std::uint64_t max_steps = 5'000'000; // more is reported as a livelock
    // Simulated: whether the strategy is asked from the start. Out of focus the thread that runs goes on, and then
    // the longest ready one: see Kernel::SetFocus.
    bool in_focus = true;
    // Simulated: how far the clock may run ahead while threads are still ready, as if they were slow.
    Time drift = 0;
    std::string
        replay_command; // printed with a failure; "{seed}", "{strategy}" and "{schedule}" are replaced

    unsigned dpc_processors = 2;
    unsigned worker_threads = 4; // of each work queue

    // Timers expire at multiples of this since the start, as at the interrupts of a clock. The system's own
    // clock ticks every 15.625 ms (156,250).
    Time clock_tick = 1;

    bool verifier = true;
    Policy policy = Policy::Stop;
    std::vector<Excuse> excuses;
    // Called for each finding that is not excused, on the thread that made it, under Policy::Record.
    std::function<void(const Finding&)> on_finding;
    // Called by the destructor after all audits, or where the run is given up.
    std::function<void(const Kernel&)> on_end;
    bool guard_pages = true; // every pool block ends at an inaccessible page

    OsVersion os;
    std::set<std::string> hidden_routines;     // names that MmGetSystemRoutineAddress does not find
    Time start_time = 133'500'000'000'000'000; // system time at the start of a simulated run (2024-01-17)

    bool keep_events = true;
    std::size_t event_capacity = 200'000; // the oldest are dropped beyond it
    bool echo_debug_prints = false;       // DbgPrint also goes to stderr
};

// Something of the kernel that another component owns (I/O manager, registry, USB bus ...). Made on first
// use, one per Kernel, destroyed in reverse order.
class Component {
  public:
    explicit Component(Kernel& kernel) : kernel_(kernel) {}
    virtual ~Component() = default;
    Component(const Component&) = delete;
    Component& operator=(const Component&) = delete;

    // The kernel is going away; threads still run. Stop and release what is yours.
    virtual void Shutdown() {}
    // Everything has stopped. Report what is left that should not be.
    virtual void Audit() {}

  protected:
    Kernel& kernel_;
};

// A thread made by Kernel::Spawn. Joining is a kernel wait, so it takes no real time in a simulation.
class ThreadHandle {
  public:
    ThreadHandle() = default;
    ThreadHandle(ThreadHandle&& other) noexcept;
    ThreadHandle& operator=(ThreadHandle&& other) noexcept;
    ~ThreadHandle(); // joins

    // IRQL PASSIVE_LEVEL. Rethrows what the body threw.
    void Join();
    bool Joinable() const { return thread_ != nullptr; }
    bool Done() const;

  private:
    friend class Kernel;
    explicit ThreadHandle(std::shared_ptr<Thread> thread);
    std::shared_ptr<Thread> thread_;
};

class Kernel {
  public:
    // The calling thread becomes kernel thread "main". One Kernel at a time in a process.
    explicit Kernel(KernelOptions options = {});
    // Called on main: stops the system threads, audits, and joins. Spawned threads must have ended.
    ~Kernel();
    Kernel(const Kernel&) = delete;
    Kernel& operator=(const Kernel&) = delete;

    static Kernel& Current(); // aborts with a message when there is none
    static Kernel* CurrentOrNull();

    const KernelOptions& Options() const;
    bool Simulated() const;

    [[nodiscard]] ThreadHandle Spawn(std::string name, std::function<void()> body);

    // Lets `time` pass for the calling thread; everything else runs meanwhile.
    void RunFor(Time time);
    // Until every other thread waits and nothing is due at this instant. The clock does not move.
    void RunUntilIdle();
    // Until `condition` holds, which is asked once a millisecond; false when `timeout` passed first.
    [[nodiscard]] bool RunUntil(const std::function<bool()>& condition, Time timeout);

    // Simulated: whether the strategy is asked from here on. An exploration of a race has the race alone in focus:
    // what leads to it takes no choices.
    void SetFocus(bool in_focus);

    Time Now() const;           // system time
    Time InterruptTime() const; // since the kernel started

    Scheduler& GetScheduler();
    Verifier& GetVerifier();
    EventLog& Log();
    FaultPoints& Faults();

    // The one T of this kernel; T derives from Component and is constructed with the Kernel.
    template <class T>
    T& Get()
    {
        static const std::size_t slot = NewComponentSlot();
        Component* found = FindComponent(slot);
        if (found == nullptr)
            found = AddComponent(slot, [](Kernel& kernel) -> std::unique_ptr<Component> {
                return std::make_unique<T>(kernel);
            });
        return static_cast<T&>(*found);
    }

    // What DbgPrint was given, line by line.
    std::vector<std::string> DebugPrints() const;

    // Names of the actors by ThreadId.
    std::vector<std::string> ActorNames() const;

    // Choices of the simulated scheduler so far, for a replay.
    Schedule RecordedSchedule() const;
    // Equal for two runs that did the same.
    std::uint64_t TraceHash() const;
    // Seed, strategy, step and the command line that replays this run.
    std::string RunDescription() const;

    // For the kernel's own folders.
    // Nothing of this kernel will run any more, and none of it is freed: another may be constructed.
    void Abandon();
    struct Impl;
    Impl& impl() { return *impl_; }

  private:
    void Shutdown(bool judge);
    void KeepUnfinished();
    static std::size_t NewComponentSlot();
    Component* FindComponent(std::size_t slot) const;
    Component* AddComponent(std::size_t slot, std::unique_ptr<Component> (*make)(Kernel&));

    std::unique_ptr<Impl> impl_;
};

// The calling thread's name; "?" outside the kernel.
std::string ActorName();

// The process that the calling kernel thread runs for, as PsGetCurrentProcessId tells. The kernel's own threads run
// for process 4, main and what it spawns for 1000 until this is called.
void SetActorProcess(std::uint32_t id);

// Live kernels only: registers an operating-system thread of the application for as long as the object lives.
class AttachedThread {
  public:
    explicit AttachedThread(std::string name);
    ~AttachedThread();
    AttachedThread(const AttachedThread&) = delete;
    AttachedThread& operator=(const AttachedThread&) = delete;

  private:
    std::shared_ptr<Thread> thread_;
};

// A point where the simulated scheduler may switch threads; for routines that synchronise in ways of their
// own.
void KiYield(YieldPoint point);

} // namespace host
