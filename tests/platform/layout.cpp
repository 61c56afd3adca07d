// Sizes and offsets of the platform's x86-64 structures, and the values that travel between binaries.
// Compiled twice: against the host's headers and against the cross-compiler's. A line that fails here
// means that the two builds of the driver would not be the same driver. Only what the driver uses is here.
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
                  AT(UNICODE_STRING, MaximumLength, 2), AT(UNICODE_STRING, Buffer, 8)));

// Ke and Ex.
static_assert(All(SIZE(KEVENT, 24), SIZE(KTIMER, 64), SIZE(FAST_MUTEX, 56), AT(FAST_MUTEX, Event, 24)));
static_assert(All(SIZE(KDPC, 64)));
static_assert(All(VALUE(NonPagedPool, 0), VALUE(PagedPool, 1), VALUE(NotificationEvent, 0),
                  VALUE(SynchronizationEvent, 1), VALUE(Executive, 0), VALUE(DelayedWorkQueue, 1)));

// Io.
static_assert(All(SIZE(IO_STATUS_BLOCK, 16), AT(DRIVER_EXTENSION, AddDevice, 8),
                  AT(CONFIGURATION_INFORMATION, SerialCount, 20), SIZE(POWER_STATE, 4),
                  SIZE(EVENT_DESCRIPTOR, 16), SIZE(EVENT_DATA_DESCRIPTOR, 16)));
static_assert(All(SIZE(IRP, 208), AT(IRP, Flags, 16), AT(IRP, AssociatedIrp, 24), AT(IRP, IoStatus, 48),
                  AT(IRP, PendingReturned, 65), AT(IRP, Cancel, 68), AT(IRP, CancelIrql, 69),
                  AT(IRP, Overlay, 88), AT(IRP, CurrentLocation, 67), AT(IRP, CancelRoutine, 104),
                  AT(IRP, Tail.Overlay.ListEntry, 168), AT(IRP, Tail.Overlay.CurrentStackLocation, 184)));
static_assert(All(
    SIZE(IO_STACK_LOCATION, 72), AT(IO_STACK_LOCATION, Control, 3), AT(IO_STACK_LOCATION, Parameters, 8),
    AT(IO_STACK_LOCATION, Parameters.Read.Length, 8), AT(IO_STACK_LOCATION, Parameters.Write.Length, 8),
    AT(IO_STACK_LOCATION, Parameters.DeviceIoControl.OutputBufferLength, 8),
    AT(IO_STACK_LOCATION, Parameters.DeviceIoControl.InputBufferLength, 16),
    AT(IO_STACK_LOCATION, Parameters.DeviceIoControl.IoControlCode, 24),
    AT(IO_STACK_LOCATION, Parameters.DeviceIoControl.Type3InputBuffer, 32),
    AT(IO_STACK_LOCATION, Parameters.QueryInterface.Interface, 24),
    AT(IO_STACK_LOCATION, Parameters.DeviceCapabilities.Capabilities, 8),
    AT(IO_STACK_LOCATION, Parameters.Power.Type, 16), AT(IO_STACK_LOCATION, Parameters.Power.State, 24),
    AT(IO_STACK_LOCATION, Parameters.WMI.BufferSize, 24), AT(IO_STACK_LOCATION, Parameters.WMI.Buffer, 32),
    AT(IO_STACK_LOCATION, Parameters.Others.Argument4, 32), AT(IO_STACK_LOCATION, DeviceObject, 40),
    AT(IO_STACK_LOCATION, FileObject, 48), AT(IO_STACK_LOCATION, CompletionRoutine, 56),
    AT(IO_STACK_LOCATION, Context, 64)));
static_assert(All(AT(FILE_OBJECT, FsContext, 24), AT(FILE_OBJECT, Flags, 80), AT(FILE_OBJECT, Event, 152)));
static_assert(All(AT(DEVICE_OBJECT, DriverObject, 8), AT(DEVICE_OBJECT, Flags, 48),
                  AT(DEVICE_OBJECT, DeviceExtension, 64), AT(DEVICE_OBJECT, StackSize, 76),
                  AT(DEVICE_OBJECT, Queue, 80)));
