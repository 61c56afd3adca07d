#include "navox_wmi.h"

#include "navox_utils.h"

namespace {

enum WmiBlock : ULONG { BlockPortName, BlockCommData, BlockProperties, BlockPerfData, BlockCount };

// Size of the properties block on the platform.
constexpr ULONG kPropertiesBytes = 68;
static_assert(sizeof(SERIAL_WMI_COMM_DATA) == 64 && sizeof(SERIAL_WMI_PERF_DATA) == 24);

const GUID kPortNameGuid = SERIAL_PORT_WMI_NAME_GUID;
const GUID kCommDataGuid = SERIAL_PORT_WMI_COMM_GUID;
const GUID kPropertiesGuid = SERIAL_PORT_WMI_PROPERTIES_GUID;
const GUID kPerfDataGuid = SERIAL_PORT_WMI_PERF_GUID;

WMIGUIDREGINFO BlockGuids[BlockCount] = {
    {&kPortNameGuid, 1, 0}, {&kCommDataGuid, 1, 0}, {&kPropertiesGuid, 1, 0}, {&kPerfDataGuid, 1, 0}};

NAVOX_PAGED NTSTATUS NTAPI WmiQueryRegInfo(PDEVICE_OBJECT device, PULONG regFlags, PUNICODE_STRING,
                                           PUNICODE_STRING* registryPath, PUNICODE_STRING,
                                           PDEVICE_OBJECT* pdo)
{
    PAGED_CODE();
    DEVICE_EXTENSION* extension = GetExtension(device);
    *regFlags = WMIREG_FLAG_INSTANCE_PDO;
    *registryPath = &Globals.RegistryPath;
    *pdo = extension->PhysicalDeviceObject;
    extension->WmiRegInfoGiven = TRUE;
    return STATUS_SUCCESS;
}

// What a query answers: how many bytes are used or needed, and whether they are there.
struct Answer {
    NTSTATUS Status;
    ULONG Used;
};

NAVOX_PAGED Answer ReturnPortName(const DEVICE_EXTENSION* extension, ULONG available, UCHAR* buffer)
{
    PAGED_CODE();
    const UNICODE_STRING& name = extension->PortNameCopy;
    const ULONG size = name.Length + sizeof(USHORT);
    if (available < size)
        return {STATUS_BUFFER_TOO_SMALL, size};
    if (name.Buffer == nullptr)
        return {STATUS_INSUFFICIENT_RESOURCES, name.Length};
    RtlCopyMemory(buffer, &name.Length, sizeof(USHORT));
    RtlCopyMemory(buffer + sizeof(USHORT), name.Buffer, name.Length);
    return {STATUS_SUCCESS, size};
}

// A null block is reported by its size only.
NAVOX_PAGED Answer ReturnBlock(const void* block, ULONG size, ULONG available, UCHAR* buffer)
{
    PAGED_CODE();
    if (available < size)
        return {STATUS_BUFFER_TOO_SMALL, size};
    if (block != nullptr)
        RtlCopyMemory(buffer, block, size);
    return {STATUS_SUCCESS, size};
}

NAVOX_PAGED Answer QueryBlock(const DEVICE_EXTENSION* extension, ULONG guidIndex, ULONG available,
                              UCHAR* buffer)
{
    PAGED_CODE();
    switch (guidIndex) {
    case BlockPortName: return ReturnPortName(extension, available, buffer);
    case BlockCommData:
        return ReturnBlock(&extension->WmiCommData, sizeof(SERIAL_WMI_COMM_DATA), available, buffer);
    case BlockProperties:
        return ReturnBlock(nullptr, kPropertiesBytes, available, buffer); // why: nothing to tell
    case BlockPerfData:
        return ReturnBlock(&extension->WmiPerfData, sizeof(SERIAL_WMI_PERF_DATA), available, buffer);
    default: return {STATUS_WMI_GUID_NOT_FOUND, 0};
    }
}

NAVOX_PAGED NTSTATUS NTAPI WmiQueryDataBlock(PDEVICE_OBJECT device, PIRP irp, ULONG guidIndex, ULONG, ULONG,
                                             PULONG instanceLengths, ULONG available, PUCHAR buffer)
{
    PAGED_CODE();
    const Answer answer = QueryBlock(GetExtension(device), guidIndex, available, buffer);
    if (NT_SUCCESS(answer.Status) && instanceLengths != nullptr)
        instanceLengths[0] = answer.Used;
    return WmiCompleteRequest(device, irp, answer.Status, answer.Used, IO_NO_INCREMENT);
}

NAVOX_PAGED NTSTATUS NTAPI WmiSetDataBlock(PDEVICE_OBJECT device, PIRP irp, ULONG guidIndex, ULONG, ULONG,
                                           PUCHAR)
{
    PAGED_CODE();
    const NTSTATUS status =
        guidIndex < BlockCount ? STATUS_INVALID_DEVICE_REQUEST : STATUS_WMI_GUID_NOT_FOUND;
    return WmiCompleteRequest(device, irp, status, 0, IO_NO_INCREMENT);
}

NAVOX_PAGED void InitialiseCommData(SERIAL_WMI_COMM_DATA* data)
{
    PAGED_CODE();
    RtlZeroMemory(data, sizeof(*data));
    data->BaudRate = 9600;
    data->BitsPerByte = 8;
    data->Parity = 0;
    data->ParityCheckEnable = TRUE;
    data->StopBits = 1;
    data->XoffCharacter = 0x13;
    data->XoffXmitThreshold = 16;
    data->XonCharacter = 0x11;
    data->XonXmitThreshold = 16;
    data->MaximumBaudRate = 9600;
    data->MaximumOutputBufferSize = 0xFFFFFFFF;
    data->MaximumInputBufferSize = 0xFFFFFFFF;
    data->Support16BitMode = FALSE;
    data->SupportDTRDSR = TRUE;
    data->SupportIntervalTimeouts = TRUE;
    data->SupportParityCheck = TRUE;
    data->SupportRTSCTS = TRUE;
    data->SupportXonXoff = TRUE;
    data->SettableBaudRate = TRUE;
    data->SettableDataBits = TRUE;
    data->SettableFlowControl = TRUE;
    data->SettableParity = TRUE;
    data->SettableParityCheck = TRUE;
    data->SettableStopBits = TRUE;
    data->IsBusy = FALSE;
}

} // namespace

