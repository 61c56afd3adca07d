// Checks that the exported routines on dispatcher objects, timers and DPCs share.
#pragma once

#include <cstddef>
#include <wdm/ke.h>

namespace host {

// The object was initialised. Reports and makes it usable if not.
void KiRequireInitialized(DISPATCHER_HEADER& header, const char* routine, const void* caller);
// Dispatcher objects and DPCs are touched at DISPATCH_LEVEL by the kernel itself: they must not be paged.
void KiRequireResident(const void* object, const char* routine, const void* caller);

} // namespace host
