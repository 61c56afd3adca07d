#include "navox_portname.h"

#include "registry_key.h"

namespace {

constexpr ULONG kNameBufferBytes = 512;
constexpr ULONG kLongestValue = 510;
constexpr ULONG kQueryOverhead = 534; // header of the answer and a value of up to 510 bytes

void FreeString(UNICODE_STRING* string, ULONG tag)
{
    FreePool(string->Buffer, tag);
    *string = {};
}

// Gives the string an empty, zeroed buffer.
NAVOX_PAGED NTSTATUS AllocateString(UNICODE_STRING* string, USHORT bufferBytes, USHORT maximumLength,
                                    ULONG tag)
{
    PAGED_CODE();
    string->Length = 0;
    string->MaximumLength = maximumLength;
    string->Buffer = static_cast<PWSTR>(AllocatePool(PagedPool, bufferBytes, tag));
    return string->Buffer != nullptr ? STATUS_SUCCESS : STATUS_INSUFFICIENT_RESOURCES;
}

// Copies a value's data into `buffer`, which stays as it is when the value is longer than kLongestValue.
NAVOX_PAGED NTSTATUS QueryValueString(HANDLE key, PCWSTR valueName, ULONG nameBytes, PVOID buffer)
{
    PAGED_CODE();
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, valueName);
    const ULONG bytes = nameBytes + kQueryOverhead;
    PoolPointer<KEY_VALUE_FULL_INFORMATION, kTagValueQuery> value;
    if (!value.Allocate(PagedPool, bytes))
        return STATUS_INSUFFICIENT_RESOURCES;
    ULONG length = 0;
    const NTSTATUS status = ZwQueryValueKey(key, &name, KeyValueFullInformation, value.get(), bytes, &length);
    if (NT_SUCCESS(status) && value->DataLength <= kLongestValue)
        RtlCopyMemory(buffer, reinterpret_cast<UCHAR*>(value.get()) + value->DataOffset, value->DataLength);
    return status;
}

// Builds "\DosDevices\<port name>" in `working`, and a copy of just the right size in `linkName`.
NAVOX_PAGED NTSTATUS BuildLinkName(PCWSTR portName, UNICODE_STRING* working, UNICODE_STRING* linkName)
{
    PAGED_CODE();
    NTSTATUS status = RtlAppendUnicodeToString(working, L"\\");
    if (NT_SUCCESS(status))
        status = RtlAppendUnicodeToString(working, L"DosDevices");
    if (NT_SUCCESS(status))
        status = RtlAppendUnicodeToString(working, L"\\");
    if (NT_SUCCESS(status))
        status = RtlAppendUnicodeToString(working, portName);
    if (!NT_SUCCESS(status))
        return status;
    const auto bytes = static_cast<USHORT>(working->Length + sizeof(WCHAR));
    status = AllocateString(linkName, bytes, bytes, kTagLinkName);
    if (NT_SUCCESS(status))
        status = RtlAppendUnicodeStringToString(linkName, working);
    if (!NT_SUCCESS(status))
        FreeString(linkName, kTagLinkName);
    return status;
}

// The two kept copies of the port name.
NAVOX_PAGED NTSTATUS StorePortName(DEVICE_EXTENSION* extension, PCWSTR portName)
{
    PAGED_CODE();
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, portName);
    NTSTATUS status =
        AllocateString(&extension->PortNameCopy, static_cast<USHORT>(name.Length + sizeof(WCHAR)),
                       name.Length, kTagPortNameCopy);
    if (!NT_SUCCESS(status))
        return status;
    RtlAppendUnicodeStringToString(&extension->PortNameCopy, &name);

    status = AllocateString(&extension->PortName, kPortNameBytes, kPortNameBytes, kTagPortName);
    if (!NT_SUCCESS(status))
        return status;
    // why: a name that does not fit is left out without an error, and the port has an empty one. A name that
    // fills the buffer to the last character has no terminator; its length says where it ends.
    RtlAppendUnicodeStringToString(&extension->PortName, &name);
    if (extension->PortName.Length < kPortNameBytes)
        extension->PortName.Buffer[extension->PortName.Length / sizeof(WCHAR)] = L'\0';
    return STATUS_SUCCESS;
}

// The value is named after the device, so that several ports can stand side by side. `Length + 2` bytes are
// written; a name without a terminator in its buffer gets it here.
NAVOX_PAGED NTSTATUS WriteSerialComm(DEVICE_EXTENSION* extension)
{
    PAGED_CODE();
    WCHAR terminated[kPortNameBytes / sizeof(WCHAR) + 1] = {};
    RtlCopyMemory(terminated, extension->PortName.Buffer, extension->PortName.Length);
    return RtlWriteRegistryValue(RTL_REGISTRY_DEVICEMAP, L"SERIALCOMM", extension->DeviceName.Buffer, REG_SZ,
                                 terminated, extension->PortName.Length + sizeof(WCHAR));
}

// The number behind the first three characters, whatever those are; a name without one leaves the number 0.
NAVOX_PAGED void ParsePortNumber(DEVICE_EXTENSION* extension, PCWSTR portName)
{
    PAGED_CODE();
    constexpr ULONG prefix = 3;
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, portName);
    if (name.Length <= prefix * sizeof(WCHAR))
        return;
    RtlInitUnicodeString(&name, portName + prefix);
    (void)RtlUnicodeStringToInteger(&name, 10, &extension->PortNumber);
}

