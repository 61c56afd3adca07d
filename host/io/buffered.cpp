#include "io/buffered.h"

#include "io/io_manager.h"
#include "io/irp.h"
#include "io/memory.h"

#include <algorithm>
#include <cstring>

namespace host {

bool IopBufferRequest(PIRP irp, std::span<const std::byte> input, std::span<std::byte> output)
{
    const std::size_t size = std::max(input.size(), output.size());
    irp->UserBuffer = output.data();
    irp->Flags |= IRP_BUFFERED_IO;
    if (size == 0)
        return true;
    void* buffer = IopAllocateMemory(size);
    if (buffer == nullptr)
        return false;
    std::memset(buffer, std::to_integer<int>(IoManager::Current().SystemBufferFill()), size);
    if (!input.empty())
        std::memcpy(buffer, input.data(), input.size());
    irp->AssociatedIrp.SystemBuffer = buffer;
    irp->Flags |= IRP_DEALLOCATE_BUFFER;
    if (!output.empty())
        irp->Flags |= IRP_INPUT_OPERATION;
    return true;
}

void IopUnbufferRequest(PIRP irp, std::size_t capacity)
{
    const bool copies = (irp->Flags & IRP_BUFFERED_IO) != 0 && (irp->Flags & IRP_INPUT_OPERATION) != 0;
    if (copies && !NT_ERROR(irp->IoStatus.Status) && irp->IoStatus.Information != 0) {
        // More than the buffer holds was reported as a finding; the client's memory is spared.
        const std::size_t length = std::min<std::size_t>(irp->IoStatus.Information, capacity);
        std::memcpy(irp->UserBuffer, irp->AssociatedIrp.SystemBuffer, length);
    }
    if ((irp->Flags & IRP_DEALLOCATE_BUFFER) != 0) {
        IopFreeMemory(irp->AssociatedIrp.SystemBuffer);
        irp->AssociatedIrp.SystemBuffer = nullptr;
        irp->Flags &= ~static_cast<ULONG>(IRP_DEALLOCATE_BUFFER);
    }
}

bool IopBufferDeviceControl(PIRP irp, PIO_STACK_LOCATION location, ULONG code,
                            std::span<const std::byte> input, std::span<std::byte> output)
{
    location->Parameters.DeviceIoControl.IoControlCode = code;
    location->Parameters.DeviceIoControl.InputBufferLength = static_cast<ULONG>(input.size());
    location->Parameters.DeviceIoControl.OutputBufferLength = static_cast<ULONG>(output.size());
    switch (METHOD_FROM_CTL_CODE(code)) {
    case METHOD_BUFFERED: return IopBufferRequest(irp, input, output);
    case METHOD_NEITHER:
        location->Parameters.DeviceIoControl.Type3InputBuffer = const_cast<std::byte*>(input.data());
        irp->UserBuffer = output.data();
        return true;
    default: {
        // Direct: the input is buffered, the other buffer is lent. An MDL is opaque to drivers here, so
        // its address is the buffer's.
        const bool buffered = IopBufferRequest(irp, input, {});
        irp->UserBuffer = output.data();
        irp->MdlAddress = output.empty() ? nullptr : reinterpret_cast<PMDL>(output.data());
        return buffered;
    }
    }
}

} // namespace host
