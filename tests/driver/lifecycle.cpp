#include "lifecycle.h"

#include "io/device.h"
#include "io/irp.h"
#include "navox_trace.h"
#include "po/power_manager.h"
#include "usbd/usb_port.h"

#include <algorithm>
#include <cstdio>
#include <string_view>

namespace navox_test {
namespace {

std::string BusLine(std::uint64_t number, const char* name)
{
    for (const host::UsbRequest& request : host::UsbBus::Current().Log())
        if (request.number == number)
            return DescribeRequest(request);
    return name;
}

// The line of an event that is not a bus request; empty for what no story tells.
std::string LineOf(const host::Event& event)
{
    const std::string_view category = event.category;
    const std::string_view name = event.name;
    if (category == "below")
        return "down " + event.detail;
    if (category == "wmi")
        return "wmi " + std::string(name);
    if (category == "registry")
        return name == "value set" ? event.detail : event.detail + " deleted";
    if (category == "pnp" && name.starts_with("interface "))
        return std::string(name);
    if (name == "PoSetPowerState" && event.detail.ends_with(" by navox"))
        return "reports " + event.detail.substr(0, 2);
    if (name == "idle request" || (name == "idle callback" && event.kind == host::EventKind::Begin))
        return std::string(name);
    if (name == "idle request ends" || name == "wait-wake ends")
        return std::string(name) + " " + event.detail;
    return {};
}

host::PnpState ManagersView(ULONG state)
{
    switch (state) {
    case STATE_NEVER_STARTED: return host::PnpState::Added;
    case STATE_STOP_PENDING: return host::PnpState::StopPending;
    case STATE_STOPPED: return host::PnpState::Stopped;
    case STATE_REMOVE_PENDING: return host::PnpState::RemovePending;
    case STATE_SURPRISE_REMOVED: return host::PnpState::SurpriseRemoved;
    default: return host::PnpState::Started;
    }
}

} // namespace

RigOptions Machine::WithFilter(RigOptions options)
{
    options.on_arrival = [this](host::PnpNode& node) { filter.AttachTo(node); };
    return options;
}

Lines Story::Take()
{
    Lines lines;
    const std::vector<host::Event> events = rig_.kernel.Log().Events();
    for (; seen_ < events.size(); ++seen_) {
        const host::Event& event = events[seen_];
        const bool bus =
            event.kind == host::EventKind::AsyncBegin && std::string_view(event.category) == "usb";
        std::string line = bus ? BusLine(++requests_, event.name) : LineOf(event);
        if (!line.empty())
            lines.push_back(std::move(line));
    }
    return lines;
}

DEVICE_EXTENSION& Inside(Rig& rig)
{
    return *GetExtension(host::IopTopOf(rig.Node()->pdo));
}

ULONG PendingIn(Rig& rig)
{
    DEVICE_EXTENSION& extension = Inside(rig);
    const SpinLockGuard lock(&extension.StateLock);
    return extension.OutstandingIO - 1;
}

std::string StateText(ULONG state)
{
    return state == STATE_POWER_QUERIED ? "STATE_POWER_QUERIED"
                                        : PnpStateName(state); // which has no name for it
}

NTSTATUS SendPnp(Rig& rig, UCHAR minor)
{
    host::PnpManager& pnp = host::PnpManager::Current();
    const host::PnpNodePtr node = rig.Node();
    if (minor == IRP_MN_REMOVE_DEVICE)
        return pnp.Remove(node);
    DEVICE_CAPABILITIES capabilities{};
    const NTSTATUS status = minor == IRP_MN_QUERY_CAPABILITIES ? pnp.QueryCapabilities(node, &capabilities)
                                                               : pnp.Send(node, minor);
    node->state = ManagersView(StateOf(rig));
    return status;
}

std::unique_ptr<Machine> MachineIn(ULONG state, RigOptions options)
{
    const bool start = state != STATE_NEVER_STARTED;
    options.plug = false;
    auto machine = std::make_unique<Machine>(std::move(options));
    Rig& rig = machine->rig;
    host::PnpManager::Current().SetAutomatic(start);
    rig.Plug();
    if (!start)
        EXPECT_EQ(host::PnpManager::Current().AddDevice(rig.Node()), STATUS_SUCCESS);
    const std::map<ULONG, std::vector<UCHAR>> ways = {
        {STATE_STOP_PENDING, {IRP_MN_QUERY_STOP_DEVICE}},
        {STATE_STOPPED, {IRP_MN_QUERY_STOP_DEVICE, IRP_MN_STOP_DEVICE}},
        {STATE_REMOVE_PENDING, {IRP_MN_QUERY_REMOVE_DEVICE}},
        {STATE_SURPRISE_REMOVED, {IRP_MN_SURPRISE_REMOVAL}},
    };
    if (const auto way = ways.find(state); way != ways.end())
        for (const UCHAR minor : way->second)
            EXPECT_EQ(SendPnp(rig, minor), STATUS_SUCCESS);
    if (state == STATE_POWER_QUERIED)
        EXPECT_EQ(SendDevicePower(rig, IRP_MN_QUERY_POWER, PowerDeviceD2), STATUS_SUCCESS);
    EXPECT_EQ(StateText(StateOf(rig)), StateText(state));
    return machine;
}

void ArmRemoteWake(Rig& rig)
{
    rig.usb_port->WithDevice([](module::Device& device) {
        device.Control({.bRequest = USB_REQUEST_SET_FEATURE, .wValue = USB_FEATURE_REMOTE_WAKEUP}, {});
    });
}

class PowerRequest::Waiter : public host::IopRequest {
  public:
    Waiter() { KeInitializeEvent(&done, NotificationEvent, FALSE); }
    bool Completed(PIRP irp) override
    {
        status = irp->IoStatus.Status;
        information = irp->IoStatus.Information;
        KeSetEvent(&done, EVENT_INCREMENT, FALSE);
        return true;
    }

