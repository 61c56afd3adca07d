// The platform as the library of the user-mode kernel wants it, on the platform's own headers.
#pragma once

#include <ntddk.h>

extern "C" {
#include <wmistr.h>

#include <wmilib.h>
}

#include <cstddef>

namespace host {

enum class Rule { IrqlPassive };

// The driver's imports are watched by the bus.
inline void VfRequireIrqlAtMost(KIRQL, Rule, const char*, const void*) {}

inline void IopReferenceDevice(PDEVICE_OBJECT device)
{
    ObReferenceObject(device);
}

} // namespace host
