// What must not be left behind.
#include "etw/providers.h"
#include "ex/work_item.h"
#include "ke/kernel_impl.h"

#include <string>

namespace host {
namespace {

bool Restless(const Thread& thread)
{
    switch (thread.kind) {
    case ThreadKind::User: return !thread.done;
    case ThreadKind::System: return !thread.done && !thread.reason.idle;
    case ThreadKind::Main:
    case ThreadKind::Attached: return false;
    }
    return false;
}

std::string WhereIs(const Kernel::Impl& kernel, const void* address)
{
    const std::optional<PoolBlock> block = kernel.pool.Find(address);
    return block ? " in a block tagged " + PoolTagText(block->tag) : "";
}

} // namespace

std::string KiDescribeThreads(Kernel& kernel)
{
    std::string text;
    for (const auto& thread : kernel.impl().threads.All()) {
        if (thread->done || (thread->kind == ThreadKind::System && thread->reason.idle))
            continue;
        text += (text.empty() ? "" : "\n    ") + kernel.impl().threads.NameOf(thread->id) + " (IRQL " +
                std::to_string(thread->irql) + ")";
        if (thread->state == Thread::State::Ready || thread->reason.object == nullptr)
            text += thread->state == Thread::State::Blocked ? std::string(" waits for ") + thread->reason.what
                                                            : " is ready";
        if (thread->state != Thread::State::Ready && thread->reason.object != nullptr) {
            const std::string holder = kernel.impl().locks.DescribeHolder(thread->reason.object);
            text += std::string(" waits for ") + thread->reason.what +
                    WhereIs(kernel.impl(), thread->reason.object) +
                    (holder.empty() ? "" : " that is " + holder);
        }
        for (const HeldLock& held : thread->locks)
            text += std::string("\n        holds a ") + (held.spin ? "spin lock" : "fast mutex") +
                    " taken at " + SymbolOf(held.caller);
    }
    return text;
}

bool VfAuditThreads(Kernel& kernel)
{
    // Of a live kernel's threads nobody can say from outside what they are at; its workers are simply joined.
    std::string restless;
    for (const auto& thread : kernel.impl().threads.All()) {
        if (!Restless(*thread) || (!kernel.Simulated() && thread->kind == ThreadKind::System))
            continue;
        restless += (restless.empty() ? "" : ", ") + kernel.impl().threads.NameOf(thread->id);
    }
    if (restless.empty())
        return true;
    VfReport(Rule::ThreadAlive, restless,
             "not ended when the kernel goes away: " + KiDescribeThreads(kernel));
    return false;
}

void VfBeginUnload()
{
    KiKernel().pool.SetUnloading(true);
}

void VfEndUnload()
{
    KiKernel().pool.SetUnloading(false);
}

void VfAuditUnload(std::string_view driver)
{
    Kernel::Impl& kernel = KiKernel();
    if (!kernel.verifier.Enabled())
        return;
    const std::string when = " when " + std::string(driver) + " is gone";
    for (const KTIMER* const timer : kernel.timers.Armed())
        VfReport(Rule::TimerAlive, "", "a timer" + WhereIs(kernel, timer) + " is armed" + when);
    for (const KDPC* const dpc : kernel.dpcs.Alive())
        VfReport(Rule::DpcAlive, "", "a DPC" + WhereIs(kernel, dpc) + " is queued or running" + when);
    kernel.kernel.Get<EtwProviders>().AuditUnload(when);
    kernel.kernel.Get<WorkItems>().AuditUnload(when);
    kernel.pool.AuditLeaks(when);
}

} // namespace host
