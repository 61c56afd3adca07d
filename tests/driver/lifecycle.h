// What the tests of the device's life share: the story that the machine tells, the driver's own record, and the ways
// into each Plug and Play state.
#pragma once

#include "lower_filter.h"
#include "navox.h"
#include "rig.h"

#include <ostream>
#include <string>
#include <vector>

namespace navox_test {

using Lines = std::vector<std::string>;

// A machine with a filter between the driver and the bus.
struct Machine {
    explicit Machine(RigOptions options = {}) : rig(WithFilter(std::move(options))) {}

    LowerFilter filter;
    Rig rig;

  private:
    RigOptions WithFilter(RigOptions options);
};

// What happened, as short lines in the order of events, one kind of thing each:
//   "down IRP_MN_QUERY_ID"       a request reached the filter below the driver (LowerFilter) as it came;
//   "down IRP_MN_STOP_DEVICE with 0x0" ... and with a status that the driver set
//   "in 82", "reset 82" ...      a request on the bus, as in TakeBusLog
//   "reports D2"                 the driver told the power manager
//   "interface enabled"          and "interface disabled"
//   "OpenHandles = 1"            a registry value was set; "SERIALCOMM ... deleted"
//   "wmi register"               and "wmi deregister"
//   "idle request", "idle callback", "idle request ends 0xc0000120"
class Story {
  public:
    explicit Story(Rig& rig) : rig_(rig) { Take(); }
    // Since the last call, or since it was made.
    Lines Take();

  private:
    Rig& rig_;
    std::size_t seen_ = 0;
    std::uint64_t requests_ = 0; // of the bus, begun in what was seen
};

// The driver's own record, where nothing outside tells. The device must exist.
DEVICE_EXTENSION& Inside(Rig& rig);
inline ULONG StateOf(Rig& rig)
{
    return Inside(rig).DevicePnPState;
}
// Requests that are inside the driver.
ULONG PendingIn(Rig& rig);
std::string StateText(ULONG state);

// One PnP request to the top of the stack, on the PnP thread. The PnP manager's view follows the driver's state.
NTSTATUS SendPnp(Rig& rig, UCHAR minor);

// A machine whose device is in the state; not STATE_REMOVED.
std::unique_ptr<Machine> MachineIn(ULONG state, RigOptions options = {});

// The bus lets the module wake it.
void ArmRemoteWake(Rig& rig);

// A power request to the top of the stack, as the power manager sends it.
class PowerRequest {
  public:
    PowerRequest(Rig& rig, UCHAR minor, POWER_STATE_TYPE type, ULONG state);
    bool Done() const;
    // STATUS_PENDING when it is not complete after ten seconds.
    NTSTATUS Wait() const;
    ULONG_PTR Information() const; // once it is complete

  private:
    class Waiter;
    std::shared_ptr<Waiter> waiter_;
};

// Of whatever minor code; none reaches the bus.
constexpr auto kUnknownPowerType = static_cast<POWER_STATE_TYPE>(2);
void ExpectEveryPowerRequestFails(Rig& rig, const std::vector<POWER_STATE_TYPE>& types = {
                                                SystemPowerState, DevicePowerState, kUnknownPowerType});

inline NTSTATUS SendDevicePower(Rig& rig, UCHAR minor, DEVICE_POWER_STATE state)
{
    return PowerRequest(rig, minor, DevicePowerState, state).Wait();
}
inline NTSTATUS SendSystemPower(Rig& rig, UCHAR minor, SYSTEM_POWER_STATE state)
{
    return PowerRequest(rig, minor, SystemPowerState, state).Wait();
}

} // namespace navox_test