NAVOX_PAGED NTSTATUS WmiRegister(DEVICE_EXTENSION* extension)
{
    PAGED_CODE();
    InitialiseCommData(&extension->WmiCommData);
    WMILIB_CONTEXT& library = extension->WmiLibInfo;
    RtlZeroMemory(&library, sizeof(library));
    library.GuidCount = BlockCount;
    library.GuidList = BlockGuids;
    library.QueryWmiRegInfo = WmiQueryRegInfo;
    library.QueryWmiDataBlock = WmiQueryDataBlock;
    library.SetWmiDataBlock = WmiSetDataBlock;
    return IoWMIRegistrationControl(extension->Self, WMIREG_ACTION_REGISTER);
}

NAVOX_PAGED NTSTATUS NTAPI SystemControl(PDEVICE_OBJECT device, PIRP irp)
{
    PAGED_CODE();
    DEVICE_EXTENSION* extension = GetExtension(device);
    const PendingIo pending(extension);
    SYSCTL_IRP_DISPOSITION disposition;
    NTSTATUS status = WmiSystemControl(&extension->WmiLibInfo, device, irp, &disposition);
    switch (disposition) {
    case IrpProcessed: break;
    case IrpNotCompleted: IoCompleteRequest(irp, IO_NO_INCREMENT); break;
    case IrpNotWmi:
    case IrpForward:
    default: status = SkipAndForward(extension, irp); break;
    }
    return status;
}
