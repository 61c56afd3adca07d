// Sizes and offsets of the platform's x86-64 structures, and the values that travel between binaries.
// Compiled twice: against the host's headers and against the cross-compiler's. A line that fails here
// means that the two builds of the driver would not be the same driver.
#include <initguid.h>

#include <ntddk.h>

#include <cstddef>

extern "C" {
#include <ntddser.h>
#include <usb.h>
#include <usbdi.h>
#include <usbdlib.h>
#include <usbioctl.h>
#include <wmistr.h>

#include <wmidata.h>
#include <wmilib.h>
}
#if defined(__MINGW32__)
#include <evntprov.h>
#endif

// No constant expression: the compiler's complaint names the call, and with it what differs.
void Differs();

constexpr bool Is(const char* /*what*/, ULONGLONG value, ULONGLONG expected)
{
    if (value != expected)
        Differs();
    return true;
}

template <class... Facts>
constexpr bool All(Facts... facts)
{
    return (facts && ...);
}

#define SIZE(type, bytes) Is("size of " #type, sizeof(type), bytes)
#define AT(type, field, bytes) Is(#type "." #field, offsetof(type, field), bytes)
#define VALUE(name, value) Is(#name, static_cast<ULONG>(name), value)

// Basic types.
static_assert(All(SIZE(WCHAR, 2), SIZE(LONG, 4), SIZE(ULONG, 4), SIZE(LONGLONG, 8), SIZE(ULONG_PTR, 8),
                  SIZE(BOOLEAN, 1), SIZE(KIRQL, 1), SIZE(NTSTATUS, 4), SIZE(KSPIN_LOCK, 8),
                  SIZE(LARGE_INTEGER, 8), SIZE(GUID, 16), SIZE(LIST_ENTRY, 16), SIZE(UNICODE_STRING, 16),
                  AT(UNICODE_STRING, MaximumLength, 2), AT(UNICODE_STRING, Buffer, 8),
                  SIZE(OBJECT_ATTRIBUTES, 48), AT(OBJECT_ATTRIBUTES, ObjectName, 16)));

// Ke and Ex.
static_assert(All(SIZE(DISPATCHER_HEADER, 24), AT(DISPATCHER_HEADER, SignalState, 4),
                  AT(DISPATCHER_HEADER, WaitListHead, 8), SIZE(KEVENT, 24), SIZE(KTIMER, 64),
                  AT(KTIMER, DueTime, 24), AT(KTIMER, Dpc, 48), AT(KTIMER, Period, 60), SIZE(KAPC, 88),
                  SIZE(KWAIT_BLOCK, 48), SIZE(KDEVICE_QUEUE, 40), SIZE(KDEVICE_QUEUE_ENTRY, 24),
                  SIZE(FAST_MUTEX, 56), AT(FAST_MUTEX, Event, 24)));
static_assert(All(SIZE(KDPC, 64), AT(KDPC, Number, 2), AT(KDPC, DeferredRoutine, 24),
                  AT(KDPC, DeferredContext, 32), AT(KDPC, DpcData, 56)));
static_assert(All(VALUE(MAXIMUM_WAIT_OBJECTS, 64), VALUE(THREAD_WAIT_OBJECTS, 3), VALUE(NonPagedPool, 0),
                  VALUE(PagedPool, 1), VALUE(NotificationEvent, 0), VALUE(SynchronizationEvent, 1),
                  VALUE(WaitAll, 0), VALUE(WaitAny, 1), VALUE(Executive, 0), VALUE(UserRequest, 6),
                  VALUE(DelayedWorkQueue, 1)));

// Io.
static_assert(All(SIZE(IO_STATUS_BLOCK, 16), AT(DRIVER_EXTENSION, AddDevice, 8),
                  AT(DRIVER_EXTENSION, ServiceKeyName, 24), SIZE(CONFIGURATION_INFORMATION, 40),
                  AT(CONFIGURATION_INFORMATION, SerialCount, 20), SIZE(DEVICE_RELATIONS, 16),
                  SIZE(POWER_STATE, 4), SIZE(EVENT_DESCRIPTOR, 16), SIZE(EVENT_DATA_DESCRIPTOR, 16)));
