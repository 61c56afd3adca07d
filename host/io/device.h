// Device objects and their stacks.
#pragma once

#include "ke/kernel.h"

#include <atomic>
#include <memory>
#include <string>
#include <wdm/io.h>

namespace host {
class PnpNode;
struct PoDevice;
} // namespace host

// What the I/O manager keeps beside a device object.
struct _DEVOBJ_EXTENSION {
    _DEVOBJ_EXTENSION();
    ~_DEVOBJ_EXTENSION();
    _DEVOBJ_EXTENSION(const _DEVOBJ_EXTENSION&) = delete;
    _DEVOBJ_EXTENSION& operator=(const _DEVOBJ_EXTENSION&) = delete;

    PDEVICE_OBJECT attached_to = nullptr; // the device below
    host::PnpNode* node = nullptr;        // of a physical device object
    std::unique_ptr<host::PoDevice> power;
    LONG pointer_references = 0;
    std::atomic<bool> delete_pending{false}; // IoDeleteDevice was called, references remain
    bool wmi_registered = false;
    std::string owner; // the driver's name, for reports
};

namespace host {

// The device on top of the stack that `device` belongs to.
PDEVICE_OBJECT IopTopOf(PDEVICE_OBJECT device);
// And the one at its bottom.
PDEVICE_OBJECT IopBottomOf(PDEVICE_OBJECT device);

// "\Device\x (driver)", for reports.
std::string IopDescribeDevice(PDEVICE_OBJECT device);

// One reference by pointer; the device's memory stays while there are any. Returns how many there are then; negative:
// there was none, and nothing has changed. IRQL <= DISPATCH_LEVEL.
LONG IopReferenceDevice(PDEVICE_OBJECT device);
LONG IopDereferenceDevice(PDEVICE_OBJECT device);

// Ends an open of the device (DEVICE_OBJECT.ReferenceCount counts them).
void IopCountClose(PDEVICE_OBJECT device);

} // namespace host