static_assert(All(SIZE(DRIVER_OBJECT, 336), AT(DRIVER_OBJECT, DriverExtension, 48),
                  AT(DRIVER_OBJECT, DriverUnload, 104), AT(DRIVER_OBJECT, MajorFunction, 112)));
static_assert(All(SIZE(DEVICE_CAPABILITIES, 64), AT(DEVICE_CAPABILITIES, Address, 8),
                  AT(DEVICE_CAPABILITIES, DeviceState, 16), AT(DEVICE_CAPABILITIES, SystemWake, 44),
                  AT(DEVICE_CAPABILITIES, D3Latency, 60)));
static_assert(All(VALUE(IRP_MJ_DEVICE_CONTROL, 14), VALUE(IRP_MJ_CLEANUP, 18), VALUE(IRP_MJ_POWER, 22),
                  VALUE(IRP_MJ_SYSTEM_CONTROL, 23), VALUE(IRP_MN_SURPRISE_REMOVAL, 23),
                  VALUE(PowerSystemMaximum, 7), VALUE(PowerDeviceD0, 1), VALUE(PowerDeviceD3, 4),
                  VALUE(PLUGPLAY_REGKEY_DRIVER, 2), VALUE(WMIREG_ACTION_DEREGISTER, 2)));
// The cross-compiler's header leaves out the alignment of 16: the padding at the end, nothing else.
static_assert(sizeof(DEVICE_OBJECT) == (alignof(DEVICE_OBJECT) == 16 ? 336 : 328));

// Cm.
static_assert(All(AT(KEY_VALUE_FULL_INFORMATION, DataOffset, 8), AT(KEY_VALUE_FULL_INFORMATION, Name, 20),
                  SIZE(KEY_VALUE_FULL_INFORMATION, 24), AT(RTL_QUERY_REGISTRY_TABLE, Name, 16)));
static_assert(All(VALUE(RTL_REGISTRY_DEVICEMAP, 4)));

// USB.
static_assert(All(SIZE(USB_DEVICE_DESCRIPTOR, 18), SIZE(USB_CONFIGURATION_DESCRIPTOR, 9),
                  SIZE(USB_INTERFACE_DESCRIPTOR, 9), SIZE(USB_ENDPOINT_DESCRIPTOR, 7),
                  SIZE(struct _URB_BULK_OR_INTERRUPT_TRANSFER, 128),
                  SIZE(struct _URB_CONTROL_DESCRIPTOR_REQUEST, 136),
                  SIZE(struct _URB_CONTROL_VENDOR_OR_CLASS_REQUEST, 136), SIZE(struct _URB_PIPE_REQUEST, 40),
                  SIZE(USBD_INTERFACE_INFORMATION, 48), AT(USBD_INTERFACE_INFORMATION, NumberOfPipes, 16),
                  AT(USBD_INTERFACE_INFORMATION, Pipes, 24), SIZE(USBD_PIPE_INFORMATION, 24),
                  AT(USBD_PIPE_INFORMATION, PipeType, 4), AT(USBD_PIPE_INFORMATION, PipeHandle, 8),
                  AT(USBD_PIPE_INFORMATION, MaximumTransferSize, 16), SIZE(USBD_INTERFACE_LIST_ENTRY, 16),
                  SIZE(USB_IDLE_CALLBACK_INFO, 16)));
static_assert(All(
    SIZE(URB, 152), AT(URB, UrbHeader.Status, 4), AT(URB, UrbPipeRequest.PipeHandle, 24),
    AT(URB, UrbSelectConfiguration.ConfigurationDescriptor, 24),
    AT(URB, UrbSelectConfiguration.Interface, 40), AT(URB, UrbBulkOrInterruptTransfer.PipeHandle, 24),
    AT(URB, UrbBulkOrInterruptTransfer.TransferFlags, 32),
    AT(URB, UrbBulkOrInterruptTransfer.TransferBufferLength, 36),
    AT(URB, UrbBulkOrInterruptTransfer.TransferBuffer, 40),
    AT(URB, UrbControlDescriptorRequest.TransferBufferLength, 36),
    AT(URB, UrbControlDescriptorRequest.TransferBuffer, 40), AT(URB, UrbControlDescriptorRequest.Index, 130),
    AT(URB, UrbControlDescriptorRequest.DescriptorType, 131),
    AT(URB, UrbControlVendorClassRequest.TransferFlags, 32),
    AT(URB, UrbControlVendorClassRequest.Request, 129), AT(URB, UrbControlVendorClassRequest.Value, 130),
    AT(URB, UrbControlVendorClassRequest.Index, 132)));