static_assert(All(SIZE(IRP, 208), AT(IRP, MdlAddress, 8), AT(IRP, Flags, 16), AT(IRP, AssociatedIrp, 24),
                  AT(IRP, ThreadListEntry, 32), AT(IRP, IoStatus, 48), AT(IRP, RequestorMode, 64),
                  AT(IRP, PendingReturned, 65), AT(IRP, StackCount, 66), AT(IRP, CurrentLocation, 67),
                  AT(IRP, Cancel, 68), AT(IRP, CancelIrql, 69), AT(IRP, UserIosb, 72), AT(IRP, UserEvent, 80),
                  AT(IRP, Overlay, 88), AT(IRP, CancelRoutine, 104), AT(IRP, UserBuffer, 112),
                  AT(IRP, Tail.Overlay.DriverContext, 120), AT(IRP, Tail.Overlay.Thread, 152),
                  AT(IRP, Tail.Overlay.ListEntry, 168), AT(IRP, Tail.Overlay.CurrentStackLocation, 184),
                  AT(IRP, Tail.Overlay.OriginalFileObject, 192)));
static_assert(All(
    SIZE(IO_STACK_LOCATION, 72), AT(IO_STACK_LOCATION, Control, 3), AT(IO_STACK_LOCATION, Parameters, 8),
    AT(IO_STACK_LOCATION, Parameters.Create.SecurityContext, 8),
    AT(IO_STACK_LOCATION, Parameters.Create.Options, 16),
    AT(IO_STACK_LOCATION, Parameters.Create.FileAttributes, 24),
    AT(IO_STACK_LOCATION, Parameters.Create.ShareAccess, 26),
    AT(IO_STACK_LOCATION, Parameters.Read.Length, 8), AT(IO_STACK_LOCATION, Parameters.Read.Key, 16),
    AT(IO_STACK_LOCATION, Parameters.Read.ByteOffset, 24), AT(IO_STACK_LOCATION, Parameters.Write.Length, 8),
    AT(IO_STACK_LOCATION, Parameters.Write.ByteOffset, 24),
    AT(IO_STACK_LOCATION, Parameters.DeviceIoControl.OutputBufferLength, 8),
    AT(IO_STACK_LOCATION, Parameters.DeviceIoControl.InputBufferLength, 16),
    AT(IO_STACK_LOCATION, Parameters.DeviceIoControl.IoControlCode, 24),
    AT(IO_STACK_LOCATION, Parameters.DeviceIoControl.Type3InputBuffer, 32),
    AT(IO_STACK_LOCATION, Parameters.QueryInterface.Interface, 24),
    AT(IO_STACK_LOCATION, Parameters.DeviceCapabilities.Capabilities, 8),
    AT(IO_STACK_LOCATION, Parameters.QueryDeviceText.LocaleId, 16),
    AT(IO_STACK_LOCATION, Parameters.Power.Type, 16), AT(IO_STACK_LOCATION, Parameters.Power.State, 24),
    AT(IO_STACK_LOCATION, Parameters.Power.ShutdownType, 32),
    AT(IO_STACK_LOCATION, Parameters.StartDevice.AllocatedResourcesTranslated, 16),
    AT(IO_STACK_LOCATION, Parameters.WMI.DataPath, 16), AT(IO_STACK_LOCATION, Parameters.WMI.BufferSize, 24),
    AT(IO_STACK_LOCATION, Parameters.WMI.Buffer, 32), AT(IO_STACK_LOCATION, Parameters.Others.Argument4, 32),
    AT(IO_STACK_LOCATION, DeviceObject, 40), AT(IO_STACK_LOCATION, FileObject, 48),
    AT(IO_STACK_LOCATION, CompletionRoutine, 56), AT(IO_STACK_LOCATION, Context, 64)));
static_assert(All(SIZE(FILE_OBJECT, 216), AT(FILE_OBJECT, FsContext, 24), AT(FILE_OBJECT, FsContext2, 32),
                  AT(FILE_OBJECT, FinalStatus, 56), AT(FILE_OBJECT, Flags, 80), AT(FILE_OBJECT, FileName, 88),
                  AT(FILE_OBJECT, CurrentByteOffset, 104), AT(FILE_OBJECT, Event, 152),
                  AT(FILE_OBJECT, IrpListLock, 184)));
