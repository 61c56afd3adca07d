// A filter driver between the bus and the driver under test: the test sees which Plug and Play and power requests
// come down, and may answer them in the bus's place.
#pragma once

#include "io/pnp_manager.h"

#include <atomic>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <usb.h>
#include <vector>
#include <wdm/io.h>

namespace navox_test {

// Requests are named by their minor code, power requests with the state: "IRP_MN_STOP_DEVICE", "IRP_MN_SET_POWER D2",
// "IRP_MN_QUERY_POWER S3", "IRP_MN_WAIT_WAKE". Requests of other kinds pass, but
// for the URB hook. Must outlive the Rig.
class LowerFilter {
  public:
    // For RigOptions::on_arrival.
    void AttachTo(host::PnpNode& node);

    // Requests of this name are completed with `status` from now on, and do not reach the bus.
    void Fail(const std::string& name, NTSTATUS status);
    // Requests of this name stay here until Release.
    void Hold(const std::string& name) { Fail(name, STATUS_PENDING); }
    // Idle requests end with `status` here, until Release; STATUS_PENDING: they are held.
    void AnswerIdle(NTSTATUS status) { Fail(kIdleRequest, status); }
    // Whether the filter outlives an IRP_MN_REMOVE_DEVICE that the driver above only passes on.
    void SetStays(bool stays) { stays_ = stays; }
    // What was held goes on to the bus, and everything passes from now on.
    void Release();
    // The same, but what was held ends here.
    void EndHeld(NTSTATUS status);
    std::size_t Held() const;

    // Sees every URB on its way down; a status completes it here, in the bus's place. To be set before the first.
    using UrbHook = std::function<std::optional<NTSTATUS>(URB& urb)>;
    void SetUrbHook(UrbHook hook) { urb_hook_ = std::move(hook); }

    // For the filter's dispatch routines.
    NTSTATUS Dispatch(PDEVICE_OBJECT device, PIRP irp);

  private:
    static constexpr const char* kIdleRequest = "idle request";
    struct HeldRequest {
        PDEVICE_OBJECT device;
        PIRP irp;
    };

    std::vector<HeldRequest> TakeHeld();
    std::optional<NTSTATUS> PlanFor(const std::string& name, PDEVICE_OBJECT device, PIRP irp);
    NTSTATUS PassOn(PDEVICE_OBJECT device, PIRP irp) const;
    NTSTATUS DispatchUrb(PDEVICE_OBJECT device, PIRP irp) const;

    UrbHook urb_hook_;
    mutable std::mutex lock_;               // a leaf lock
    std::map<std::string, NTSTATUS> plans_; // STATUS_PENDING: hold
    std::vector<HeldRequest> held_;
    std::atomic<bool> stays_ = false;
};

} // namespace navox_test