static_assert(All(VALUE(IOCTL_INTERNAL_USB_SUBMIT_URB, 0x220003),
                  VALUE(IOCTL_INTERNAL_USB_SUBMIT_IDLE_NOTIFICATION, 0x220027),
                  VALUE(URB_FUNCTION_CLASS_INTERFACE, 0x1b),
                  VALUE(URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL, 0x1e),
                  VALUE(UsbdPipeTypeInterrupt, 3)));

// Serial ports.
static_assert(All(SIZE(SERIAL_COMMPROP, 64), AT(SERIAL_COMMPROP, ServiceMask, 4),
                  AT(SERIAL_COMMPROP, SettableBaud, 36), AT(SERIAL_COMMPROP, SettableStopParity, 42)));
static_assert(All(SIZE(SERIAL_TIMEOUTS, 20), SIZE(SERIAL_STATUS, 20), SIZE(SERIAL_HANDFLOW, 16),
                  SIZE(SERIAL_LINE_CONTROL, 3), SIZE(SERIAL_CHARS, 6), SIZE(SERIAL_QUEUE_SIZE, 8),
                  SIZE(SERIAL_XOFF_COUNTER, 12), SIZE(SERIALPERF_STATS, 24)));
static_assert(All(VALUE(IOCTL_SERIAL_SET_BAUD_RATE, 0x1b0004), VALUE(IOCTL_SERIAL_SET_TIMEOUTS, 0x1b001c),
                  VALUE(IOCTL_SERIAL_SET_WAIT_MASK, 0x1b0044), VALUE(IOCTL_SERIAL_WAIT_ON_MASK, 0x1b0048),
                  VALUE(IOCTL_SERIAL_GET_COMMSTATUS, 0x1b006c), VALUE(IOCTL_SERIAL_GET_PROPERTIES, 0x1b0074),
                  VALUE(IOCTL_SERIAL_LSRMST_INSERT, 0x1b007c),
                  VALUE(IOCTL_SERIAL_SET_FIFO_CONTROL, 0x1b009c)));

// WMI.
static_assert(All(SIZE(WMILIB_CONTEXT, 64), AT(WMILIB_CONTEXT, GuidList, 8), SIZE(WMIGUIDREGINFO, 16),
                  AT(WNODE_HEADER, Flags, 44), SIZE(SERIAL_WMI_COMM_DATA, 64),
                  AT(SERIAL_WMI_COMM_DATA, StopBits, 16), AT(SERIAL_WMI_COMM_DATA, IsBusy, 60),
                  SIZE(SERIAL_WMI_PERF_DATA, 24), VALUE(IrpForward, 3)));

// The values of statuses that the driver returns.
static_assert(All(VALUE(STATUS_TIMEOUT, 0x102), VALUE(STATUS_PENDING, 0x103),
                  VALUE(STATUS_BUFFER_OVERFLOW, 0x80000005), VALUE(STATUS_NO_MORE_ENTRIES, 0x8000001a),
                  VALUE(STATUS_CANCELLED, 0xc0000120), VALUE(STATUS_DELETE_PENDING, 0xc0000056),
                  VALUE(STATUS_DEVICE_NOT_CONNECTED, 0xc000009d),
                  VALUE(STATUS_DEVICE_CONFIGURATION_ERROR, 0xc0000182),
                  VALUE(STATUS_POWER_STATE_INVALID, 0xc00002d3),
                  VALUE(STATUS_WMI_GUID_NOT_FOUND, 0xc0000295)));
