#include "cdccomm.h"

#include "navox_usb.h"

namespace {

// CDC 1.2, tables 13 and 14.
constexpr UCHAR kSetCommFeature = 0x02;
constexpr UCHAR kGetCommFeature = 0x03;
constexpr UCHAR kClearCommFeature = 0x04;
constexpr UCHAR kSetControlLineState = 0x22;
constexpr USHORT kAbstractState = 1;

constexpr ULONG kDataBytes = 2;
constexpr ULONG kOut = USBD_SHORT_TRANSFER_OK;
constexpr ULONG kIn = USBD_SHORT_TRANSFER_OK | USBD_TRANSFER_DIRECTION_IN;
static_assert(sizeof(struct _URB_CONTROL_VENDOR_OR_CLASS_REQUEST) == 136);

// One class request. `dataLength` is 0 or 2; `data` goes out with it, or is overwritten and discarded.
NTSTATUS SendClassRequest(PDEVICE_OBJECT device, UCHAR request, USHORT value, ULONG transferFlags,
                          ULONG dataLength, USHORT data)
{
    // Requests without a data stage have a buffer too.
    PoolPointer<USHORT, kTagCdcData> buffer;
    PoolPointer<URB, kTagCdcUrb> urb;
    if (!buffer.Allocate(NonPagedPool, kDataBytes) || !urb.Allocate(NonPagedPool, kUrbAllocation))
        return STATUS_INSUFFICIENT_RESOURCES;
    *buffer = data;

    struct _URB_CONTROL_VENDOR_OR_CLASS_REQUEST& control = urb->UrbControlVendorClassRequest;
    control.Hdr.Length = sizeof(control);
    control.Hdr.Function = URB_FUNCTION_CLASS_INTERFACE;
    control.TransferFlags = transferFlags;
    control.TransferBufferLength = dataLength;
    control.TransferBuffer = buffer.get();
    control.Request = request;
    control.Value = value;
    control.Index = GetExtension(device)->CommunicationInterface.InterfaceNumber;
    return SendCdcRequest(device, urb.get());
}

} // namespace

NTSTATUS SendCdcRequest(PDEVICE_OBJECT device, PURB urb)
{
    const NTSTATUS status = SubmitUrbOrAbort(GetExtension(device), urb);
    DbgPrint("\nStatus After submitting CDC Message is (%!STATUS!) 0x%x\n", status, status);
    return status;
}

NTSTATUS ClearCommFeature(PDEVICE_OBJECT device)
{
    return SendClassRequest(device, kClearCommFeature, kAbstractState, kOut, 0, 0);
}

NTSTATUS GetCommFeature(PDEVICE_OBJECT device)
{
    return SendClassRequest(device, kGetCommFeature, kAbstractState, kIn, kDataBytes, 0);
}

NTSTATUS SetCommFeature(PDEVICE_OBJECT device, USHORT /*selector*/, USHORT state)
{
    return SendClassRequest(device, kSetCommFeature, kAbstractState, kOut, kDataBytes, state);
}

NTSTATUS SetControlLineState(PDEVICE_OBJECT device, USHORT lines)
{
    return SendClassRequest(device, kSetControlLineState, lines, kOut, 0, 0);
}

NTSTATUS SetupLine(DEVICE_EXTENSION* extension)
{
    const PDEVICE_OBJECT device = extension->Self;
    NTSTATUS status = ClearCommFeature(device);
    if (NT_SUCCESS(status))
        status = GetCommFeature(device);
    if (NT_SUCCESS(status))
        status = SetCommFeature(device, kAbstractState, 0x0003);
    if (NT_SUCCESS(status))
        status = GetCommFeature(device);
    if (NT_SUCCESS(status))
        status = SetCommFeature(device, kAbstractState, 0x0002);
    if (!NT_SUCCESS(status))
        return status;
    (void)ResetPipe(device, extension->BulkInPipe);
    return SetControlLineState(device, kLineDtr | kLineRts);
}

NTSTATUS ReleaseLine(DEVICE_EXTENSION* extension)
{
    const PDEVICE_OBJECT device = extension->Self;
    NTSTATUS status = SetControlLineState(device, kLineRts);
    if (NT_SUCCESS(status))
        status = SetControlLineState(device, 0);
    if (NT_SUCCESS(status))
        status = SetCommFeature(device, kAbstractState, 0x0003);
    return status;
}