NAVOX_PAGED NTSTATUS PublishPortName(DEVICE_EXTENSION* extension, PCWSTR portName)
{
    PAGED_CODE();
    NTSTATUS status = StorePortName(extension, portName);
    if (!NT_SUCCESS(status))
        return status;
    status = IoCreateSymbolicLink(&extension->SymbolicLinkName, &extension->DeviceName);
    if (!NT_SUCCESS(status))
        return status;
    extension->SymbolicLinkCreated = TRUE;
    status = WriteSerialComm(extension);
    if (!NT_SUCCESS(status))
        return status;
    ParsePortNumber(extension, portName);
    extension->SerialCommWritten = TRUE;
    return STATUS_SUCCESS;
}

// Leaves no pointer behind that the caller's unwinding would free again.
NAVOX_PAGED void UndoPublish(DEVICE_EXTENSION* extension)
{
    PAGED_CODE();
    FreeString(&extension->PortName, kTagPortName);
    if (extension->SymbolicLinkCreated)
        IoDeleteSymbolicLink(&extension->SymbolicLinkName);
    extension->SymbolicLinkCreated = FALSE;
    FreeString(&extension->SymbolicLinkName, kTagLinkName);
    (void)RtlDeleteRegistryValue(RTL_REGISTRY_DEVICEMAP, L"SERIALCOMM", extension->DeviceName.Buffer);
    FreeString(&extension->PortNameCopy, kTagPortNameCopy);
}

} // namespace

NAVOX_PAGED NTSTATUS GetPortName(DEVICE_EXTENSION*, HANDLE hardwareKey, UNICODE_STRING* linkName,
                                 PWSTR* portName)
{
    PAGED_CODE();
    *portName = nullptr;
    UNICODE_STRING working;
    if (!NT_SUCCESS(AllocateString(&working, kNameBufferBytes, kLongestValue, kTagWorkingName)))
        return STATUS_INSUFFICIENT_RESOURCES;
    PoolPointer<WCHAR, kTagQueriedName> name;
    NTSTATUS status = STATUS_INSUFFICIENT_RESOURCES;
    if (name.Allocate(PagedPool, kNameBufferBytes)) {
        status = QueryValueString(hardwareKey, L"PortName", sizeof(L"PortName"), name.get());
        if (!NT_SUCCESS(status))
            status = QueryValueString(hardwareKey, L"Identifier", sizeof(L"Identifier"), name.get());
        if (NT_SUCCESS(status))
            status = BuildLinkName(name.get(), &working, linkName);
    }
    FreeString(&working, kTagWorkingName);
    if (NT_SUCCESS(status))
        *portName = name.Detach();
    return status;
}

NAVOX_PAGED NTSTATUS CreatePortName(DEVICE_EXTENSION* extension)
{
    PAGED_CODE();
    PWSTR portName = nullptr;
    {
        const RegistryKey key(extension->PhysicalDeviceObject, PLUGPLAY_REGKEY_DEVICE, STANDARD_RIGHTS_READ);
        if (key.Status() != STATUS_SUCCESS)
            return key.Status();
        const NTSTATUS status = GetPortName(extension, key.Get(), &extension->SymbolicLinkName, &portName);
        if (!NT_SUCCESS(status))
            return status;
    }
    const NTSTATUS status = PublishPortName(extension, portName);
    if (!NT_SUCCESS(status))
        UndoPublish(extension);
    FreePool(portName, kTagQueriedName);
    return status;
}

NAVOX_PAGED void RemovePortName(DEVICE_EXTENSION* extension)
{
    PAGED_CODE();
    if (extension->SymbolicLinkName.Buffer != nullptr && extension->SymbolicLinkCreated) {
        const RegistryKey key(extension->PhysicalDeviceObject, PLUGPLAY_REGKEY_DEVICE, STANDARD_RIGHTS_READ);
        UNICODE_STRING link = {};
        PWSTR portName = nullptr;
        // why: the link that goes is the one that the registry names now, not the one that was made.
        if (key.Status() == STATUS_SUCCESS &&
            NT_SUCCESS(GetPortName(extension, key.Get(), &link, &portName))) {
            IoDeleteSymbolicLink(&link);
            FreeString(&link, kTagLinkName);
            FreePool(portName, kTagQueriedName);
        }
    }
    FreeString(&extension->PortNameCopy, kTagPortNameCopy);
    if (extension->DeviceName.Buffer != nullptr && extension->SerialCommWritten) {
        const NTSTATUS status =
            RtlDeleteRegistryValue(RTL_REGISTRY_DEVICEMAP, L"SERIALCOMM", extension->DeviceName.Buffer);
        if (!NT_SUCCESS(status))
            TRACE(TRACE_PNP, LEVEL_WARNING, "SERIALCOMM value not deleted: 0x%x", status);
    }
}

NAVOX_PAGED void ReleasePortNames(PDEVICE_OBJECT device, bool undo)
{
    PAGED_CODE();
    DEVICE_EXTENSION* extension = GetExtension(device);
    if (undo)
        RemovePortName(extension);
    FreePool(extension->DeviceName.Buffer, kTagDeviceName);
    FreePool(extension->SpareName.Buffer, kTagDeviceName);
    FreePool(extension->SymbolicLinkName.Buffer, kTagLinkName);
    FreePool(extension->PortName.Buffer, kTagPortName);
}
