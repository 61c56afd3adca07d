// Buffered I/O: one system buffer that carries the input down and the output up.
#pragma once

#include <span>
#include <wdm/irp.h>

namespace host {

// Gives `irp` a system buffer with room for both, the input copied in and the rest holding the fill pattern.
// `output` is where the answer is copied on completion; it may overlap `input`. False when memory is short.
bool IopBufferRequest(PIRP irp, std::span<const std::byte> input, std::span<std::byte> output);

// On completion: copies Information bytes out, unless the request failed, and frees the system buffer.
// `capacity` is the room of the output.
void IopUnbufferRequest(PIRP irp, std::size_t capacity);

// Lays out a device-control request's buffers by the transfer method of its code.
bool IopBufferDeviceControl(PIRP irp, PIO_STACK_LOCATION location, ULONG code,
                            std::span<const std::byte> input, std::span<std::byte> output);

} // namespace host
