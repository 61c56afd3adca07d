// WMILIB: between system-control requests and a driver's data-block routines.
#include "io/device.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <wmilib.h>

namespace host {
namespace {

constexpr ULONG kAlignment = 8;

ULONG AlignUp(std::size_t size)
{
    return static_cast<ULONG>(ALIGN_UP_BY(size, kAlignment));
}

std::optional<ULONG> IndexOf(const WMILIB_CONTEXT& context, const GUID& guid)
{
    for (ULONG i = 0; i < context.GuidCount; ++i) {
        if (IsEqualGUID(*context.GuidList[i].Guid, guid))
            return i;
    }
    return std::nullopt;
}

// Where the data of an all-data answer begin, for so many instances.
ULONG AllDataOffset(ULONG instances)
{
    return AlignUp(offsetof(WNODE_ALL_DATA, OffsetInstanceDataAndLength) +
                   instances * sizeof(OFFSETINSTANCEDATAANDLENGTH));
}

// A request that its driver's routines need not be asked about.
struct Refusal {
    NTSTATUS status;
    ULONG_PTR information = 0;
};

NTSTATUS NotCompleted(PIRP irp, Refusal refusal, PSYSCTL_IRP_DISPOSITION disposition)
{
    irp->IoStatus.Status = refusal.status;
    irp->IoStatus.Information = refusal.information;
    *disposition = IrpNotCompleted;
    return refusal.status;
}

void PutString(UCHAR* buffer, ULONG* offset, const UNICODE_STRING& text)
{
    std::memcpy(buffer + *offset, &text.Length, sizeof text.Length);
    if (text.Length != 0)
        std::memcpy(buffer + *offset + sizeof text.Length, text.Buffer, text.Length);
    *offset += static_cast<ULONG>(sizeof text.Length) + text.Length;
}

struct Registration {
    ULONG flags = 0;
    UNICODE_STRING instance_name{};
    UNICODE_STRING mof{};
    PUNICODE_STRING registry_path = nullptr;
    PDEVICE_OBJECT pdo = nullptr;
};

ULONG SizeOfRegistration(const WMILIB_CONTEXT& context, const Registration& info)
{
    std::size_t size = offsetof(WMIREGINFOW, WmiRegGuid) + context.GuidCount * sizeof(WMIREGGUIDW);
    size += sizeof(USHORT) + info.mof.Length;
    size += sizeof(USHORT) + (info.registry_path == nullptr ? 0U : info.registry_path->Length);
    if ((info.flags & WMIREG_FLAG_INSTANCE_BASENAME) != 0)
        size += sizeof(USHORT) + info.instance_name.Length;
    return AlignUp(size);
}

void FillRegistration(const WMILIB_CONTEXT& context, const Registration& info, UCHAR* buffer, ULONG size)
{
    std::memset(buffer, 0, size);
    auto* header = reinterpret_cast<PWMIREGINFOW>(buffer);
    header->BufferSize = size;
    header->GuidCount = context.GuidCount;
    auto offset =
        static_cast<ULONG>(offsetof(WMIREGINFOW, WmiRegGuid) + context.GuidCount * sizeof(WMIREGGUIDW));
    ULONG base_name = 0;
    if ((info.flags & WMIREG_FLAG_INSTANCE_BASENAME) != 0) {
        base_name = offset;
        PutString(buffer, &offset, info.instance_name);
    }
    header->MofResourceName = offset;
    PutString(buffer, &offset, info.mof);
    header->RegistryPath = offset;
    PutString(buffer, &offset, info.registry_path == nullptr ? UNICODE_STRING{} : *info.registry_path);
    for (ULONG i = 0; i < context.GuidCount; ++i) {
        WMIREGGUIDW& entry = header->WmiRegGuid[i];
        entry.Guid = *context.GuidList[i].Guid;
        entry.InstanceCount = context.GuidList[i].InstanceCount;
        entry.Flags = context.GuidList[i].Flags | info.flags;
        if ((info.flags & WMIREG_FLAG_INSTANCE_PDO) != 0) {
            IopReferenceDevice(info.pdo);
            entry.Pdo = reinterpret_cast<ULONG_PTR>(info.pdo);
        } else {
            entry.BaseNameOffset = base_name;
        }
    }
}

NTSTATUS RegisterInformation(const WMILIB_CONTEXT& context, PDEVICE_OBJECT device, PIRP irp,
                             PSYSCTL_IRP_DISPOSITION disposition)
{
    const auto& wmi = IoGetCurrentIrpStackLocation(irp)->Parameters.WMI;
    Registration info;
    const NTSTATUS status = context.QueryWmiRegInfo(device, &info.flags, &info.instance_name,
                                                    &info.registry_path, &info.mof, &info.pdo);
    if (!NT_SUCCESS(status))
        return NotCompleted(irp, {status}, disposition);
    if ((info.flags & WMIREG_FLAG_INSTANCE_PDO) != 0 && info.pdo == nullptr)
        return NotCompleted(irp, {STATUS_INVALID_DEVICE_REQUEST}, disposition);
    const ULONG size = SizeOfRegistration(context, info);
    ULONG_PTR used = size;
    NTSTATUS answer = STATUS_SUCCESS;
    if (size > wmi.BufferSize) {
        std::memcpy(wmi.Buffer, &size, sizeof size);
        used = sizeof size;
        answer = STATUS_BUFFER_TOO_SMALL;
    } else {
        FillRegistration(context, info, static_cast<UCHAR*>(wmi.Buffer), size);
    }
    // The string is the driver's allocation, and the library's to free.
    if ((info.flags & WMIREG_FLAG_INSTANCE_BASENAME) != 0 && info.instance_name.Buffer != nullptr)
        ExFreePool(info.instance_name.Buffer);
    irp->IoStatus.Status = answer;
    irp->IoStatus.Information = used;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    *disposition = IrpProcessed;
    return answer;
}

NTSTATUS QueryAll(const WMILIB_CONTEXT& context, PDEVICE_OBJECT device, PIRP irp, ULONG index)
{
    const auto& wmi = IoGetCurrentIrpStackLocation(irp)->Parameters.WMI;
    auto* node = static_cast<PWNODE_ALL_DATA>(wmi.Buffer);
    const ULONG instances = context.GuidList[index].InstanceCount;
    const ULONG offset = AllDataOffset(instances);
    if (wmi.BufferSize < offset)
        return context.QueryWmiDataBlock(device, irp, index, 0, instances, nullptr, 0, nullptr);
    node->InstanceCount = instances;
    node->DataBlockOffset = offset;
    node->OffsetInstanceNameOffsets = 0;
    node->WnodeHeader.Flags |= WNODE_FLAG_PDO_INSTANCE_NAMES;
    // The lengths are gathered where they will stay, and spread out at completion.
    auto* lengths = reinterpret_cast<PULONG>(node->OffsetInstanceDataAndLength);
    return context.QueryWmiDataBlock(device, irp, index, 0, instances, lengths, wmi.BufferSize - offset,
                                     static_cast<PUCHAR>(wmi.Buffer) + offset);
}

NTSTATUS QuerySingle(const WMILIB_CONTEXT& context, PDEVICE_OBJECT device, PIRP irp, ULONG index)
{
    const auto& wmi = IoGetCurrentIrpStackLocation(irp)->Parameters.WMI;
    auto* node = static_cast<PWNODE_SINGLE_INSTANCE>(wmi.Buffer);
    const ULONG room = wmi.BufferSize > node->DataBlockOffset ? wmi.BufferSize - node->DataBlockOffset : 0;
    PUCHAR data = room == 0 ? nullptr : static_cast<PUCHAR>(wmi.Buffer) + node->DataBlockOffset;
    return context.QueryWmiDataBlock(device, irp, index, node->InstanceIndex, 1, &node->SizeDataBlock, room,
                                     data);
}

ULONG InstanceIndexOf(const WMILIB_CONTEXT&, PIRP irp)
{
    return static_cast<PWNODE_SINGLE_INSTANCE>(IoGetCurrentIrpStackLocation(irp)->Parameters.WMI.Buffer)
        ->InstanceIndex;
}

// The requests that carry a GUID. Nothing: the driver's routine has it now, and `status` is its answer.
std::optional<Refusal> CallDataBlock(const WMILIB_CONTEXT& context, PDEVICE_OBJECT device, PIRP irp,
                                     ULONG index, NTSTATUS* status)
{
    const PIO_STACK_LOCATION location = IoGetCurrentIrpStackLocation(irp);
    auto* buffer = static_cast<PUCHAR>(location->Parameters.WMI.Buffer);
    const ULONG instances = context.GuidList[index].InstanceCount;
    const UCHAR minor = location->MinorFunction;
    const bool one_instance = minor == IRP_MN_QUERY_SINGLE_INSTANCE ||
                              minor == IRP_MN_CHANGE_SINGLE_INSTANCE || minor == IRP_MN_CHANGE_SINGLE_ITEM ||
                              minor == IRP_MN_EXECUTE_METHOD;
    if (one_instance && InstanceIndexOf(context, irp) >= instances)
        return Refusal{STATUS_WMI_INSTANCE_NOT_FOUND};
    switch (minor) {
    case IRP_MN_QUERY_ALL_DATA: *status = QueryAll(context, device, irp, index); return std::nullopt;
    case IRP_MN_QUERY_SINGLE_INSTANCE:
        *status = QuerySingle(context, device, irp, index);
        return std::nullopt;
    case IRP_MN_CHANGE_SINGLE_INSTANCE: {
        if (context.SetWmiDataBlock == nullptr)
            return Refusal{STATUS_WMI_READ_ONLY};
        const auto* node = reinterpret_cast<PWNODE_SINGLE_INSTANCE>(buffer);
        *status = context.SetWmiDataBlock(device, irp, index, node->InstanceIndex, node->SizeDataBlock,
                                          buffer + node->DataBlockOffset);
        return std::nullopt;
    }
    case IRP_MN_CHANGE_SINGLE_ITEM: {
        if (context.SetWmiDataItem == nullptr)
            return Refusal{STATUS_WMI_READ_ONLY};
        const auto* node = reinterpret_cast<PWNODE_SINGLE_ITEM>(buffer);
        *status = context.SetWmiDataItem(device, irp, index, node->InstanceIndex, node->ItemId,
                                         node->SizeDataItem, buffer + node->DataBlockOffset);
        return std::nullopt;
    }
    case IRP_MN_EXECUTE_METHOD: {
        if (context.ExecuteWmiMethod == nullptr)
            return Refusal{STATUS_INVALID_DEVICE_REQUEST};
        const auto* node = reinterpret_cast<PWNODE_METHOD_ITEM>(buffer);
        *status = context.ExecuteWmiMethod(
            device, irp, index, node->InstanceIndex, node->MethodId, node->SizeDataBlock,
            location->Parameters.WMI.BufferSize - node->DataBlockOffset, buffer + node->DataBlockOffset);
        return std::nullopt;
    }
    default: { // events and collection, on and off
        if (context.WmiFunctionControl == nullptr)
            return Refusal{STATUS_SUCCESS};
        const bool events = minor == IRP_MN_ENABLE_EVENTS || minor == IRP_MN_DISABLE_EVENTS;
        const bool enable = minor == IRP_MN_ENABLE_EVENTS || minor == IRP_MN_ENABLE_COLLECTION;
        *status = context.WmiFunctionControl(
            device, irp, index, events ? WmiEventControl : WmiDataBlockControl, enable ? TRUE : FALSE);
        return std::nullopt;
    }
    }
}

// Says how much room the answer takes, in place of the answer.
void TooSmall(PIRP irp, ULONG needed)
{
    auto* node = static_cast<PWNODE_TOO_SMALL>(IoGetCurrentIrpStackLocation(irp)->Parameters.WMI.Buffer);
    node->WnodeHeader.BufferSize = sizeof(WNODE_TOO_SMALL);
    node->WnodeHeader.Flags |= WNODE_FLAG_TOO_SMALL;
    node->SizeNeeded = needed;
    irp->IoStatus.Status = STATUS_SUCCESS;
    irp->IoStatus.Information = sizeof(WNODE_TOO_SMALL);
}

// Spreads the gathered lengths out into offsets and lengths, from the last to the first because they overlap.
void PlaceInstances(PWNODE_ALL_DATA node)
{
    const auto* lengths = reinterpret_cast<const ULONG*>(node->OffsetInstanceDataAndLength);
    ULONG end = node->DataBlockOffset;
    for (ULONG i = 0; i < node->InstanceCount; ++i)
        end += AlignUp(lengths[i]);
    for (ULONG i = node->InstanceCount; i-- > 0;) {
        const ULONG length = lengths[i];
        end -= AlignUp(length);
        node->OffsetInstanceDataAndLength[i] = {end, length};
    }
}

} // namespace
} // namespace host

