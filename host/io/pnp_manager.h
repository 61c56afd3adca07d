// The Plug and Play manager: one node per device on a bus, and the requests that take its stack through its
// life. All requests are sent by one thread, one at a time, at PASSIVE_LEVEL.
#pragma once

#include "io/actor.h"
#include "ke/kernel.h"
#include "ke/mutex.h"

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>
#include <wdm/io.h>

namespace host {

// How a bus names a device.
struct PnpIdentity {
    std::string device_id;   // "USB\VID_1234&PID_5678&MI_02"
    std::string instance_id; // "6&1"
    std::string class_guid;  // of the setup class: "{4d36e978-e325-11ce-bfc1-08002be10318}"
};

enum class PnpState {
    Reported, // there is no stack above the bus driver's device object
    Added,    // AddDevice has succeeded
    Started,
    StopPending,
    Stopped,
    RemovePending,
    SurpriseRemoved, // waits for the last handle to close
    Removed,         // and gone from the bus
};
const char* PnpStateName(PnpState state);

class PnpNode : public std::enable_shared_from_this<PnpNode> {
  public:
    PDEVICE_OBJECT pdo = nullptr;
    PnpIdentity identity;
    PnpState state = PnpState::Reported;
    bool departed = false; // the bus has lost the device
    int opens = 0;         // handles on any device of the stack
    DEVICE_CAPABILITIES capabilities{};
    std::string driver_number; // "0007", of the driver key

    std::u16string EnumKey() const;     // \Registry\Machine\System\CurrentControlSet\Enum\...
    std::u16string HardwareKey() const; // "Device Parameters" below it
    std::u16string DriverKey() const;   // ...\Control\Class\{class}\0000
    std::string Path() const;           // "USB\VID_...\6&1"
};
using PnpNodePtr = std::shared_ptr<PnpNode>;

class PnpManager : public Component {
  public:
    explicit PnpManager(Kernel& kernel);
    ~PnpManager() override;

    static PnpManager& Current() { return Kernel::Current().Get<PnpManager>(); }

    // The driver whose AddDevice is called for every device that arrives from now on.
    void SetFunctionDriver(std::string name);
    // Whether devices that arrive are added and started by themselves. They are, at first.
    void SetAutomatic(bool automatic);
    // Called on the PnP thread for each device before its AddDevice: the place of a class installer, that
    // writes what the driver will read.
    void SetInstaller(std::function<void(PnpNode&)> installer);

    // For bus drivers. IRQL <= DISPATCH_LEVEL; they return before anything is done.
    void Arrive(PDEVICE_OBJECT pdo, PnpIdentity identity);
    void Depart(PDEVICE_OBJECT pdo);

    // Each of these is done by the PnP thread; the caller waits. IRQL PASSIVE_LEVEL. One request each:
    NTSTATUS AddDevice(const PnpNodePtr& node);
    NTSTATUS Start(const PnpNodePtr& node); // of a stopped device: when it fails the device is taken away
    NTSTATUS QueryStop(const PnpNodePtr& node);
    NTSTATUS CancelStop(const PnpNodePtr& node);
    NTSTATUS Stop(const PnpNodePtr& node);
    NTSTATUS QueryRemove(const PnpNodePtr& node);
    NTSTATUS CancelRemove(const PnpNodePtr& node);
    NTSTATUS Remove(const PnpNodePtr& node);
    NTSTATUS SurpriseRemove(const PnpNodePtr& node);
    // What the stack answers; not kept by the node.
    NTSTATUS QueryCapabilities(const PnpNodePtr& node, DEVICE_CAPABILITIES* capabilities);
    // Any other minor code, with no parameters.
    NTSTATUS Send(const PnpNodePtr& node, UCHAR minor);

    // And what the system makes of them:
    // query stop, stop, start. A restart that fails takes the device away.
    NTSTATUS Rebalance(const PnpNodePtr& node);
    // Query remove, remove. STATUS_DEVICE_BUSY, and all as before, when a handle is open.
    NTSTATUS Disable(const PnpNodePtr& node);
    // Adds and starts a disabled device again.
    NTSTATUS Enable(const PnpNodePtr& node);

    // Until all that was asked for, also by buses, is done.
    void Settle();

    std::vector<PnpNodePtr> Nodes();
    std::vector<PnpNodePtr> Stacks();         // those that a driver was added to, in whatever state
    PnpNodePtr NodeOf(PDEVICE_OBJECT device); // of any device in the stack; null when there is none
    // Whether the calling thread is on the way down with IRP_MN_REMOVE_DEVICE: lower devices go first then.
    bool IsRemoving() const { return actor_.IsCurrent() && removing_; }

    // The I/O manager tells of handles.
    void Opened(const PnpNodePtr& node);
    void Closed(const PnpNodePtr& node);

    void Shutdown() override;

  private:
    void Enumerate(const PnpNodePtr& node);
    NTSTATUS DoAddDevice(const PnpNodePtr& node);
    NTSTATUS DoStart(const PnpNodePtr& node);
    NTSTATUS DoRemove(const PnpNodePtr& node);
    NTSTATUS DoSurpriseRemove(const PnpNodePtr& node);
    void DoDepart(const PnpNodePtr& node);
    NTSTATUS AddAndStart(const PnpNodePtr& node);
    void TakeAway(const PnpNodePtr& node);
    NTSTATUS Step(const PnpNodePtr& node, UCHAR minor, PnpState next);
    NTSTATUS SendTo(PDEVICE_OBJECT device, UCHAR minor,
                    const std::function<void(PIRP, PIO_STACK_LOCATION)>& prepare = {},
                    ULONG_PTR* information = nullptr);
    NTSTATUS AskCapabilities(PDEVICE_OBJECT device, DEVICE_CAPABILITIES* capabilities);
    void AskState(const PnpNodePtr& node);
    void AskRelations(const PnpNodePtr& node);
    void SetState(const PnpNodePtr& node, PnpState state);
    void Forget(const PnpNodePtr& node);
    NTSTATUS OnActor(const std::function<NTSTATUS()>& task);

    Mutex mutex_;
    std::vector<PnpNodePtr> nodes_ HOST_GUARDED_BY(mutex_);
    std::string driver_ HOST_GUARDED_BY(mutex_);
    std::function<void(PnpNode&)> installer_ HOST_GUARDED_BY(mutex_);
    bool automatic_ HOST_GUARDED_BY(mutex_) = true;
    bool removing_ = false; // the actor's
    IopActor actor_;
};

} // namespace host
