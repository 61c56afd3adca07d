#include "ex/work_item.h"

#include "ke/kernel_impl.h"

#include <algorithm>
#include <new>
#include <utility>
#include <wdm/ps.h>

namespace host {
namespace {

constexpr ULONG kTag = 0x49576f49; // "IoWI"

} // namespace

PIO_WORKITEM WorkItems::Allocate(PDEVICE_OBJECT device, const void* caller)
{
    if (kernel_.Faults().Hit(FaultPoint::WorkItemAllocate)) {
        kernel_.Log().Instant("fault", "workitem.allocate");
        return nullptr;
    }
    void* const memory =
        kernel_.impl().pool.Allocate(PoolOwner::System, NonPagedPool, sizeof(_IO_WORKITEM), kTag, caller);
    if (memory == nullptr)
        return nullptr;
    const PIO_WORKITEM item = new (memory) _IO_WORKITEM{device};
    const MutexLock lock(mutex_);
    items_[item] = {.number = ++last_number_, .allocated_at = caller};
    return item;
}

bool WorkItems::Known(PIO_WORKITEM item, const char* routine, const void* caller)
{
    bool known = false;
    {
        const MutexLock lock(mutex_);
        known = items_.contains(item);
    }
    if (!known)
        VfReport(Rule::WorkItemUnknown, routine,
                 std::string(routine) + " was given no work item that is allocated", caller);
    return known;
}

void WorkItems::Free(PIO_WORKITEM item, const void* caller)
{
    if (!Known(item, "IoFreeWorkItem", caller))
        return;
    bool queued = false;
    {
        const MutexLock lock(mutex_);
        queued = items_[item].queued;
        if (!queued)
            items_.erase(item);
    }
    if (queued)
        VfReport(Rule::WorkItemFreedQueued, "IoFreeWorkItem", "it is still queued", caller);
    else
        ExpFree(item, kTag);
}

void WorkItems::Queue(PIO_WORKITEM item, PIO_WORKITEM_ROUTINE routine, WORK_QUEUE_TYPE queue, PVOID context,
                      const void* caller)
{
    if (!Known(item, "IoQueueWorkItem", caller))
        return;
    bool queued = false;
    {
        const MutexLock lock(mutex_);
        queued = std::exchange(items_[item].queued, true);
    }
    if (queued) {
        VfReport(Rule::WorkItemFreedQueued, "IoQueueWorkItem", "it is queued already", caller);
        return;
    }
    // The device object stays until the routine has returned.
    if (item->device != nullptr)
        ObfReferenceObject(item->device);
    const Call call = {item, item->device, routine, context};
    kernel_.impl().work.Post(queue, [this, call] { Run(call); });
}

void WorkItems::Run(const Call& call)
{
    {
        const MutexLock lock(mutex_);
        items_[call.item].queued = false; // its routine may free it or queue it again
        running_.push_back(call.routine);
    }
    const CallbackState before = VfEnterCallback();
    call.routine(call.device, call.context);
    VfLeaveCallback(before, "a work item", reinterpret_cast<const void*>(call.routine));
    {
        const MutexLock lock(mutex_);
        running_.erase(std::find(running_.begin(), running_.end(), call.routine));
    }
    if (call.device != nullptr)
        ObfDereferenceObject(call.device);
}

void WorkItems::AuditUnload(std::string_view when)
{
    struct Left {
        Rule rule;
        std::string detail;
        std::string text;
        const void* caller;
    };
    std::vector<Left> left;
    {
        const MutexLock lock(mutex_);
        for (auto& [item, state] : items_) {
            if (std::exchange(state.reported, true))
                continue;
            const std::string symbol = SymbolOf(state.allocated_at);
            left.push_back({state.queued ? Rule::WorkItemAlive : Rule::WorkItemLeak, symbol,
                            "work item " + std::to_string(state.number) + ", allocated at " + symbol +
                                (state.queued ? ", is queued" : ", was not freed") + std::string(when),
                            state.allocated_at});
        }
        for (const PIO_WORKITEM_ROUTINE routine : running_)
            left.push_back({Rule::WorkItemAlive, "", "a work item runs" + std::string(when),
                            reinterpret_cast<const void*>(routine)});
    }
    for (Left& one : left)
        VfReport(one.rule, std::move(one.detail), std::move(one.text), one.caller);
}

} // namespace host

using namespace host;

PIO_WORKITEM NTAPI IoAllocateWorkItem(PDEVICE_OBJECT DeviceObject)
{
    const void* const caller = __builtin_return_address(0);
    VfRequireIrqlAtMost(DISPATCH_LEVEL, Rule::IrqlKeDispatchLte, __func__, caller);
    return KiKernel().kernel.Get<WorkItems>().Allocate(DeviceObject, caller);
}

VOID NTAPI IoFreeWorkItem(PIO_WORKITEM IoWorkItem)
{
    const void* const caller = __builtin_return_address(0);
    VfRequireIrqlAtMost(DISPATCH_LEVEL, Rule::IrqlKeDispatchLte, __func__, caller);
    KiKernel().kernel.Get<WorkItems>().Free(IoWorkItem, caller);
}

VOID NTAPI IoQueueWorkItem(PIO_WORKITEM IoWorkItem, PIO_WORKITEM_ROUTINE WorkerRoutine,
                           WORK_QUEUE_TYPE QueueType, PVOID Context)
{
    const void* const caller = __builtin_return_address(0);
    VfRequireIrqlAtMost(DISPATCH_LEVEL, Rule::IrqlKeDispatchLte, __func__, caller);
    KiKernel().kernel.Get<WorkItems>().Queue(IoWorkItem, WorkerRoutine, QueueType, Context, caller);
    KiYield(YieldPoint::WorkItem);
}
