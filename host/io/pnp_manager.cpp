#include "io/pnp_manager.h"

#include "cm/configuration_manager.h"
#include "cm/text.h"
#include "io/device.h"
#include "io/device_interfaces.h"
#include "io/driver.h"
#include "io/io_manager.h"
#include "io/irp.h"
#include "io/names.h"
#include "verifier/pnp_rules.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace host {
namespace {

constexpr std::u16string_view kControlSet = u"\\Registry\\Machine\\System\\CurrentControlSet\\";

const char* const kStateNames[] = {"reported", "added",          "started",          "stop pending",
                                   "stopped",  "remove pending", "surprise removed", "removed"};

// The number of the node's driver key: what the registry remembers, or the next one free.
std::string DriverNumber(CmRegistry& registry, const PnpNode& node)
{
    const std::u16string enum_key = node.EnumKey();
    if (std::optional<std::string> known = registry.String(enum_key, u"Driver"))
        return known->substr(known->find('\\') + 1);
    std::array<char, 8> text{};
    const std::u16string class_key =
        std::u16string(kControlSet) + u"Control\\Class\\" + Wide(node.identity.class_guid);
    for (unsigned number = 0;; ++number) {
        std::snprintf(text.data(), text.size(), "%04u", number % 10000);
        if (!registry.Open(class_key + u'\\' + Wide(text.data())))
            break;
    }
    registry.SetString(enum_key, u"ClassGUID", Wide(node.identity.class_guid));
    registry.SetString(enum_key, u"Driver", Wide(node.identity.class_guid + '\\' + text.data()));
    return text.data();
}

} // namespace

const char* PnpStateName(PnpState state)
{
    return kStateNames[static_cast<std::size_t>(state)];
}

std::string PnpNode::Path() const
{
    return identity.device_id + '\\' + identity.instance_id;
}

std::u16string PnpNode::EnumKey() const
{
    return std::u16string(kControlSet) + u"Enum\\" + Wide(Path());
}

std::u16string PnpNode::HardwareKey() const
{
    return EnumKey() + u"\\Device Parameters";
}

std::u16string PnpNode::DriverKey() const
{
    return std::u16string(kControlSet) + u"Control\\Class\\" +
           Wide(identity.class_guid + '\\' + driver_number);
}

PnpManager::PnpManager(Kernel& kernel) : Component(kernel), actor_("PnP")
{
    // Whatever nodes refer to must outlive them.
    IoManager::Current();
    ConfigurationManager::Current();
    DeviceInterfaces::Current();
}

PnpManager::~PnpManager() = default;

void PnpManager::SetFunctionDriver(std::string name)
{
    const MutexLock lock(mutex_);
    driver_ = std::move(name);
}

void PnpManager::SetAutomatic(bool automatic)
{
    const MutexLock lock(mutex_);
    automatic_ = automatic;
}

void PnpManager::SetInstaller(std::function<void(PnpNode&)> installer)
{
    const MutexLock lock(mutex_);
    installer_ = std::move(installer);
}

NTSTATUS PnpManager::OnActor(const std::function<NTSTATUS()>& task)
{
    NTSTATUS status = STATUS_SUCCESS;
    actor_.Run([&] { status = task(); });
    return status;
}

void PnpManager::SetState(const PnpNodePtr& node, PnpState state)
{
    const MutexLock lock(mutex_);
    node->state = state;
}

void PnpManager::Arrive(PDEVICE_OBJECT pdo, PnpIdentity identity)
{
    auto node = std::make_shared<PnpNode>();
    node->pdo = pdo;
    node->identity = std::move(identity);
    pdo->DeviceObjectExtension->node = node.get();
    IopReferenceDevice(pdo);
    bool automatic = false;
    {
        const MutexLock lock(mutex_);
        nodes_.push_back(node);
        automatic = automatic_;
    }
    actor_.Post([this, node, automatic] {
        Enumerate(node);
        if (automatic)
            AddAndStart(node);
    });
}

void PnpManager::Depart(PDEVICE_OBJECT pdo)
{
    PnpNodePtr node = NodeOf(pdo);
    if (!node)
        return;
    actor_.Post([this, node] { DoDepart(node); });
}