static_assert(All(AT(DEVICE_OBJECT, ReferenceCount, 4), AT(DEVICE_OBJECT, DriverObject, 8),
                  AT(DEVICE_OBJECT, NextDevice, 16), AT(DEVICE_OBJECT, AttachedDevice, 24),
                  AT(DEVICE_OBJECT, CurrentIrp, 32), AT(DEVICE_OBJECT, Flags, 48),
                  AT(DEVICE_OBJECT, Characteristics, 52), AT(DEVICE_OBJECT, DeviceExtension, 64),
                  AT(DEVICE_OBJECT, DeviceType, 72), AT(DEVICE_OBJECT, StackSize, 76),
                  AT(DEVICE_OBJECT, Queue, 80), AT(DEVICE_OBJECT, AlignmentRequirement, 152),
                  AT(DEVICE_OBJECT, DeviceQueue, 160), AT(DEVICE_OBJECT, Dpc, 200),
                  AT(DEVICE_OBJECT, DeviceLock, 280), AT(DEVICE_OBJECT, DeviceObjectExtension, 312)));
static_assert(All(SIZE(DRIVER_OBJECT, 336), AT(DRIVER_OBJECT, DeviceObject, 8),
                  AT(DRIVER_OBJECT, DriverStart, 24), AT(DRIVER_OBJECT, DriverExtension, 48),
                  AT(DRIVER_OBJECT, DriverName, 56), AT(DRIVER_OBJECT, DriverInit, 88),
                  AT(DRIVER_OBJECT, DriverUnload, 104), AT(DRIVER_OBJECT, MajorFunction, 112)));
static_assert(All(SIZE(DEVICE_CAPABILITIES, 64), AT(DEVICE_CAPABILITIES, Address, 8),
                  AT(DEVICE_CAPABILITIES, DeviceState, 16), AT(DEVICE_CAPABILITIES, SystemWake, 44),
                  AT(DEVICE_CAPABILITIES, D3Latency, 60)));
static_assert(All(VALUE(IRP_MJ_MAXIMUM_FUNCTION, 27), VALUE(IRP_MJ_DEVICE_CONTROL, 14),
                  VALUE(IRP_MJ_CLEANUP, 18), VALUE(IRP_MJ_POWER, 22), VALUE(IRP_MJ_SYSTEM_CONTROL, 23),
                  VALUE(IRP_MN_SURPRISE_REMOVAL, 23), VALUE(PowerSystemMaximum, 7), VALUE(PowerDeviceD0, 1),
                  VALUE(PowerDeviceD3, 4), VALUE(PLUGPLAY_REGKEY_DRIVER, 2),
                  VALUE(WMIREG_ACTION_DEREGISTER, 2)));
// The cross-compiler's header leaves out the alignment of 16: the padding at the end, nothing else.
static_assert(sizeof(DEVICE_OBJECT) == (alignof(DEVICE_OBJECT) == 16 ? 336 : 328));

// Cm.
static_assert(All(AT(KEY_VALUE_FULL_INFORMATION, DataOffset, 8), AT(KEY_VALUE_FULL_INFORMATION, Name, 20),
                  SIZE(KEY_VALUE_FULL_INFORMATION, 24), AT(KEY_VALUE_PARTIAL_INFORMATION, Data, 12),
                  SIZE(KEY_VALUE_PARTIAL_INFORMATION, 16), SIZE(RTL_QUERY_REGISTRY_TABLE, 56),
                  AT(RTL_QUERY_REGISTRY_TABLE, Name, 16), AT(RTL_QUERY_REGISTRY_TABLE, EntryContext, 24),
                  AT(RTL_QUERY_REGISTRY_TABLE, DefaultData, 40)));
static_assert(All(VALUE(RTL_REGISTRY_DEVICEMAP, 4), VALUE(RTL_QUERY_REGISTRY_DIRECT, 0x20),
                  VALUE(KEY_READ, 0x20019), VALUE(KEY_ALL_ACCESS, 0xf003f)));

