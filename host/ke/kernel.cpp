#include "ke/kernel.h"

#include "ke/kernel_impl.h"
#include "ke/live_scheduler.h"
#include "ke/simulated_scheduler.h"
#include "verifier/memory_faults.h"

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <utility>
#include <wdm/ke.h>

namespace host {
namespace {

std::atomic<Kernel*> g_kernel{nullptr};

std::shared_ptr<Strategy> MakeStrategy(const KernelOptions& options)
{
    switch (options.strategy) {
    case StrategyKind::Fifo: return MakeFifoStrategy();
    case StrategyKind::Random: return MakeRandomStrategy(options.seed);
    case StrategyKind::Pct: return MakePctStrategy(options.seed, options.pct_depth, options.pct_length);
    case StrategyKind::Replay: return MakeReplayStrategy(ParseSchedule(options.schedule));
    case StrategyKind::Custom: return options.custom;
    }
    return nullptr;
}

const char* StrategyName(StrategyKind kind)
{
    switch (kind) {
    case StrategyKind::Fifo: return "fifo";
    case StrategyKind::Random: return "random";
    case StrategyKind::Pct: return "pct";
    case StrategyKind::Replay: return "replay";
    case StrategyKind::Custom: return "custom";
    }
    return "?";
}

std::unique_ptr<Scheduler> MakeScheduler(Kernel& kernel, const KernelOptions& options)
{
    if (options.mode == Mode::Live)
        return std::make_unique<LiveScheduler>();
    return std::make_unique<SimulatedScheduler>(kernel, MakeStrategy(options), options);
}

void Substitute(std::string& text, std::string_view name, const std::string& value)
{
    for (std::size_t at = text.find(name); at != std::string::npos; at = text.find(name, at + value.size()))
        text.replace(at, name.size(), value);
}

Time BootTime(const KernelOptions& options)
{
    constexpr Time kUnixEpoch = 11'644'473'600 * kSecond; // 1970 in system time
    if (options.mode == Mode::Simulated)
        return options.start_time;
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return kUnixEpoch + now.tv_sec * kSecond + now.tv_nsec / 100;
}

std::size_t g_component_slots = 0;

} // namespace

Kernel::Impl::Impl(Kernel& owner, KernelOptions given)
    : kernel(owner), options(std::move(given)), boot_time(BootTime(options)), faults(options.seed),
      log(owner, options.keep_events, options.event_capacity),
      verifier(owner, options.verifier, options.policy, options.excuses),
      scheduler(MakeScheduler(owner, options)), dpcs(owner, options.dpc_processors), timers(owner),
      work(owner, options.worker_threads), pool(owner, options.verifier, options.guard_pages)
{}

Kernel::Kernel(KernelOptions options)
{
    if (options.strategy == StrategyKind::Custom && options.custom == nullptr)
        throw std::invalid_argument("StrategyKind::Custom needs KernelOptions::custom");
    VfInstallFaultHandler();
    impl_ = std::make_unique<Impl>(*this, std::move(options));
    Kernel* none = nullptr;
    if (!g_kernel.compare_exchange_strong(none, this)) {
        std::fprintf(stderr, "there is a kernel already: one at a time in a process\n");
        std::abort();
    }
    impl_->main = impl_->threads.Add(*this, "main", ThreadKind::Main, nullptr);
    impl_->scheduler->Adopt(*impl_->main);
}

Kernel::~Kernel()
{
    // An exception of the test's own leaves the kernel in any state: nothing to judge then.
    const bool judge = std::uncaught_exceptions() == 0;
    Impl& impl = *impl_;
    if (judge || !Simulated())
        Shutdown(judge);
    if (impl.options.on_end != nullptr)
        impl.options.on_end(*this);
    {
        const MutexLock lock(impl.components_mutex);
        while (!impl.components_in_order.empty())
            impl.components_in_order.pop_back();
    }
    impl.scheduler->Release(*impl.main);
    impl.scheduler->Drain();
    KeepUnfinished();
    impl_.reset();
    g_kernel.store(nullptr);
}

void Kernel::Abandon()
{
    if (impl_->options.on_end != nullptr)
        impl_->options.on_end(*this);
    g_kernel.store(nullptr);
}

void Kernel::KeepUnfinished()
{
    // They sleep for good, each in its own Thread: that memory must never be another's.
    static auto* const asleep = new std::vector<std::shared_ptr<Thread>>;
    for (const auto& thread : impl_->threads.All()) {
        if (!thread->done && thread->started)
            asleep->push_back(thread);
    }
}

void Kernel::Shutdown(bool judge)
{
    Impl& impl = *impl_;
    if (judge)
        RunUntilIdle();
    std::vector<Component*> components;
    {
        const MutexLock lock(impl.components_mutex);
        for (const auto& component : impl.components_in_order)
            components.insert(components.begin(), component.get());
    }
    for (Component* const component : components)
        component->Shutdown();
    if (judge && !VfAuditThreads(*this))
        return; // the system threads among them could not be joined
    impl.timers.Shutdown();
    impl.dpcs.Shutdown();
    impl.work.Shutdown();
    if (!judge)
        return;
    for (Component* const component : components)
        component->Audit();
    VfAuditUnload("the kernel");
}

Kernel& Kernel::Current()
{
    Kernel* const kernel = g_kernel.load();
    if (kernel == nullptr) {
        std::fprintf(stderr, "a kernel routine was called where there is no kernel\n");
        std::abort();
    }
    return *kernel;
}

Kernel* Kernel::CurrentOrNull()
{
    return g_kernel.load();
}

const KernelOptions& Kernel::Options() const
{
    return impl_->options;
}

bool Kernel::Simulated() const
{
    return impl_->options.mode == Mode::Simulated;
}

ThreadHandle Kernel::Spawn(std::string name, std::function<void()> body)
{
    std::shared_ptr<Thread> thread = KiStartThread(std::move(name), ThreadKind::User, std::move(body));
    KiYield(YieldPoint::Spawn);
    return ThreadHandle(std::move(thread));
}

void Kernel::RunFor(Time time)
{
    LARGE_INTEGER interval;
    interval.QuadPart = -time;
    KeDelayExecutionThread(KernelMode, FALSE, &interval);
}

void Kernel::RunUntilIdle()
{
    impl_->scheduler->WaitUntilIdle();
}

bool Kernel::RunUntil(const std::function<bool()>& condition, Time timeout)
{
    const Time end = InterruptTime() + timeout;
    RunUntilIdle();
    while (!condition()) {
        if (InterruptTime() >= end)
            return false;
        RunFor(kMillisecond);
        RunUntilIdle();
    }
    return true;
}

Time Kernel::InterruptTime() const
{
    return impl_->scheduler->Now();
}

Time Kernel::Now() const
{
    return impl_->boot_time + InterruptTime();
}

Scheduler& Kernel::GetScheduler()
{
    return *impl_->scheduler;
}

Verifier& Kernel::GetVerifier()
{
    return impl_->verifier;
}

EventLog& Kernel::Log()
{
    return impl_->log;
}

FaultPoints& Kernel::Faults()
{
    return impl_->faults;
}

std::vector<std::string> Kernel::DebugPrints() const
{
    return impl_->prints.Lines();
}

std::vector<std::string> Kernel::ActorNames() const
{
    return impl_->threads.Names();
}

void Kernel::SetFocus(bool in_focus)
{
    impl_->scheduler->SetFocus(in_focus);
}

Schedule Kernel::RecordedSchedule() const
{
    return impl_->scheduler->Recorded();
}

std::uint64_t Kernel::TraceHash() const
{
    std::uint64_t hash = impl_->log.Hash();
    const auto mix = [&hash](std::uint64_t value) { hash = (hash ^ value) * 0x100000001b3; };
    for (const std::uint32_t choice : RecordedSchedule())
        mix(choice);
    mix(impl_->scheduler->Step());
    mix(static_cast<std::uint64_t>(InterruptTime()));
    return hash;
}

std::string Kernel::RunDescription() const
{
    const KernelOptions& options = impl_->options;
    if (!Simulated())
        return "live, " + std::to_string(InterruptTime() / kMillisecond) + " ms after start";
    const std::string schedule = FormatSchedule(RecordedSchedule());
    std::string text = std::string("strategy ") + StrategyName(options.strategy) + ", seed " +
                       std::to_string(options.seed) + ", step " + std::to_string(impl_->scheduler->Step()) +
                       ", " + std::to_string(InterruptTime() / kMicrosecond) +
                       " us of virtual time\nschedule " + schedule;
    if (!options.replay_command.empty()) {
        std::string command = options.replay_command;
        Substitute(command, "{seed}", std::to_string(options.seed));
        Substitute(command, "{strategy}", StrategyName(options.strategy));
        Substitute(command, "{schedule}", schedule);
        text += "\nreplay   " + command;
    }
    return text;
}

std::size_t Kernel::NewComponentSlot()
{
    static Mutex mutex;
    const MutexLock lock(mutex);
    if (g_component_slots == Impl::kMaxComponents) {
        std::fprintf(stderr, "more than %zu kinds of kernel components\n", Impl::kMaxComponents);
        std::abort();
    }
    return g_component_slots++;
}

Component* Kernel::FindComponent(std::size_t slot) const
{
    return impl_->components[slot].load(std::memory_order_acquire);
}

Component* Kernel::AddComponent(std::size_t slot, std::unique_ptr<Component> (*make)(Kernel&))
{
    // Made outside the lock: its constructor may ask for other components. The first to be entered stays.
    std::unique_ptr<Component> fresh = make(*this);
    const MutexLock lock(impl_->components_mutex);
    if (Component* const other = FindComponent(slot))
        return other;
    Component* const added = fresh.get();
    impl_->components_in_order.push_back(std::move(fresh));
    impl_->components[slot].store(added, std::memory_order_release);
    return added;
}

void KiYield(YieldPoint point)
{
    Thread* const self = KiCurrentThread();
    if (self != nullptr && self->irql <= DISPATCH_LEVEL)
        self->kernel.GetScheduler().Yield(point);
}

} // namespace host
