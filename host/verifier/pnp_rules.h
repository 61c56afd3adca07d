// Rules of device objects and of Plug and Play requests.
#pragma once

#include "io/irp.h"

namespace host {

class PnpNode;

// A driver was loaded: does it have the dispatch routines that a driver must have?
void VfDriverLoaded(PDRIVER_OBJECT driver);

// False: the routine must not go on.
bool VfDeviceDelete(PDEVICE_OBJECT device, const void* caller);
bool VfDeviceAttach(PDEVICE_OBJECT source, PDEVICE_OBJECT target, const void* caller);
bool VfDeviceDetach(PDEVICE_OBJECT target, const void* caller);

// A driver passes a request down in its turn, or completes it. Called for every kind; looks at PnP, power and WMI.
void VfPnpForward(const IrpRecord& record, const IRP& irp, const IrpTurn& turn, const void* caller);
void VfPnpComplete(const IrpRecord& record, const IRP& irp, const void* caller);

// AddDevice has returned success for the stack above `pdo`.
void VfDeviceAdded(PDEVICE_OBJECT pdo);

// The stack above a physical device object, as it stood before a request that takes it down.
struct StackBefore {
    std::vector<PDEVICE_OBJECT> devices; // from the one above `pdo` up
};
StackBefore VfStackOf(PDEVICE_OBJECT pdo);
void VfDeviceRemoved(PDEVICE_OBJECT pdo, const StackBefore& before, NTSTATUS status);
void VfDeviceSurpriseRemoved(PDEVICE_OBJECT pdo, const StackBefore& before);

} // namespace host
