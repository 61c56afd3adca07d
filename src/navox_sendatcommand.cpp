#include "navox_sendatcommand.h"

#include "navox_usb.h"
#include "navox_utils.h"

namespace {

constexpr char kStreamCommand[] = "AT*Q7GPSNPD\r\n";
constexpr ULONG kStreamCommandLength = sizeof(kStreamCommand) - 1;
static_assert(kStreamCommandLength == 13);
constexpr LONGLONG kResponseTimeout = -70'000'000; // 7 s

// Whether the packet begins with the text. The response buffer may be shorter than the text; what it lacks
// counts as zero bytes, which no text has.
template <SIZE_T N>
bool BeginsWith(const UCHAR* packet, ULONG size, const char (&text)[N])
{
    constexpr SIZE_T length = N - 1;
    return size >= length && RtlCompareMemory(packet, text, length) == length;
}

// Every step is counted before it reads a pipe's handle: a stop closes the pipes when nothing is counted any more, and
// the next start gives them new handles.
void ResetIfStarted(DEVICE_EXTENSION* extension, const USBD_PIPE_INFORMATION& pipe)
{
    const PendingIoIfStarted pending(extension);
    if (pending)
        (void)ResetPipe(extension->Self, pipe);
}

} // namespace

NTSTATUS WriteAtCommand(DEVICE_EXTENSION* extension, const char* /*command*/)
{
    const PendingIoIfStarted pending(extension);
    if (!pending)
        return STATUS_DELETE_PENDING;
    PoolPointer<URB, kTagAtUrb> urb;
    if (!urb.Allocate(NonPagedPool, kUrbAllocation))
        return STATUS_INSUFFICIENT_RESOURCES;
    BuildTransferUrb(urb.get(), extension->BulkOutPipe, const_cast<char*>(kStreamCommand),
                     kStreamCommandLength);
    return SubmitUrbOrAbort(extension, urb.get());
}

NTSTATUS ReadAtResponse(DEVICE_EXTENSION* extension, UCHAR* buffer, ULONG size)
{
    const PendingIoIfStarted pending(extension);
    if (!pending)
        return STATUS_DELETE_PENDING;
    const ULONG packetSize = extension->BulkInPipe.MaximumPacketSize;
    PoolPointer<URB, kTagAtUrb> urb;
    PoolPointer<UCHAR, kTagAtPacket> packet;
    if (!urb.Allocate(NonPagedPool, kUrbAllocation) || !packet.Allocate(NonPagedPool, packetSize + 1))
        return STATUS_INSUFFICIENT_RESOURCES;

    LARGE_INTEGER timeout;
    timeout.QuadPart = kResponseTimeout;
    BuildTransferUrb(urb.get(), extension->BulkInPipe, packet.get(), packetSize);
    const NTSTATUS status = SubmitUrbOrAbort(extension, urb.get(), &timeout);
    RtlZeroMemory(buffer, size);
    if (!NT_SUCCESS(status))
        return status;

    const ULONG received = urb->UrbBulkOrInterruptTransfer.TransferBufferLength;
    if (received > packetSize)
        return STATUS_BUFFER_OVERFLOW; // more than was asked for: nothing of it can be trusted
    packet.get()[received] = 0;
    if (size < received)
        return STATUS_BUFFER_OVERFLOW;
    RtlCopyMemory(buffer, packet.get(), received);
    return status;
}

NTSTATUS SendAtCommand(DEVICE_EXTENSION* extension)
{
    ResetIfStarted(extension, extension->BulkOutPipe);
    ResetIfStarted(extension, extension->BulkInPipe);
    (void)WriteAtCommand(extension, kStreamCommand);

    const ULONG size = extension->BulkInPipe.MaximumPacketSize + 1UL;
    PoolPointer<UCHAR, kTagAtResponse> response;
    if (!response.Allocate(NonPagedPool, size))
        return STATUS_INSUFFICIENT_RESOURCES;

    NTSTATUS status = ReadAtResponse(extension, response.get(), size);
    // why: a failed first read is looked at all the same if it left the beginning of a sentence.
    if (!NT_SUCCESS(status) && !BeginsWith(response.get(), size, "$"))
        return status;
    for (;;) {
        if (BeginsWith(response.get(), size, "$") || BeginsWith(response.get(), size, "\r\nOK\r\n")) {
            extension->AtCommandPending = FALSE;
            return STATUS_SUCCESS;
        }
        if (BeginsWith(response.get(), size, "\r\nERROR\r\n")) {
            extension->AtCommandPending = TRUE;
            return STATUS_UNSUCCESSFUL;
        }
        status = ReadAtResponse(extension, response.get(), size);
        if (!NT_SUCCESS(status))
            return status;
    }
}