// What the manager does before there is a stack.
void PnpManager::Enumerate(const PnpNodePtr& node)
{
    CmRegistry& registry = ConfigurationManager::Current().Registry();
    node->driver_number = DriverNumber(registry, *node);
    registry.Create(node->HardwareKey());
    registry.Create(node->DriverKey());
    DEVICE_CAPABILITIES capabilities{};
    if (NT_SUCCESS(AskCapabilities(node->pdo, &capabilities)))
        node->capabilities = capabilities;
    std::function<void(PnpNode&)> installer;
    {
        const MutexLock lock(mutex_);
        installer = installer_;
    }
    if (installer)
        installer(*node);
}

NTSTATUS PnpManager::AddAndStart(const PnpNodePtr& node)
{
    NTSTATUS status = DoAddDevice(node);
    if (!NT_SUCCESS(status))
        return status;
    status = DoStart(node);
    if (!NT_SUCCESS(status))
        DoRemove(node);
    return status;
}

NTSTATUS PnpManager::DoAddDevice(const PnpNodePtr& node)
{
    std::string driver_name;
    {
        const MutexLock lock(mutex_);
        driver_name = driver_;
    }
    PDRIVER_OBJECT driver = IoDriverByName(driver_name);
    if (driver == nullptr || driver->DriverExtension->AddDevice == nullptr)
        return STATUS_NO_SUCH_DEVICE;
    PDRIVER_ADD_DEVICE routine = driver->DriverExtension->AddDevice;
    EventLog& log = Kernel::Current().Log();
    log.Begin("pnp", "AddDevice", driver_name);
    const CallbackState before = VfEnterCallback();
    NTSTATUS status = STATUS_SUCCESS;
    {
        const DriverScope scope(driver);
        status = routine(driver, node->pdo);
    }
    VfLeaveCallback(before, "AddDevice", reinterpret_cast<const void*>(routine));
    log.End("pnp", "AddDevice", IopStatusText(status));
    if (NT_SUCCESS(status)) {
        VfDeviceAdded(node->pdo);
        SetState(node, PnpState::Added);
    }
    return status;
}

NTSTATUS PnpManager::SendTo(PDEVICE_OBJECT device, UCHAR minor,
                            const std::function<void(PIRP, PIO_STACK_LOCATION)>& prepare,
                            ULONG_PTR* information)
{
    EventLog& log = Kernel::Current().Log();
    const char* name = IopMinorName(IRP_MJ_PNP, minor);
    log.Begin("pnp", name);
    const IO_STATUS_BLOCK result = IopSendAndWait(device, IRP_MJ_PNP, minor, STATUS_NOT_SUPPORTED, prepare);
    log.End("pnp", name, IopStatusText(result.Status));
    if (information != nullptr)
        *information = result.Information;
    return result.Status;
}

NTSTATUS PnpManager::AskCapabilities(PDEVICE_OBJECT device, DEVICE_CAPABILITIES* capabilities)
{
    *capabilities = {};
    capabilities->Size = sizeof(DEVICE_CAPABILITIES);
    capabilities->Version = 1;
    capabilities->Address = MAXULONG;
    capabilities->UINumber = MAXULONG;
    return SendTo(device, IRP_MN_QUERY_CAPABILITIES, [=](PIRP, PIO_STACK_LOCATION location) {
        location->Parameters.DeviceCapabilities.Capabilities = capabilities;
    });
}

void PnpManager::AskState(const PnpNodePtr& node)
{
    SendTo(IopTopOf(node->pdo), IRP_MN_QUERY_PNP_DEVICE_STATE);
}

void PnpManager::AskRelations(const PnpNodePtr& node)
{
    ULONG_PTR relations = 0;
    const NTSTATUS status = SendTo(
        IopTopOf(node->pdo), IRP_MN_QUERY_DEVICE_RELATIONS,
        [](PIRP, PIO_STACK_LOCATION location) {
            location->Parameters.QueryDeviceRelations.Type = BusRelations;
        },
        &relations);
    if (NT_SUCCESS(status) && relations != 0)
        ExFreePool(reinterpret_cast<PVOID>(relations));
}

