#include "io/irp.h"

#include "io/memory.h"
#include "io/names.h"
#include "verifier/irp_rules.h"

#include <algorithm>
#include <cstring>

namespace host {
namespace {

void Prepare(PIRP irp, USHORT size, CHAR stack_count)
{
    std::memset(static_cast<void*>(irp), 0, size);
    irp->Type = IO_TYPE_IRP;
    irp->Size = size;
    irp->StackCount = stack_count;
    irp->CurrentLocation = static_cast<CHAR>(stack_count + 1);
    InitializeListHead(&irp->ThreadListEntry);
    irp->Tail.Overlay.CurrentStackLocation = reinterpret_cast<PIO_STACK_LOCATION>(irp + 1) + stack_count;
}

bool Reports(const std::shared_ptr<IopRequest>& request)
{
    return request && request->ReportsTo() != nullptr;
}

} // namespace

IopWaitedRequest::IopWaitedRequest()
{
    KeInitializeEvent(&done, NotificationEvent, FALSE);
}

bool IopWaitedRequest::Completed(PIRP irp)
{
    result = irp->IoStatus;
    KeSetEvent(&done, EVENT_INCREMENT, FALSE);
    return true;
}

std::string IrpRecord::Describe() const
{
    const std::string detail = major == IRP_MJ_DEVICE_CONTROL ? " " + IopHex(code) : "";
    std::string text =
        "request " + std::to_string(number) + " (" + IopRequestName(major, minor) + detail + ')';
    if (calls == 0)
        text = "request " + std::to_string(number) + " (never sent)";
    return text + ", made by " + allocated_by;
}

IrpRecordPtr IrpTable::Add(PIRP irp, IrpOrigin origin, std::shared_ptr<IopRequest> request,
                           const void* caller)
{
    auto record = std::make_shared<IrpRecord>();
    record->irp = irp;
    record->origin = origin;
    if (Reports(request))
        ++reporting_;
    record->request = std::move(request);
    record->turns.resize(static_cast<std::size_t>(irp->StackCount) + 1);
    record->allocated_by = ActorName();
    record->caller = caller;
    const MutexLock lock(mutex);
    record->number = next_number_++;
    freed_.erase(irp);
    live_[irp] = record;
    return record;
}

IrpRecordPtr IrpTable::Find(const IRP* irp)
{
    const MutexLock lock(mutex);
    auto found = live_.find(irp);
    return found == live_.end() ? nullptr : found->second;
}

bool IrpTable::WasFreed(const IRP* irp)
{
    const MutexLock lock(mutex);
    return freed_.contains(irp);
}

void IrpTable::Remove(const IrpRecordPtr& record)
{
    if (Reports(record->request))
        --reporting_;
    const MutexLock lock(mutex);
    record->freed = true;
    live_.erase(record->irp);
    freed_[record->irp] = record->number;
    freed_order_.emplace_back(record->irp, record->number);
    if (freed_order_.size() <= kFreedRemembered)
        return;
    const auto [irp, number] = freed_order_.front();
    freed_order_.pop_front();
    const auto oldest = freed_.find(irp);
    if (oldest != freed_.end() && oldest->second == number)
        freed_.erase(oldest);
}

std::vector<IrpRecordPtr> IrpTable::All()
{
    std::vector<IrpRecordPtr> records;
    const MutexLock lock(mutex);
    for (const auto& [irp, record] : live_)
        records.push_back(record);
    std::sort(records.begin(), records.end(),
              [](const auto& left, const auto& right) { return left->number < right->number; });
    return records;
}

std::vector<IrpRecordPtr> IrpTable::OfThread(PKTHREAD thread)
{
    std::vector<IrpRecordPtr> records = All();
    std::erase_if(records, [=](const auto& record) { return record->thread != thread; });
    return records;
}

void IrpTable::Audit()
{
    for (const IrpRecordPtr& record : All()) {
        if (record->origin != IrpOrigin::Initialized)
            VfReport(Rule::IrpLeak, IopMajorName(record->major), record->Describe() + " is still alive",
                     record->caller);
    }
}

PIRP IopAllocateIrp(CCHAR stack_size, IrpOrigin origin, std::shared_ptr<IopRequest> request,
                    const void* caller)
{
    const USHORT size = IoSizeOfIrp(stack_size);
    void* memory = IopAllocateMemory(size);
    if (memory == nullptr)
        return nullptr;
    auto* irp = static_cast<PIRP>(memory);
    Prepare(irp, size, stack_size);
    IrpTable::Current().Add(irp, origin, std::move(request), caller);
    return irp;
}

void IopFreeIrp(PIRP irp)
{
    IrpTable& table = IrpTable::Current();
    IrpRecordPtr record = table.Find(irp);
    if (!record)
        return;
    const bool owned = record->origin != IrpOrigin::Initialized;
    Kernel::Current().Log().Forget(irp);
    table.Remove(record);
    if (owned)
        IopFreeMemory(irp);
}

} // namespace host

using namespace host;

extern "C" {

VOID NTAPI IoInitializeIrp(PIRP Irp, USHORT PacketSize, CCHAR StackSize)
{
    const void* caller = __builtin_return_address(0);
    if (!VfIrpInitialize(Irp, caller))
        return;
    Prepare(Irp, PacketSize, StackSize);
    IrpTable::Current().Add(Irp, IrpOrigin::Initialized, nullptr, caller);
}

PIRP NTAPI IoAllocateIrp(CCHAR StackSize, BOOLEAN)
{
    const void* caller = __builtin_return_address(0);
    VfRequireIrqlAtMost(DISPATCH_LEVEL, Rule::IrqlKeDispatchLte, "IoAllocateIrp", caller);
    if (Kernel::Current().Faults().Hit(FaultPoint::IrpAllocate))
        return nullptr;
    return IopAllocateIrp(StackSize, IrpOrigin::Allocated, nullptr, caller);
}

VOID NTAPI IoFreeIrp(PIRP Irp)
{
    const void* caller = __builtin_return_address(0);
    VfRequireIrqlAtMost(DISPATCH_LEVEL, Rule::IrqlKeDispatchLte, "IoFreeIrp", caller);
    if (VfIrpFree(Irp, caller))
        IopFreeIrp(Irp);
}

VOID NTAPI IoReuseIrp(PIRP Irp, NTSTATUS Iostatus)
{
    if (!VfIrpReuse(Irp, __builtin_return_address(0)))
        return;
    const UCHAR allocation_flags = Irp->AllocationFlags;
    Prepare(Irp, Irp->Size, Irp->StackCount);
    Irp->AllocationFlags = allocation_flags;
    Irp->IoStatus.Status = Iostatus;
}

ULONG NTAPI IoGetRequestorProcessId(PIRP Irp)
{
    IrpRecordPtr record = IrpTable::Current().Find(Irp);
    return record && record->request ? record->request->ProcessId() : 0;
}

} // extern "C"
