// One port of the hub with the device on it: endpoints, their transfers, and power.
//
//   submit ──▶ queue of an endpoint ──pump──▶ packets to and from the device ──▶ done ──▶ completed by the
//   DPC
//                     │                                                            ▲
//                     └── cancel, abort, device gone ──────────────────────────────┘
//
// Only the pump talks to the device; it runs in the bus DPC, one at a time.
#pragma once

#include "ke/kernel.h"
#include "module/device.h"
#include "usbd/usb_bus.h"

#include <array>
#include <deque>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <usb.h>
#include <usbioctl.h>
#include <vector>
#include <wdm/io.h>

namespace host {

class UsbPort;

// What a USBD_PIPE_HANDLE points at. Kept after it is closed, so that a stale handle is known as one.
struct UsbPipe {
    UCHAR endpoint = 0; // address
    USBD_PIPE_TYPE type = UsbdPipeTypeControl;
    USHORT max_packet = 0;
    UCHAR interface_number = 0;
    bool open = false;
};

struct UsbTransfer {
    PIRP irp = nullptr;
    PURB urb = nullptr;
    std::uint64_t request = 0; // its number in the bus log
    UCHAR endpoint = 0;
    UsbPipe* pipe = nullptr;
    // Control: what goes over the pipe, one after the other; the last one carries the URB's buffer.
    std::vector<module::SetupPacket> steps;
    std::size_t step = 0;
    ULONG moved = 0;
    Time not_before = 0; // system time
    bool hung = false;
    bool cancelled = false;
    USBD_STATUS result = USBD_STATUS_SUCCESS;
    NTSTATUS status = STATUS_SUCCESS;
};
using UsbTransferPtr = std::shared_ptr<UsbTransfer>;

class UsbPort : public std::enable_shared_from_this<UsbPort> {
  public:
    UsbPort(UsbBus& bus, std::shared_ptr<module::Device> device, UsbPortOptions options);
    ~UsbPort();
    UsbPort(const UsbPort&) = delete;
    UsbPort& operator=(const UsbPort&) = delete;

    // Reads the descriptors. False: the device does not answer.
    bool Enumerate();
    std::string DeviceId() const; // "USB\VID_1234&PID_5678"

    // For tests and tools, at PASSIVE_LEVEL.
    PDEVICE_OBJECT DeviceObject() const { return pdo_; }
    DEVICE_POWER_STATE PowerState();
    const UsbPortOptions& Options() const { return options_; }
    bool Gone();
    // Runs `look` while the bus leaves the device alone.
    void WithDevice(const std::function<void(module::Device&)>& look);
    // The hub lets an idle device suspend, from now on, when it has asked for it.
    void AllowIdle(bool allow);
    bool IdleRequested();
    // Time has passed or the device has changed: look at it again. IRQL <= DISPATCH_LEVEL.
    void Poke();

    // For the bus driver.
    void SetDeviceObject(PDEVICE_OBJECT pdo) { pdo_ = pdo; }
    NTSTATUS SubmitUrb(PIRP irp);
    NTSTATUS SubmitIdle(PIRP irp);
    NTSTATUS WaitWake(PIRP irp);
    void CancelUrb(PIRP irp);
    // Its canceller ends the request with `status`; false: it ends later, with the idle routine.
    bool ForgetWaiter(PIRP irp, NTSTATUS status);
    void SetPower(DEVICE_POWER_STATE state);
    void FillCapabilities(DEVICE_CAPABILITIES* capabilities) const;
    void Started();
    void Removed();
    void Disconnect();
    // Pulls the device and plugs it in again, as the hub does on request.
    void Cycle();

  private:
    struct Endpoint {
        std::deque<UsbTransferPtr> queue;
        bool halted = false;
    };

