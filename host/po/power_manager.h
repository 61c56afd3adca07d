// The power manager: requests one at a time to each device, and the sleep of the whole system.
#pragma once

#include "io/actor.h"
#include "ke/kernel.h"
#include "ke/mutex.h"
#include "po/power_watchdog.h"
#include "verifier/irp_rules.h"

#include <array>
#include <deque>
#include <functional>
#include <memory>
#include <wdm/io.h>

namespace host {

class PnpNode;

// What the power manager keeps of a device object. By POWER_STATE_TYPE.
struct PoDevice {
    struct Waiting {
        PIRP irp;
        IrpTicket ticket;
    };
    std::array<bool, 2> busy{}; // a request was sent, and PoStartNextPowerIrp not yet called for it
    std::array<std::deque<Waiting>, 2> waiting;
    std::array<ULONG, 2> state{}; // as PoSetPowerState was told
    int outstanding = 0;          // requests that the device has and has not completed or passed on
};

// Requests of any kind that `device` has.
int PoOutstanding(PDEVICE_OBJECT device);

class PowerManager : public Component {
  public:
    explicit PowerManager(Kernel& kernel);
    ~PowerManager() override;

    static PowerManager& Current() { return Kernel::Current().Get<PowerManager>(); }

    // A system power request to every stack, whatever its Plug and Play state, by the power thread; the caller
    // waits for all of them. A device that no driver was added to has none. The first failure ends a query.
    // IRQL PASSIVE_LEVEL.
    NTSTATUS QuerySystem(SYSTEM_POWER_STATE state);
    NTSTATUS SetSystem(SYSTEM_POWER_STATE state);
    // Query and set. Refused: everything is told to stay at work, and the refusal is returned.
    NTSTATUS Sleep(SYSTEM_POWER_STATE state);
    // Set without a query, as when the battery is empty.
    NTSTATUS CriticalSleep(SYSTEM_POWER_STATE state) { return SetSystem(state); }
    NTSTATUS Wake() { return SetSystem(PowerSystemWorking); }
    SYSTEM_POWER_STATE SystemState() const;
    // Any other minor code, with no state.
    NTSTATUS Send(const std::shared_ptr<PnpNode>& node, UCHAR minor);

    // The answer of some other device of the machine to queries; it comes after those of the stacks.
    void SetNeighbour(std::function<NTSTATUS(SYSTEM_POWER_STATE)> answer);

    // The device state that the driver of `device` last reported with PoSetPowerState.
    DEVICE_POWER_STATE ReportedState(PDEVICE_OBJECT device);

    // The device requests that are under way.
    PowerWatchdog& Watchdog() { return watchdog_; }

    // For the exported routines.
    NTSTATUS Call(PDEVICE_OBJECT device, PIRP irp, const void* caller);
    void StartNext(PIRP irp, const void* caller);
    POWER_STATE SetState(PDEVICE_OBJECT device, POWER_STATE_TYPE type, POWER_STATE state);
    NTSTATUS Request(PDEVICE_OBJECT device, UCHAR minor, POWER_STATE state, PREQUEST_POWER_COMPLETE routine,
                     PVOID context, PIRP* irp);

    // The verifier: a driver's turn at a power request has ended.
    void TurnEnded(PDEVICE_OBJECT device);

    void Shutdown() override;

  private:
    NTSTATUS SendSystem(const std::shared_ptr<PnpNode>& node, UCHAR minor, SYSTEM_POWER_STATE state);
    NTSTATUS QueryAll(SYSTEM_POWER_STATE state);
    NTSTATUS SetAll(SYSTEM_POWER_STATE state);

    mutable Mutex mutex_; // guards every PoDevice as well
    SYSTEM_POWER_STATE system_ HOST_GUARDED_BY(mutex_) = PowerSystemWorking;
    std::function<NTSTATUS(SYSTEM_POWER_STATE)> neighbour_ HOST_GUARDED_BY(mutex_);
    PowerWatchdog watchdog_;
    IopActor policy_; // decides for the system
    IopActor sender_; // sends what was asked for at DISPATCH_LEVEL or had to wait its turn
};

} // namespace host