NTSTATUS PnpManager::DoStart(const PnpNodePtr& node)
{
    if (node->state == PnpState::Added)
        SendTo(IopTopOf(node->pdo), IRP_MN_FILTER_RESOURCE_REQUIREMENTS);
    const NTSTATUS status = SendTo(IopTopOf(node->pdo), IRP_MN_START_DEVICE);
    if (!NT_SUCCESS(status)) {
        if (node->state != PnpState::Added) { // a restart
            DoSurpriseRemove(node);
            TakeAway(node);
        }
        return status;
    }
    SetState(node, PnpState::Started);
    DEVICE_CAPABILITIES capabilities{};
    if (NT_SUCCESS(AskCapabilities(IopTopOf(node->pdo), &capabilities)))
        node->capabilities = capabilities;
    AskState(node);
    AskRelations(node);
    return status;
}

NTSTATUS PnpManager::Step(const PnpNodePtr& node, UCHAR minor, PnpState next)
{
    const NTSTATUS status = SendTo(IopTopOf(node->pdo), minor);
    if (NT_SUCCESS(status))
        SetState(node, next);
    return status;
}

NTSTATUS PnpManager::DoRemove(const PnpNodePtr& node)
{
    const StackBefore before = VfStackOf(node->pdo);
    removing_ = true;
    const NTSTATUS status = SendTo(IopTopOf(node->pdo), IRP_MN_REMOVE_DEVICE);
    removing_ = false;
    VfDeviceRemoved(node->pdo, before, status);
    (void)DeviceInterfaces::Current().DisableAll(node->pdo);
    // The bus may have lost the device, and let go of it here, before its departure comes to our turn.
    if (node->pdo->DeviceObjectExtension->delete_pending)
        node->departed = true;
    SetState(node, node->departed ? PnpState::Removed : PnpState::Reported);
    if (node->departed)
        Forget(node);
    return status;
}

NTSTATUS PnpManager::DoSurpriseRemove(const PnpNodePtr& node)
{
    const StackBefore before = VfStackOf(node->pdo);
    const NTSTATUS status = SendTo(IopTopOf(node->pdo), IRP_MN_SURPRISE_REMOVAL);
    VfDeviceSurpriseRemoved(node->pdo, before);
    if (!NT_SUCCESS(status))
        VfReport(Rule::PnpMayNotFail, "IRP_MN_SURPRISE_REMOVAL",
                 "it came back with " + IopStatusText(status));
    if (DeviceInterfaces::Current().DisableAll(node->pdo))
        VfReport(Rule::PnpInterfaceLeft, "IRP_MN_SURPRISE_REMOVAL", node->Path());
    SetState(node, PnpState::SurpriseRemoved);
    return status;
}

// Removes a surprise-removed device as soon as no handle is open any more.
void PnpManager::TakeAway(const PnpNodePtr& node)
{
    bool ready = false;
    {
        const MutexLock lock(mutex_);
        ready = node->state == PnpState::SurpriseRemoved && node->opens == 0;
    }
    if (ready)
        DoRemove(node);
}

void PnpManager::DoDepart(const PnpNodePtr& node)
{
    node->departed = true;
    switch (node->state) {
    case PnpState::Started:
    case PnpState::StopPending:
    case PnpState::Stopped:
    case PnpState::RemovePending:
        DoSurpriseRemove(node);
        TakeAway(node);
        break;
    case PnpState::Reported:
    case PnpState::Added: DoRemove(node); break;
    case PnpState::SurpriseRemoved: TakeAway(node); break;
    case PnpState::Removed: break;
    }
}

void PnpManager::Forget(const PnpNodePtr& node)
{
    {
        const MutexLock lock(mutex_);
        std::erase(nodes_, node);
    }
    node->pdo->DeviceObjectExtension->node = nullptr;
    IopDereferenceDevice(node->pdo);
}

NTSTATUS PnpManager::AddDevice(const PnpNodePtr& node)
{
    return OnActor([&] { return DoAddDevice(node); });
}

NTSTATUS PnpManager::Start(const PnpNodePtr& node)
{
    return OnActor([&] { return DoStart(node); });
}

NTSTATUS PnpManager::QueryStop(const PnpNodePtr& node)
{
    return OnActor([&] { return Step(node, IRP_MN_QUERY_STOP_DEVICE, PnpState::StopPending); });
}

NTSTATUS PnpManager::CancelStop(const PnpNodePtr& node)
{
    return OnActor([&] { return Step(node, IRP_MN_CANCEL_STOP_DEVICE, PnpState::Started); });
}