    // Checks and preparation of a URB; anything but USBD_STATUS_PENDING ends it at once.
    USBD_STATUS Accept(PURB urb, UsbTransfer& transfer);
    USBD_STATUS AcceptControl(PURB urb, UsbTransfer& transfer);
    USBD_STATUS AcceptPipe(PURB urb, UsbTransfer& transfer);
    USBD_STATUS AcceptSelectConfiguration(PURB urb, UsbTransfer& transfer);
    USBD_STATUS AcceptSelectInterface(PURB urb, UsbTransfer& transfer);
    UsbPipe* FindPipe(USBD_PIPE_HANDLE handle);
    void ApplyFault(UsbTransfer& transfer);

    // The pump.
    static VOID NTAPI PumpDpc(PKDPC dpc, PVOID context, PVOID, PVOID);
    void Pump();
    bool PumpOnce(std::vector<UsbTransferPtr>& done);
    void RunEndpoint(Endpoint& endpoint, std::vector<UsbTransferPtr>& done);
    bool RunTransfer(UsbTransfer& transfer, Endpoint& endpoint);
    bool RunControl(UsbTransfer& transfer);
    bool RunStep(UsbTransfer& transfer, const module::SetupPacket& setup);
    bool RunIn(UsbTransfer& transfer, Endpoint& endpoint);
    bool RunOut(UsbTransfer& transfer, Endpoint& endpoint);
    bool RunAbort(UsbTransfer& transfer, std::vector<UsbTransferPtr>& done);
    void FinishControl(UsbTransfer& transfer);
    void OpenInterfaces(PURB urb);
    void OpenInterface(PUSBD_INTERFACE_INFORMATION information);
    void ClosePipes(std::optional<UCHAR> interface_number);
    void FailAll(USBD_STATUS status, std::vector<UsbTransferPtr>& done);
    bool TakeForCompletion(const UsbTransferPtr& transfer);
    void Complete(const UsbTransferPtr& transfer);
    void ArmTimer();
    void CheckWaiters();
    void CompleteWaiter(PIRP& slot, NTSTATUS status, bool power);
    void StartIdle();
    void CallIdleRoutine();
    void LeaveIdleRoutine();
    bool TakeWaiter(PIRP& slot, NTSTATUS status);
    bool KeepWaiter(PIRP irp, PIRP& slot);
    NTSTATUS CheckIdle();
    void Note(const UsbTransfer& transfer);

    UsbBus& bus_;
    const std::shared_ptr<module::Device> device_;
    const UsbPortOptions options_;
    PDEVICE_OBJECT pdo_ = nullptr;
    USHORT vendor_ = 0;
    USHORT product_ = 0;
    bool remote_wake_ = false;

    // Guarded by the lock from here on.
    KSPIN_LOCK lock_ = 0;
    KDPC dpc_{};
    KTIMER timer_{};
    bool pumping_ = false;
    bool pump_again_ = false;
    bool gone_ = false;     // not on the bus any more
    bool departed_ = false; // and the PnP manager knows
    bool started_ = false;  // between start and remove of the stack above
    DEVICE_POWER_STATE power_ = PowerDeviceD0;
    UCHAR configuration_ = 0;       // value; 0: none
    std::vector<UCHAR> descriptor_; // of the configuration, as the driver gave it
    std::map<UCHAR, Endpoint> endpoints_;
    std::list<UsbPipe> pipes_;
    std::set<PURB> in_flight_;
    std::vector<UsbTransferPtr> cancelled_; // taken by their cancel routine, to be completed by the DPC
    std::vector<UsbTransferPtr> limbo_;     // finished, but their cancel routine has yet to come
    PIRP idle_irp_ = nullptr;
    USB_IDLE_CALLBACK_INFO idle_callback_{};
    bool idle_called_ = false; // its callback was called
    bool idle_in_callback_ = false;
    std::optional<NTSTATUS> idle_end_; // came while the callback ran
    bool idle_allowed_ = true;
    PIRP wake_irp_ = nullptr;
};

} // namespace host
