#include "io/lower_fault.h"

#include "io/actor.h"
#include "io/names.h"

namespace host {
namespace {

// The thread that plays the slow driver below.
class SlowDriver : public Component {
  public:
    explicit SlowDriver(Kernel& kernel) : Component(kernel), actor("lower driver") {}
    void Shutdown() override { actor.Stop(); }

    IopActor actor;
};

void NTAPI CancelHung(PDEVICE_OBJECT, PIRP irp)
{
    IoReleaseCancelSpinLock(irp->CancelIrql);
    irp->IoStatus.Status = STATUS_CANCELLED;
    irp->IoStatus.Information = 0;
    IopCompleteRequest(irp, nullptr);
}

// Completed only by a cancel.
void HangUp(PIRP irp)
{
    KIRQL irql = PASSIVE_LEVEL;
    IoAcquireCancelSpinLock(&irql);
    IoSetCancelRoutine(irp, CancelHung);
    if (irp->Cancel && IoSetCancelRoutine(irp, nullptr) != nullptr) {
        irp->CancelIrql = irql;
        CancelHung(nullptr, irp);
        return;
    }
    IoReleaseCancelSpinLock(irql);
}

void DispatchLater(PDEVICE_OBJECT device, PIRP irp, const IrpTicket& ticket, Time delay)
{
    Kernel::Current().Get<SlowDriver>().actor.Post([=] {
        if (delay != 0)
            Kernel::Current().RunFor(delay);
        IopDispatch(device, irp, ticket);
    });
}

} // namespace

bool IopLowerFault(PDEVICE_OBJECT device, PIRP irp, const IrpTicket& ticket, NTSTATUS* status)
{
    const std::optional<Fault> fault =
        Kernel::Current().Faults().Hit(FaultPoint::LowerDriver, IopMajorName(ticket.major));
    if (!fault)
        return false;
    if (fault->action == FaultAction::Fail) {
        *status = fault->status != 0 ? fault->status : STATUS_UNSUCCESSFUL;
        irp->IoStatus.Status = *status;
        irp->IoStatus.Information = 0;
        IopCompleteRequest(irp, nullptr);
        return true;
    }
    VfIrpForcePending(ticket);
    *status = STATUS_PENDING;
    if (fault->action == FaultAction::Hang)
        HangUp(irp);
    else
        DispatchLater(device, irp, ticket, fault->delay);
    return true;
}

} // namespace host
