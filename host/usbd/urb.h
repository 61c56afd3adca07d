// URBs: names, lengths, and what their statuses mean to the I/O manager.
#pragma once

#include <ntstatus.h>
#include <optional>
#include <usb.h>

namespace host {

// A string literal: "BULK_OR_INTERRUPT_TRANSFER".
const char* UrbFunctionName(USHORT function);

// The length that a URB of this function has in its header; nothing for functions that the bus does not know,
// 0 for those of varying length.
std::optional<USHORT> UrbLength(USHORT function);

// The status that a request completes with whose URB ended with `status`.
NTSTATUS UrbNtStatus(USBD_STATUS status);

bool UrbIsTransfer(USHORT function); // bulk or interrupt
// Functions that a driver may submit only at PASSIVE_LEVEL.
bool UrbIsPassive(USHORT function);

} // namespace host
