// Trace points: one macro, a flag that names the subject and a level. Diagnostics only: nothing depends on
// them.
#pragma once

#include "navox_ddk.h"

enum TraceFlag : ULONGLONG {
    TRACE_LOAD = 0x01,
    TRACE_PNP = 0x02,
    TRACE_POWER = 0x04,
    TRACE_CREATE = 0x08,
    TRACE_READ = 0x10,
    TRACE_READER = 0x20,
    TRACE_CONTROL = 0x40,
    TRACE_USB = 0x80,
    TRACE_IDLE = 0x100,
    TRACE_WMI = 0x200,
    TRACE_COUNT = 0x400,
};

// As the system's trace facility numbers them.
enum TraceLevel : UCHAR { LEVEL_ERROR = 2, LEVEL_WARNING = 3, LEVEL_INFORMATION = 4, LEVEL_VERBOSE = 5 };

// Finds the trace facility and registers with it. Where the system has none, nothing is traced.
_IRQL_requires_(PASSIVE_LEVEL) void TraceRegister();
// Nothing is traced from here on.
_IRQL_requires_(PASSIVE_LEVEL) void TraceUnregister();

_IRQL_requires_max_(DISPATCH_LEVEL) bool TraceEnabled(TraceFlag flag, TraceLevel level);

// Formats and writes one line of at most 255 characters.
_IRQL_requires_max_(DISPATCH_LEVEL) void TraceWrite(TraceFlag flag, TraceLevel level, const char* format,
                                                    ...);

#define TRACE(flag, level, ...)                                                                              \
    do {                                                                                                     \
        if (TraceEnabled(flag, level))                                                                       \
            TraceWrite(flag, level, __VA_ARGS__);                                                            \
    } while (false)

// Names for traces, at any IRQL; an unknown value has a name too.
const char* PnpStateName(ULONG state);
const char* PnpMinorName(UCHAR minor);
const char* PowerMinorName(UCHAR minor);
const char* DevicePowerStateName(DEVICE_POWER_STATE state);
const char* SystemPowerStateName(SYSTEM_POWER_STATE state);
