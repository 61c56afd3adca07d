// The USB bus: a hub with as many ports as there are devices, its driver, and a log of all it was asked.
#pragma once

#include "io/actor.h"
#include "ke/kernel.h"
#include "ke/mutex.h"
#include "module/device.h"

#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <usb.h>
#include <vector>
#include <wdm/io.h>

namespace host {

class UsbPort;
using UsbPortPtr = std::shared_ptr<UsbPort>;

// One URB, as it was submitted and as it ended. In the order of submission.
struct UsbRequest {
    std::uint64_t number = 0;
    Time submitted = 0; // interrupt time
    Time completed = 0;
    USHORT function = 0;
    const char* name = "";                  // of the function
    std::vector<module::SetupPacket> setup; // what went over the control pipe for it
    UCHAR endpoint = 0;                     // of pipe requests: the address
    ULONG length = 0;                       // of the buffer
    std::vector<std::uint8_t> data;         // the bytes that went out, or came in (the first kDataKept)
    bool done = false;
    USBD_STATUS usbd_status = 0;
    NTSTATUS status = 0;

    static constexpr std::size_t kDataKept = 64;
};

struct UsbPortOptions {
    std::string instance_id = "6&1";
    // Appended to "USB\VID_vvvv&PID_pppp": "&MI_02" for a function of a composite device.
    std::string function_suffix;
    std::string class_guid = "{4d36e978-e325-11ce-bfc1-08002be10318}"; // ports
    // What the bus driver answers to IRP_MN_QUERY_CAPABILITIES, beside the fixed fields.
    std::vector<DEVICE_POWER_STATE> device_states = {PowerDeviceUnspecified, PowerDeviceD0, PowerDeviceD2,
                                                     PowerDeviceD2,          PowerDeviceD2, PowerDeviceD3,
                                                     PowerDeviceD3};
    SYSTEM_POWER_STATE system_wake = PowerSystemSleeping3;
    DEVICE_POWER_STATE device_wake = PowerDeviceD2;
    bool supports_idle = true; // selective suspend
};

class UsbBus : public Component {
  public:
    explicit UsbBus(Kernel& kernel);
    ~UsbBus() override;

    static UsbBus& Current() { return Kernel::Current().Get<UsbBus>(); }

    // Connects a device: the bus reads its descriptors, makes a device object and reports it to the PnP
    // manager. Null when the device does not answer. IRQL PASSIVE_LEVEL.
    UsbPortPtr Plug(std::shared_ptr<module::Device> device, UsbPortOptions options = {});
    // Pulls it. What is on the bus fails; the PnP manager takes the stack down.
    void Unplug(const UsbPortPtr& port);

    std::vector<UsbPortPtr> Ports();

    std::vector<UsbRequest> Log();
    void ClearLog();

    // For the ports.
    IopActor& HubThread() { return hub_; }
    void Forget(const UsbPort* port);
    std::uint64_t NewRequest(UsbRequest request);
    void UpdateRequest(std::uint64_t number, const std::function<void(UsbRequest&)>& change);

    void Shutdown() override;

  private:
    NTSTATUS LoadDriver();

    Mutex mutex_;
    std::vector<UsbPortPtr> ports_ HOST_GUARDED_BY(mutex_);
    std::deque<UsbRequest> log_ HOST_GUARDED_BY(mutex_);
    std::uint64_t next_request_ HOST_GUARDED_BY(mutex_) = 1;
    std::uint64_t next_port_ HOST_GUARDED_BY(mutex_) = 0;
    PDRIVER_OBJECT driver_ = nullptr;
    IopActor hub_;
};

} // namespace host
