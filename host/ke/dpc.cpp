#include "ke/kernel_impl.h"
#include "ke/object_checks.h"

using namespace host;

namespace {

constexpr UCHAR kDpcObject = 0x13; // the platform's number in KDPC::Type

} // namespace

VOID NTAPI KeInitializeDpc(PRKDPC Dpc, PKDEFERRED_ROUTINE DeferredRoutine, PVOID DeferredContext)
{
    const void* const caller = __builtin_return_address(0);
    KiRequireResident(Dpc, __func__, caller);
    if (KiKernel().dpcs.QueuedIn(Dpc, Dpc + 1) != nullptr) {
        VfReport(Rule::ObjectReinitialized, __func__, "a DPC was initialised while it was queued", caller);
        KeRemoveQueueDpc(Dpc);
    }
    *Dpc = {};
    Dpc->Type = kDpcObject;
    Dpc->Importance = MediumImportance;
    Dpc->DeferredRoutine = DeferredRoutine;
    Dpc->DeferredContext = DeferredContext;
}

BOOLEAN NTAPI KeInsertQueueDpc(PRKDPC Dpc, PVOID SystemArgument1, PVOID SystemArgument2)
{
    if (Dpc->Type != kDpcObject || Dpc->DeferredRoutine == nullptr) {
        VfReport(Rule::ObjectUninitialized, __func__, "a DPC was queued that was never initialised",
                 __builtin_return_address(0));
        return FALSE;
    }
    bool inserted = false;
    {
        const MutexLock lock(KiDispatcher());
        inserted = KiKernel().dpcs.Insert(*Dpc, SystemArgument1, SystemArgument2);
    }
    KiYield(YieldPoint::Dpc);
    return inserted ? TRUE : FALSE;
}

BOOLEAN NTAPI KeRemoveQueueDpc(PRKDPC Dpc)
{
    KiYield(YieldPoint::Dpc);
    const MutexLock lock(KiDispatcher());
    return KiKernel().dpcs.Remove(*Dpc) ? TRUE : FALSE;
}

VOID NTAPI KeSetImportanceDpc(PRKDPC Dpc, KDPC_IMPORTANCE Importance)
{
    const MutexLock lock(KiDispatcher());
    Dpc->Importance = static_cast<UCHAR>(Importance);
}

VOID NTAPI KeFlushQueuedDpcs()
{
    VfRequireIrqlAtMost(PASSIVE_LEVEL, Rule::IrqlPassive, __func__, __builtin_return_address(0));
    KiYield(YieldPoint::Dpc);
    KiKernel().dpcs.Flush();
}
