#include "wmi/wmi_manager.h"

#include "cm/text.h"
#include "io/device.h"
#include "io/io_manager.h"
#include "io/irp.h"
#include "io/names.h"
#include "io/pnp_manager.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <wmistr.h>

namespace host {
namespace {

constexpr ULONG kRegistrationGuess = 512;
constexpr std::size_t kInstanceAlignment = 8;

template <class T>
std::optional<T> ReadAt(std::span<const std::byte> bytes, std::size_t offset)
{
    T value{};
    if (offset > bytes.size() || bytes.size() - offset < sizeof value)
        return std::nullopt;
    std::memcpy(&value, bytes.data() + offset, sizeof value);
    return value;
}

void BadAnswer(const char* what)
{
    VfReport(Rule::WmiBadAnswer, what, std::string("the answer to ") + what + " is malformed");
}

std::string BaseNameOf(PDEVICE_OBJECT pdo)
{
    const PnpNodePtr node = PnpManager::Current().NodeOf(pdo);
    return node ? node->Path() : std::string();
}

// The blocks in the answer to IRP_MN_REGINFO. The references to physical device objects in it are ours to
// drop.
std::vector<WmiBlock> ParseRegistration(PDEVICE_OBJECT device, std::span<const std::byte> answer)
{
    std::vector<WmiBlock> blocks;
    const auto count = ReadAt<ULONG>(answer, offsetof(WMIREGINFOW, GuidCount));
    for (ULONG i = 0; count && i < *count; ++i) {
        const auto entry =
            ReadAt<WMIREGGUIDW>(answer, offsetof(WMIREGINFOW, WmiRegGuid) + i * sizeof(WMIREGGUIDW));
        if (!entry) {
            BadAnswer("IRP_MN_REGINFO");
            break;
        }
        WmiBlock block{entry->Guid, entry->InstanceCount, {}, device};
        if ((entry->Flags & WMIREG_FLAG_INSTANCE_PDO) != 0) {
            auto* pdo = reinterpret_cast<PDEVICE_OBJECT>(entry->Pdo);
            block.base_name = BaseNameOf(pdo);
            IopDereferenceDevice(pdo);
        }
        blocks.push_back(std::move(block));
    }
    return blocks;
}

void PrepareHeader(std::span<std::byte> buffer, const GUID& guid, ULONG flags)
{
    WNODE_HEADER header{};
    header.BufferSize = static_cast<ULONG>(buffer.size());
    header.Guid = guid;
    header.Flags = flags;
    std::memcpy(buffer.data(), &header, std::min(sizeof header, buffer.size()));
}

// True when the answer is "too small"; takes the size out of it.
bool IsTooSmall(std::span<const std::byte> answer, WmiAnswer& result)
{
    const auto header = ReadAt<WNODE_HEADER>(answer, 0);
    if (!header || (header->Flags & WNODE_FLAG_TOO_SMALL) == 0)
        return false;
    result.too_small = true;
    result.needed = ReadAt<ULONG>(answer, offsetof(WNODE_TOO_SMALL, SizeNeeded)).value_or(0);
    return true;
}

void TakeInstance(std::span<const std::byte> answer, ULONG offset, ULONG length, WmiAnswer& result)
{
    if (offset > answer.size() || length > answer.size() - offset) {
        BadAnswer("a WMI query");
        return;
    }
    const auto data = answer.subspan(offset, length);
    result.instances.emplace_back(data.begin(), data.end());
}

void ParseAllData(std::span<const std::byte> answer, WmiAnswer& result)
{
    const auto node = ReadAt<WNODE_ALL_DATA>(answer, 0);
    if (!node) {
        BadAnswer("IRP_MN_QUERY_ALL_DATA");
        return;
    }
    for (ULONG i = 0; i < node->InstanceCount; ++i) {
        if ((node->WnodeHeader.Flags & WNODE_FLAG_FIXED_INSTANCE_SIZE) != 0) {
            const auto step = static_cast<ULONG>(ALIGN_UP_BY(node->FixedInstanceSize, kInstanceAlignment));
            TakeInstance(answer, node->DataBlockOffset + i * step, node->FixedInstanceSize, result);
            continue;
        }
        const auto place = ReadAt<OFFSETINSTANCEDATAANDLENGTH>(
            answer,
            offsetof(WNODE_ALL_DATA, OffsetInstanceDataAndLength) + i * sizeof(OFFSETINSTANCEDATAANDLENGTH));
        if (place)
            TakeInstance(answer, place->OffsetInstanceData, place->LengthInstanceData, result);
    }
}

constexpr ULONG kDataOffset = ALIGN_UP_BY(sizeof(WNODE_SINGLE_INSTANCE), kInstanceAlignment);

std::vector<std::byte> SingleInstanceNode(const GUID& guid, ULONG instance, std::span<const std::byte> data)
{
    std::vector<std::byte> buffer(kDataOffset + data.size());
    WNODE_SINGLE_INSTANCE node{};
    node.WnodeHeader.BufferSize = static_cast<ULONG>(buffer.size());
    node.WnodeHeader.Guid = guid;
    node.WnodeHeader.Flags = WNODE_FLAG_SINGLE_INSTANCE | WNODE_FLAG_STATIC_INSTANCE_NAMES;
    node.InstanceIndex = instance;
    node.DataBlockOffset = kDataOffset;
    node.SizeDataBlock = static_cast<ULONG>(data.size());
    std::memcpy(buffer.data(), &node, sizeof node);
    if (!data.empty())
        std::memcpy(buffer.data() + kDataOffset, data.data(), data.size());
    return buffer;
}

} // namespace

WmiManager::WmiManager(Kernel& kernel) : Component(kernel), actor_("WMI")
{
    PnpManager::Current();
}

WmiManager::~WmiManager() = default;

WmiManager::ProviderPtr WmiManager::FindLocked(PDEVICE_OBJECT device)
{
    auto found = std::find_if(providers_.begin(), providers_.end(),
                              [=](const ProviderPtr& provider) { return provider->device == device; });
    return found == providers_.end() ? nullptr : *found;
}

NTSTATUS WmiManager::Register(PDEVICE_OBJECT device)
{
    {
        const MutexLock lock(mutex_);
        if (FindLocked(device))
            return STATUS_OBJECT_NAME_EXISTS;
        auto provider = std::make_shared<Provider>();
        provider->device = device;
        KeInitializeEvent(&provider->quiet, NotificationEvent, FALSE);
        providers_.push_back(std::move(provider));
        device->DeviceObjectExtension->wmi_registered = true;
    }
    actor_.Post([=, this] { AskRegistration(device); });
    return STATUS_SUCCESS;
}

NTSTATUS WmiManager::Update(PDEVICE_OBJECT device)
{
    actor_.Post([=, this] { AskRegistration(device); });
    return STATUS_SUCCESS;
}

NTSTATUS WmiManager::Deregister(PDEVICE_OBJECT device)
{
    ProviderPtr provider;
    bool wait = false;
    {
        const MutexLock lock(mutex_);
        provider = FindLocked(device);
        if (!provider)
            return STATUS_INVALID_PARAMETER;
        std::erase(providers_, provider);
        provider->leaving = true;
        wait = provider->requests != 0;
        device->DeviceObjectExtension->wmi_registered = false;
    }
    if (wait)
        KeWaitForSingleObject(&provider->quiet, Executive, KernelMode, FALSE, nullptr);
    return STATUS_SUCCESS;
}

// The providers of a block, of a device, or of a device's block, `most` of them, held until Leave.
std::vector<WmiManager::ProviderPtr> WmiManager::EnterAll(const GUID* guid, PDEVICE_OBJECT device,
                                                          std::size_t most)
{
    std::vector<ProviderPtr> entered;
    const MutexLock lock(mutex_);
    for (const ProviderPtr& provider : providers_) {
        if (entered.size() == most)
            break;
        const bool has =
            guid == nullptr || std::any_of(provider->blocks.begin(), provider->blocks.end(),
                                           [=](const WmiBlock& block) { return block.guid == *guid; });
        if (!has || (device != nullptr && provider->device != device))
            continue;
        ++provider->requests;
        entered.push_back(provider);
    }
    return entered;
}

// The first of them.
WmiManager::ProviderPtr WmiManager::Enter(const GUID* guid, PDEVICE_OBJECT device)
{
    const std::vector<ProviderPtr> entered = EnterAll(guid, device, 1);
    return entered.empty() ? nullptr : entered.front();
}

void WmiManager::Leave(const ProviderPtr& provider)
{
    bool signal = false;
    {
        const MutexLock lock(mutex_);
        signal = --provider->requests == 0 && provider->leaving;
    }
    if (signal)
        KeSetEvent(&provider->quiet, EVENT_INCREMENT, FALSE);
}

NTSTATUS WmiManager::SendTo(const ProviderPtr& provider, UCHAR minor, PVOID data_path,
                            std::span<std::byte> buffer, ULONG_PTR* information)
{
    const IO_STATUS_BLOCK result =
        IopSendAndWait(IopTopOf(provider->device), IRP_MJ_SYSTEM_CONTROL, minor, STATUS_NOT_SUPPORTED,
                       [&](PIRP, PIO_STACK_LOCATION location) {
                           location->Parameters.WMI.ProviderId =
                               reinterpret_cast<ULONG_PTR>(provider->device);
                           location->Parameters.WMI.DataPath = data_path;
                           location->Parameters.WMI.BufferSize = static_cast<ULONG>(buffer.size());
                           location->Parameters.WMI.Buffer = buffer.data();
                       });
    if (information != nullptr)
        *information = result.Information;
    if (result.Status == STATUS_NOT_SUPPORTED)
        VfReport(Rule::WmiNotCompleted, IopMinorName(IRP_MJ_SYSTEM_CONTROL, minor),
                 IopDescribeDevice(provider->device) + " let it pass");
    if (result.Information > buffer.size())
        BadAnswer(IopMinorName(IRP_MJ_SYSTEM_CONTROL, minor));
    return result.Status;
}

// On the WMI thread: what has the device?
void WmiManager::AskRegistration(PDEVICE_OBJECT device)
{
    const ProviderPtr provider = Enter(nullptr, device);
    if (!provider)
        return; // it has deregistered meanwhile
    std::vector<std::byte> buffer(kRegistrationGuess);
    ULONG_PTR information = 0;
    NTSTATUS status = SendTo(provider, IRP_MN_REGINFO, nullptr, buffer, &information);
    if (status == STATUS_BUFFER_TOO_SMALL && information == sizeof(ULONG)) {
        buffer.assign(ReadAt<ULONG>(buffer, 0).value_or(0), std::byte{0});
        status = SendTo(provider, IRP_MN_REGINFO, nullptr, buffer, &information);
    }
    if (NT_SUCCESS(status)) {
        std::vector<WmiBlock> blocks = ParseRegistration(
            device, std::span(buffer).first(std::min<std::size_t>(information, buffer.size())));
        const MutexLock lock(mutex_);
        provider->blocks = std::move(blocks);
    }
    Leave(provider);
}

std::vector<WmiBlock> WmiManager::Blocks()
{
    actor_.Run([] {});
    std::vector<WmiBlock> blocks;
    const MutexLock lock(mutex_);
    for (const ProviderPtr& provider : providers_)
        blocks.insert(blocks.end(), provider->blocks.begin(), provider->blocks.end());
    return blocks;
}

std::vector<WmiAnswer> WmiManager::QueryAllData(const GUID& guid, ULONG buffer_size)
{
    actor_.Run([] {});
    std::vector<WmiAnswer> answers;
    for (const ProviderPtr& provider : EnterAll(&guid, nullptr)) {
        answers.push_back(AskAllData(provider, guid, buffer_size));
        Leave(provider);
    }
    return answers;
}

WmiAnswer WmiManager::AskAllData(const ProviderPtr& provider, const GUID& guid, ULONG buffer_size)
{
    WmiAnswer result{.device = provider->device};
    std::vector<std::byte> buffer(std::max<std::size_t>(buffer_size, sizeof(WNODE_TOO_SMALL)));
    GUID wanted = guid;
    PrepareHeader(buffer, guid, WNODE_FLAG_ALL_DATA);
    ULONG_PTR information = 0;
    result.status = SendTo(provider, IRP_MN_QUERY_ALL_DATA, &wanted, buffer, &information);
    const auto answer =
        std::span<const std::byte>(buffer).first(std::min<std::size_t>(information, buffer.size()));
    if (NT_SUCCESS(result.status) && !IsTooSmall(answer, result))
        ParseAllData(answer, result);
    return result;
}

WmiAnswer WmiManager::QuerySingleInstance(const GUID& guid, ULONG instance, ULONG buffer_size,
                                          PDEVICE_OBJECT device)
{
    actor_.Run([] {});
    WmiAnswer result;
    const ProviderPtr provider = Enter(&guid, device);
    if (!provider) {
        result.status = STATUS_WMI_GUID_NOT_FOUND;
        return result;
    }
    result.device = provider->device;
    std::vector<std::byte> buffer = SingleInstanceNode(guid, instance, {});
    buffer.resize(std::max<std::size_t>(buffer_size, buffer.size()));
    GUID wanted = guid;
    ULONG_PTR information = 0;
    result.status = SendTo(provider, IRP_MN_QUERY_SINGLE_INSTANCE, &wanted, buffer, &information);
    Leave(provider);
    const auto answer =
        std::span<const std::byte>(buffer).first(std::min<std::size_t>(information, buffer.size()));
    if (!NT_SUCCESS(result.status) || IsTooSmall(answer, result))
        return result;
    const auto offset = ReadAt<ULONG>(answer, offsetof(WNODE_SINGLE_INSTANCE, DataBlockOffset));
    const auto length = ReadAt<ULONG>(answer, offsetof(WNODE_SINGLE_INSTANCE, SizeDataBlock));
    if (offset && length)
        TakeInstance(answer, *offset, *length, result);
    else
        BadAnswer("IRP_MN_QUERY_SINGLE_INSTANCE");
    return result;
}

NTSTATUS WmiManager::SetSingleInstance(const GUID& guid, ULONG instance, std::span<const std::byte> data,
                                       PDEVICE_OBJECT device)
{
    actor_.Run([] {});
    const ProviderPtr provider = Enter(&guid, device);
    if (!provider)
        return STATUS_WMI_GUID_NOT_FOUND;
    std::vector<std::byte> buffer = SingleInstanceNode(guid, instance, data);
    GUID wanted = guid;
    const NTSTATUS status = SendTo(provider, IRP_MN_CHANGE_SINGLE_INSTANCE, &wanted, buffer, nullptr);
    Leave(provider);
    return status;
}

NTSTATUS WmiManager::SetSingleItem(const GUID& guid, ULONG instance, ULONG item,
                                   std::span<const std::byte> data, PDEVICE_OBJECT device)
{
    actor_.Run([] {});
    const ProviderPtr provider = Enter(&guid, device);
    if (!provider)
        return STATUS_WMI_GUID_NOT_FOUND;
    constexpr auto kOffset = static_cast<ULONG>(ALIGN_UP_BY(sizeof(WNODE_SINGLE_ITEM), kInstanceAlignment));
    std::vector<std::byte> buffer(kOffset + data.size());
    WNODE_SINGLE_ITEM node{};
    node.WnodeHeader.BufferSize = static_cast<ULONG>(buffer.size());
    node.WnodeHeader.Guid = guid;
    node.WnodeHeader.Flags = WNODE_FLAG_SINGLE_ITEM | WNODE_FLAG_STATIC_INSTANCE_NAMES;
    node.InstanceIndex = instance;
    node.ItemId = item;
    node.DataBlockOffset = kOffset;
    node.SizeDataItem = static_cast<ULONG>(data.size());
    std::memcpy(buffer.data(), &node, sizeof node);
    if (!data.empty())
        std::memcpy(buffer.data() + kOffset, data.data(), data.size());
    GUID wanted = guid;
    const NTSTATUS status = SendTo(provider, IRP_MN_CHANGE_SINGLE_ITEM, &wanted, buffer, nullptr);
    Leave(provider);
    return status;
}

NTSTATUS WmiManager::Send(PDEVICE_OBJECT device, UCHAR minor, const GUID& guid)
{
    actor_.Run([] {});
    const ProviderPtr provider = Enter(nullptr, device);
    if (!provider)
        return STATUS_WMI_GUID_NOT_FOUND;
    std::vector<std::byte> buffer = SingleInstanceNode(guid, 0, {});
    GUID wanted = guid;
    const NTSTATUS status = SendTo(provider, minor, &wanted, buffer, nullptr);
    Leave(provider);
    return status;
}

void WmiManager::Shutdown()
{
    actor_.Stop();
}

} // namespace host

using namespace host;

extern "C" NTSTATUS NTAPI IoWMIRegistrationControl(PDEVICE_OBJECT DeviceObject, ULONG Action)
{
    VfRequireIrqlAtMost(PASSIVE_LEVEL, Rule::IrqlPassive, "IoWMIRegistrationControl",
                        __builtin_return_address(0));
    if (Action == WMIREG_ACTION_REGISTER)
        if (auto fault = Kernel::Current().Faults().Hit(FaultPoint::WmiRegister))
            return fault->status != 0 ? fault->status : STATUS_INSUFFICIENT_RESOURCES;
    WmiManager& wmi = WmiManager::Current();
    EventLog& log = Kernel::Current().Log();
    switch (Action) {
    case WMIREG_ACTION_REGISTER: log.Instant("wmi", "register"); return wmi.Register(DeviceObject);
    case WMIREG_ACTION_DEREGISTER: log.Instant("wmi", "deregister"); return wmi.Deregister(DeviceObject);
    case WMIREG_ACTION_REREGISTER:
    case WMIREG_ACTION_UPDATE_GUIDS: return wmi.Update(DeviceObject);
    default: return STATUS_INVALID_PARAMETER;
    }
}