// USB.
static_assert(
    All(SIZE(USB_DEVICE_DESCRIPTOR, 18), SIZE(USB_CONFIGURATION_DESCRIPTOR, 9),
        SIZE(USB_INTERFACE_DESCRIPTOR, 9), SIZE(USB_ENDPOINT_DESCRIPTOR, 7),
        SIZE(USB_INTERFACE_ASSOCIATION_DESCRIPTOR, 8), SIZE(struct _URB_HEADER, 24),
        SIZE(struct _URB_BULK_OR_INTERRUPT_TRANSFER, 128), SIZE(struct _URB_CONTROL_DESCRIPTOR_REQUEST, 136),
        SIZE(struct _URB_CONTROL_VENDOR_OR_CLASS_REQUEST, 136), SIZE(struct _URB_CONTROL_TRANSFER, 136),
        SIZE(struct _URB_CONTROL_GET_STATUS_REQUEST, 136), SIZE(struct _URB_CONTROL_FEATURE_REQUEST, 136),
        SIZE(struct _URB_PIPE_REQUEST, 40), SIZE(struct _URB_SELECT_CONFIGURATION, 88),
        SIZE(struct _URB_SELECT_INTERFACE, 80), SIZE(struct _URB_ISOCH_TRANSFER, 152),
        SIZE(USBD_INTERFACE_INFORMATION, 48), AT(USBD_INTERFACE_INFORMATION, InterfaceHandle, 8),
        AT(USBD_INTERFACE_INFORMATION, NumberOfPipes, 16), AT(USBD_INTERFACE_INFORMATION, Pipes, 24),
        SIZE(USBD_PIPE_INFORMATION, 24), AT(USBD_PIPE_INFORMATION, PipeType, 4),
        AT(USBD_PIPE_INFORMATION, PipeHandle, 8), AT(USBD_PIPE_INFORMATION, MaximumTransferSize, 16),
        SIZE(USBD_INTERFACE_LIST_ENTRY, 16), SIZE(USB_IDLE_CALLBACK_INFO, 16)));
static_assert(All(
    SIZE(URB, 152), AT(URB, UrbHeader.Status, 4), AT(URB, UrbPipeRequest.PipeHandle, 24),
    AT(URB, UrbSelectConfiguration.ConfigurationDescriptor, 24),
    AT(URB, UrbSelectConfiguration.ConfigurationHandle, 32), AT(URB, UrbSelectConfiguration.Interface, 40),
    AT(URB, UrbBulkOrInterruptTransfer.PipeHandle, 24), AT(URB, UrbBulkOrInterruptTransfer.TransferFlags, 32),
    AT(URB, UrbBulkOrInterruptTransfer.TransferBufferLength, 36),
    AT(URB, UrbBulkOrInterruptTransfer.TransferBuffer, 40),
    AT(URB, UrbControlDescriptorRequest.TransferBufferLength, 36),
    AT(URB, UrbControlDescriptorRequest.TransferBuffer, 40), AT(URB, UrbControlDescriptorRequest.Index, 130),
    AT(URB, UrbControlDescriptorRequest.DescriptorType, 131),
    AT(URB, UrbControlDescriptorRequest.LanguageId, 132),
    AT(URB, UrbControlVendorClassRequest.TransferFlags, 32),
    AT(URB, UrbControlVendorClassRequest.RequestTypeReservedBits, 128),
    AT(URB, UrbControlVendorClassRequest.Request, 129), AT(URB, UrbControlVendorClassRequest.Value, 130),
    AT(URB, UrbControlVendorClassRequest.Index, 132)));
static_assert(All(VALUE(IOCTL_INTERNAL_USB_SUBMIT_URB, 0x220003),
                  VALUE(IOCTL_INTERNAL_USB_SUBMIT_IDLE_NOTIFICATION, 0x220027),
                  VALUE(URB_FUNCTION_CLASS_INTERFACE, 0x1b),
                  VALUE(URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL, 0x1e), VALUE(UsbdPipeTypeInterrupt, 3),
                  VALUE(GET_USBD_INTERFACE_SIZE(3), 96)));