    KEVENT done;
    NTSTATUS status = STATUS_PENDING;
    ULONG_PTR information = 0;
};

PowerRequest::PowerRequest(Rig& rig, UCHAR minor, POWER_STATE_TYPE type, ULONG state)
    : waiter_(std::make_shared<Waiter>())
{
    const PDEVICE_OBJECT top = host::IopTopOf(rig.Node()->pdo);
    const PIRP irp = host::IopAllocateIrp(top->StackSize, host::IrpOrigin::System, waiter_, nullptr);
    irp->IoStatus.Status = STATUS_NOT_SUPPORTED;
    irp->IoStatus.Information = 1; // what the driver fails has none
    const PIO_STACK_LOCATION location = IoGetNextIrpStackLocation(irp);
    location->MajorFunction = IRP_MJ_POWER;
    location->MinorFunction = minor;
    location->Parameters.Power.Type = type;
    location->Parameters.Power.State.SystemState = static_cast<SYSTEM_POWER_STATE>(state);
    if (minor == IRP_MN_WAIT_WAKE)
        location->Parameters.WaitWake.PowerState = static_cast<SYSTEM_POWER_STATE>(state);
    host::PowerManager::Current().Call(top, irp, nullptr);
}

bool PowerRequest::Done() const
{
    return KeReadStateEvent(&waiter_->done) != 0;
}

NTSTATUS PowerRequest::Wait() const
{
    LARGE_INTEGER limit;
    limit.QuadPart = -10 * kSecond;
    if (KeWaitForSingleObject(&waiter_->done, Executive, KernelMode, FALSE, &limit) == STATUS_TIMEOUT)
        return STATUS_PENDING;
    return waiter_->status;
}

ULONG_PTR PowerRequest::Information() const
{
    return waiter_->information;
}

void ExpectEveryPowerRequestFails(Rig& rig, const std::vector<POWER_STATE_TYPE>& types)
{
    Story story(rig);
    for (const POWER_STATE_TYPE type : types) {
        for (const UCHAR minor :
             {IRP_MN_WAIT_WAKE, IRP_MN_POWER_SEQUENCE, IRP_MN_SET_POWER, IRP_MN_QUERY_POWER, 4, 0xFF}) {
            SCOPED_TRACE("minor " + std::to_string(minor) + ", type " + std::to_string(type));
            const PowerRequest request(rig, minor, type, 3);
            EXPECT_EQ(request.Wait(), STATUS_INVALID_DEVICE_STATE);
            EXPECT_EQ(request.Information(), 0U);
        }
    }
    EXPECT_EQ(story.Take(), Lines{});
}

} // namespace navox_test
