// Memory of the I/O manager's own objects. What a driver can reach lies in guarded blocks, so that a use
// after the end is caught.
#pragma once

#include <cstddef>
#include <ntdef.h>

namespace host {

// Not initialised; nullptr when memory is short. IRQL <= DISPATCH_LEVEL.
void* IopAllocateMemory(std::size_t bytes);
void IopFreeMemory(void* memory);

} // namespace host
