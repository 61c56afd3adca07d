// A filter driver between the bus and the driver under test: the test sees which Plug and Play and power requests
// come down, and may answer them in the bus's place.
#pragma once

#include "io/pnp_manager.h"

#include <atomic>
#include <map>
#include <mutex>
#include <utility>
#include <vector>
#include <wdm/io.h>

namespace navox_test {

// Must outlive the Rig. Requests of other kinds pass.
class LowerFilter {
  public:
    // For RigOptions::on_arrival.
    void AttachTo(host::PnpNode& node);

    // Requests of this kind are completed with `status` from now on, and do not reach the bus.
    void Fail(UCHAR major, UCHAR minor, NTSTATUS status);
    // Requests of this kind stay here until Release.
    void Hold(UCHAR major, UCHAR minor);
    // Whether the filter outlives an IRP_MN_REMOVE_DEVICE that the driver above only passes on.
    void SetStays(bool stays) { stays_ = stays; }
    // What was held goes on to the bus, and everything passes from now on.
    void Release();
    std::size_t Held() const;

    // For the filter's dispatch routines.
    NTSTATUS Dispatch(PDEVICE_OBJECT device, PIRP irp);

  private:
    using Kind = std::pair<UCHAR, UCHAR>;
    struct HeldRequest {
        PDEVICE_OBJECT device;
        PIRP irp;
    };

    NTSTATUS PassOn(PDEVICE_OBJECT device, PIRP irp) const;

    mutable std::mutex lock_;        // a leaf lock
    std::map<Kind, NTSTATUS> plans_; // STATUS_PENDING: hold
    std::vector<HeldRequest> held_;
    std::atomic<bool> stays_ = false;
};

} // namespace navox_test