NTSTATUS PnpManager::Stop(const PnpNodePtr& node)
{
    return OnActor([&] { return Step(node, IRP_MN_STOP_DEVICE, PnpState::Stopped); });
}

NTSTATUS PnpManager::QueryRemove(const PnpNodePtr& node)
{
    return OnActor([&] { return Step(node, IRP_MN_QUERY_REMOVE_DEVICE, PnpState::RemovePending); });
}

NTSTATUS PnpManager::CancelRemove(const PnpNodePtr& node)
{
    return OnActor([&] { return Step(node, IRP_MN_CANCEL_REMOVE_DEVICE, PnpState::Started); });
}

NTSTATUS PnpManager::Remove(const PnpNodePtr& node)
{
    return OnActor([&] { return DoRemove(node); });
}

NTSTATUS PnpManager::SurpriseRemove(const PnpNodePtr& node)
{
    return OnActor([&] { return DoSurpriseRemove(node); });
}

NTSTATUS PnpManager::QueryCapabilities(const PnpNodePtr& node, DEVICE_CAPABILITIES* capabilities)
{
    return OnActor([&] { return AskCapabilities(IopTopOf(node->pdo), capabilities); });
}

NTSTATUS PnpManager::Send(const PnpNodePtr& node, UCHAR minor)
{
    return OnActor([&] { return SendTo(IopTopOf(node->pdo), minor); });
}

NTSTATUS PnpManager::Rebalance(const PnpNodePtr& node)
{
    return OnActor([&] {
        NTSTATUS status = Step(node, IRP_MN_QUERY_STOP_DEVICE, PnpState::StopPending);
        if (!NT_SUCCESS(status)) {
            Step(node, IRP_MN_CANCEL_STOP_DEVICE, PnpState::Started);
            return status;
        }
        Step(node, IRP_MN_STOP_DEVICE, PnpState::Stopped);
        return DoStart(node);
    });
}

NTSTATUS PnpManager::Disable(const PnpNodePtr& node)
{
    return OnActor([&] {
        NTSTATUS status = Step(node, IRP_MN_QUERY_REMOVE_DEVICE, PnpState::RemovePending);
        if (NT_SUCCESS(status) && node->opens != 0)
            status = STATUS_DEVICE_BUSY;
        if (!NT_SUCCESS(status)) {
            Step(node, IRP_MN_CANCEL_REMOVE_DEVICE, PnpState::Started);
            return status;
        }
        return DoRemove(node);
    });
}

NTSTATUS PnpManager::Enable(const PnpNodePtr& node)
{
    return OnActor([&] { return AddAndStart(node); });
}

void PnpManager::Settle()
{
    // Seen from the actor itself, with nothing behind it in the queue, all that came before is done.
    bool settled = false;
    while (!settled)
        actor_.Run([&] { settled = actor_.NothingWaits(); });
}

std::vector<PnpNodePtr> PnpManager::Nodes()
{
    const MutexLock lock(mutex_);
    return nodes_;
}

std::vector<PnpNodePtr> PnpManager::Stacks()
{
    const MutexLock lock(mutex_);
    std::vector<PnpNodePtr> stacks = nodes_;
    std::erase_if(stacks, [](const PnpNodePtr& node) { return node->state == PnpState::Reported; });
    return stacks;
}

PnpNodePtr PnpManager::NodeOf(PDEVICE_OBJECT device)
{
    PnpNode* node = IopBottomOf(device)->DeviceObjectExtension->node;
    return node == nullptr ? nullptr : node->shared_from_this();
}

void PnpManager::Opened(const PnpNodePtr& node)
{
    const MutexLock lock(mutex_);
    ++node->opens;
}

void PnpManager::Closed(const PnpNodePtr& node)
{
    bool last = false;
    {
        const MutexLock lock(mutex_);
        last = --node->opens == 0 && node->state == PnpState::SurpriseRemoved;
    }
    if (last)
        actor_.Post([this, node] { TakeAway(node); });
}

void PnpManager::Shutdown()
{
    for (const PnpNodePtr& node : Nodes())
        Depart(node->pdo);
    Settle();
    actor_.Stop();
}

} // namespace host
