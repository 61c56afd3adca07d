// The hub's driver: the device objects of the ports, and the requests they get.
#pragma once

#include <ntstatus.h>
#include <wdm/io.h>

namespace host {

class UsbPort;

NTSTATUS NTAPI UsbHubDriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING registry_path);

// The device object of a port, ready to be reported. IRQL PASSIVE_LEVEL.
NTSTATUS UsbMakePdo(PDRIVER_OBJECT driver, UsbPort* port, std::uint64_t number, PDEVICE_OBJECT* pdo);

UsbPort* UsbPortOf(PDEVICE_OBJECT pdo);

} // namespace host