using namespace host;

extern "C" {

NTSTATUS NTAPI WmiCompleteRequest(PDEVICE_OBJECT, PIRP Irp, NTSTATUS Status, ULONG BufferUsed,
                                  CCHAR PriorityBoost)
{
    const PIO_STACK_LOCATION location = IoGetCurrentIrpStackLocation(Irp);
    const auto& wmi = location->Parameters.WMI;
    Irp->IoStatus.Status = Status;
    Irp->IoStatus.Information = 0;
    const bool all = location->MinorFunction == IRP_MN_QUERY_ALL_DATA;
    const bool single = location->MinorFunction == IRP_MN_QUERY_SINGLE_INSTANCE ||
                        location->MinorFunction == IRP_MN_EXECUTE_METHOD;
    if ((all || single) && (NT_SUCCESS(Status) || Status == STATUS_BUFFER_TOO_SMALL)) {
        auto* node = static_cast<PWNODE_ALL_DATA>(wmi.Buffer);
        auto* one = static_cast<PWNODE_SINGLE_INSTANCE>(wmi.Buffer);
        // Without room for the head nothing says where the data would have begun; one instance is the rule.
        const ULONG offset = all ? std::max(node->DataBlockOffset, AllDataOffset(1)) : one->DataBlockOffset;
        const ULONG needed = offset + BufferUsed;
        if (Status == STATUS_BUFFER_TOO_SMALL || needed > wmi.BufferSize) {
            TooSmall(Irp, needed);
        } else {
            if (all)
                PlaceInstances(node);
            else
                one->SizeDataBlock = BufferUsed;
            node->WnodeHeader.BufferSize = needed;
            Irp->IoStatus.Information = needed;
        }
    }
    const NTSTATUS answer = Irp->IoStatus.Status;
    IofCompleteRequest(Irp, PriorityBoost);
    return answer;
}

NTSTATUS NTAPI WmiSystemControl(PWMILIB_CONTEXT WmiLibInfo, PDEVICE_OBJECT DeviceObject, PIRP Irp,
                                PSYSCTL_IRP_DISPOSITION IrpDisposition)
{
    VfRequireIrqlAtMost(PASSIVE_LEVEL, Rule::IrqlPassive, "WmiSystemControl", __builtin_return_address(0));
    const PIO_STACK_LOCATION location = IoGetCurrentIrpStackLocation(Irp);
    const UCHAR minor = location->MinorFunction;
    if (minor > IRP_MN_REGINFO_EX || minor == 0x0A) {
        *IrpDisposition = IrpNotWmi;
        return STATUS_SUCCESS;
    }
    if (location->Parameters.WMI.ProviderId != reinterpret_cast<ULONG_PTR>(DeviceObject)) {
        *IrpDisposition = IrpForward;
        return STATUS_SUCCESS;
    }
    if (minor == IRP_MN_REGINFO || minor == IRP_MN_REGINFO_EX)
        return RegisterInformation(*WmiLibInfo, DeviceObject, Irp, IrpDisposition);
    const auto* guid = static_cast<const GUID*>(location->Parameters.WMI.DataPath);
    const std::optional<ULONG> index = IndexOf(*WmiLibInfo, *guid);
    if (!index)
        return NotCompleted(Irp, {STATUS_WMI_GUID_NOT_FOUND}, IrpDisposition);
    NTSTATUS status = STATUS_SUCCESS;
    if (std::optional<Refusal> refusal = CallDataBlock(*WmiLibInfo, DeviceObject, Irp, *index, &status))
        return NotCompleted(Irp, *refusal, IrpDisposition);
    *IrpDisposition = IrpProcessed;
    return status;
}

} // extern "C"