// Serial ports.
static_assert(All(SIZE(SERIAL_COMMPROP, 64), AT(SERIAL_COMMPROP, ServiceMask, 4),
                  AT(SERIAL_COMMPROP, SettableBaud, 36), AT(SERIAL_COMMPROP, SettableStopParity, 42),
                  AT(SERIAL_COMMPROP, ProvChar, 60)));
static_assert(All(SIZE(SERIAL_TIMEOUTS, 20), SIZE(SERIAL_STATUS, 20), AT(SERIAL_STATUS, EofReceived, 16),
                  SIZE(SERIAL_HANDFLOW, 16), SIZE(SERIAL_LINE_CONTROL, 3), SIZE(SERIAL_CHARS, 6),
                  SIZE(SERIAL_QUEUE_SIZE, 8), SIZE(SERIAL_BAUD_RATE, 4), SIZE(SERIAL_XOFF_COUNTER, 12),
                  SIZE(SERIALPERF_STATS, 24), SIZE(SERIAL_BASIC_SETTINGS, 44)));
static_assert(All(VALUE(IOCTL_SERIAL_SET_BAUD_RATE, 0x1b0004), VALUE(IOCTL_SERIAL_SET_TIMEOUTS, 0x1b001c),
                  VALUE(IOCTL_SERIAL_SET_WAIT_MASK, 0x1b0044), VALUE(IOCTL_SERIAL_WAIT_ON_MASK, 0x1b0048),
                  VALUE(IOCTL_SERIAL_GET_COMMSTATUS, 0x1b006c), VALUE(IOCTL_SERIAL_GET_PROPERTIES, 0x1b0074),
                  VALUE(IOCTL_SERIAL_LSRMST_INSERT, 0x1b007c), VALUE(IOCTL_SERIAL_SET_FIFO_CONTROL, 0x1b009c),
                  VALUE(IOCTL_SERENUM_GET_PORT_NAME, 0x37020c), VALUE(SERIAL_EV_EVENT2, 0x1000),
                  VALUE(SERIAL_CONTROL_INVALID, 0x7fffff84), VALUE(SERIAL_FLOW_INVALID, 0x7fffff20)));

// WMI.
static_assert(All(SIZE(WMILIB_CONTEXT, 64), AT(WMILIB_CONTEXT, GuidList, 8),
                  AT(WMILIB_CONTEXT, WmiFunctionControl, 56), SIZE(WMIGUIDREGINFO, 16), SIZE(WMIREGGUIDW, 32),
                  SIZE(WMIREGINFOW, 24), AT(WMIREGINFOW, WmiRegGuid, 24), SIZE(WNODE_HEADER, 48),
                  AT(WNODE_HEADER, Guid, 24), AT(WNODE_HEADER, Flags, 44),
                  AT(WNODE_ALL_DATA, FixedInstanceSize, 60), AT(WNODE_SINGLE_INSTANCE, VariableData, 64),
                  SIZE(SERIAL_WMI_COMM_DATA, 64), AT(SERIAL_WMI_COMM_DATA, StopBits, 16),
                  AT(SERIAL_WMI_COMM_DATA, IsBusy, 60), SIZE(SERIAL_WMI_HW_DATA, 40),
                  SIZE(SERIAL_WMI_PERF_DATA, 24), VALUE(IrpForward, 3)));

// The values of statuses that the driver returns.
static_assert(All(VALUE(STATUS_TIMEOUT, 0x102), VALUE(STATUS_PENDING, 0x103),
                  VALUE(STATUS_BUFFER_OVERFLOW, 0x80000005), VALUE(STATUS_NO_MORE_ENTRIES, 0x8000001a),
                  VALUE(STATUS_CANCELLED, 0xc0000120), VALUE(STATUS_DELETE_PENDING, 0xc0000056),
                  VALUE(STATUS_DEVICE_NOT_CONNECTED, 0xc000009d),
                  VALUE(STATUS_DEVICE_CONFIGURATION_ERROR, 0xc0000182),
                  VALUE(STATUS_POWER_STATE_INVALID, 0xc00002d3), VALUE(STATUS_WMI_GUID_NOT_FOUND, 0xc0000295),
                  VALUE(USBD_STATUS_CANCELED, 0xc0010000)));
