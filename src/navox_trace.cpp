// The driver's trace provider. The routines of the trace facility are looked up by name, so that the driver
// loads on systems that lack them.

#include "navox.h"

#include <stdarg.h>

namespace {

// {6E61766F-7847-5053-8A11-0C0DCAC3A0D1}
constexpr GUID kProvider = {0x6E61766F, 0x7847, 0x5053, {0x8A, 0x11, 0x0C, 0x0D, 0xCA, 0xC3, 0xA0, 0xD1}};

struct Provider {
    REGHANDLE Handle;
    decltype(&EtwWrite) Write;
    decltype(&EtwUnregister) Unregister;
    Racy<LONG> Level; // the highest level that a session asked for; 0: none
    Racy<ULONGLONG> Flags;
};
constinit Provider TheProvider = {};

template <class Routine>
Routine FindSystemRoutine(PCWSTR name)
{
    UNICODE_STRING string;
    RtlInitUnicodeString(&string, name);
    return reinterpret_cast<Routine>(MmGetSystemRoutineAddress(&string));
}

void NTAPI OnEnable(LPCGUID, ULONG enable, UCHAR level, ULONGLONG any, ULONGLONG, PEVENT_FILTER_DESCRIPTOR,
                    PVOID)
{
    // An empty keyword mask asks for everything.
    TheProvider.Flags = any != 0 ? any : ~0ULL;
    TheProvider.Level = enable == 0 ? 0 : level != 0 ? level : 0xFF;
}

} // namespace

void TraceRegister()
{
    const auto registerProvider = FindSystemRoutine<decltype(&EtwRegister)>(L"EtwRegister");
    TheProvider.Write = FindSystemRoutine<decltype(&EtwWrite)>(L"EtwWrite");
    TheProvider.Unregister = FindSystemRoutine<decltype(&EtwUnregister)>(L"EtwUnregister");
    if (registerProvider == nullptr || TheProvider.Write == nullptr || TheProvider.Unregister == nullptr)
        return;
    if (!NT_SUCCESS(registerProvider(&kProvider, OnEnable, nullptr, &TheProvider.Handle)))
        TheProvider.Handle = 0;
}

void TraceUnregister()
{
    if (TheProvider.Handle != 0)
        TheProvider.Unregister(TheProvider.Handle);
    TheProvider = {};
}

bool TraceEnabled(TraceFlag flag, TraceLevel level)
{
    return level <= TheProvider.Level && (TheProvider.Flags & flag) != 0;
}

void TraceWrite(TraceFlag flag, TraceLevel level, const char* format, ...)
{
    char line[256];
    va_list arguments;
    va_start(arguments, format);
    RtlStringCbVPrintfA(line, sizeof(line), format, arguments);
    va_end(arguments);

    SIZE_T length = 0;
    while (line[length] != '\0')
        ++length;
    const EVENT_DESCRIPTOR event = {.Id = 1,
                                    .Version = 0,
                                    .Channel = 0,
                                    .Level = level,
                                    .Opcode = 0,
                                    .Task = 0,
                                    .Keyword = static_cast<ULONGLONG>(flag)};
    EVENT_DATA_DESCRIPTOR data = {reinterpret_cast<ULONGLONG>(line), static_cast<ULONG>(length + 1), 0};
    TheProvider.Write(TheProvider.Handle, &event, nullptr, 1, &data);
}

const char* PnpStateName(ULONG state)
{
    switch (state) {
    case STATE_REMOVED: return "STATE_REMOVED";
    case STATE_SURPRISE_REMOVED: return "STATE_SURPRISE_REMOVED";
    case STATE_NEVER_STARTED: return "STATE_NEVER_STARTED";
    case STATE_STARTED: return "STATE_STARTED";
    case STATE_STOP_PENDING: return "STATE_STOP_PENDING";
    case STATE_REMOVE_PENDING: return "STATE_REMOVE_PENDING";
    case STATE_STOPPED: return "STATE_STOPPED";
    default: return "*********UNKNOWN STATE Value"; // STATE_POWER_QUERIED too
    }
}

const char* PnpMinorName(UCHAR minor)
{
    static constexpr const char* names[] = {
        "IRP_MN_START_DEVICE",
        "IRP_MN_QUERY_REMOVE_DEVICE",
        "IRP_MN_REMOVE_DEVICE",
        "IRP_MN_CANCEL_REMOVE_DEVICE",
        "IRP_MN_STOP_DEVICE",
        "IRP_MN_QUERY_STOP_DEVICE",
        "IRP_MN_CANCEL_STOP_DEVICE",
        "IRP_MN_QUERY_DEVICE_RELATIONS",
        "IRP_MN_QUERY_INTERFACE",
        "IRP_MN_QUERY_CAPABILITIES",
        "IRP_MN_QUERY_RESOURCES",
        "IRP_MN_QUERY_RESOURCE_REQUIREMENTS",
        "IRP_MN_QUERY_DEVICE_TEXT",
        "IRP_MN_FILTER_RESOURCE_REQUIREMENTS",
        "unknown minor code 0x0E",
        "IRP_MN_READ_CONFIG",
        "IRP_MN_WRITE_CONFIG",
        "IRP_MN_EJECT",
        "IRP_MN_SET_LOCK",
        "IRP_MN_QUERY_ID",
        "IRP_MN_QUERY_PNP_DEVICE_STATE",
        "IRP_MN_QUERY_BUS_INFORMATION",
        "IRP_MN_DEVICE_USAGE_NOTIFICATION",
        "IRP_MN_SURPRISE_REMOVAL",
    };
    return minor < RTL_NUMBER_OF(names) ? names[minor] : "unknown minor code";
}

const char* PowerMinorName(UCHAR minor)
{
    static constexpr const char* names[] = {"IRP_MN_WAIT_WAKE", "IRP_MN_POWER_SEQUENCE", "IRP_MN_SET_POWER",
                                            "IRP_MN_QUERY_POWER"};
    return minor < RTL_NUMBER_OF(names) ? names[minor] : "unknown minor code";
}

const char* DevicePowerStateName(DEVICE_POWER_STATE state)
{
    switch (state) {
    case PowerDeviceUnspecified: return "PowerDeviceUnspecified";
    case PowerDeviceD0: return "PowerDeviceD0";
    case PowerDeviceD1: return "PowerDeviceD1";
    case PowerDeviceD2: return "PowerDeviceD2";
    case PowerDeviceD3: return "PowerDeviceD3";
    case PowerDeviceMaximum: return "PowerDeviceMaximum";
    default: return "Unknown Device Power State ???? Error";
    }
}

const char* SystemPowerStateName(SYSTEM_POWER_STATE state)
{
    switch (state) {
    case PowerSystemUnspecified: return "PowerSystemUnspecified";
    case PowerSystemWorking: return "PowerSystemWorking";
    case PowerSystemSleeping1: return "PowerSystemSleeping1";
    case PowerSystemSleeping2: return "PowerSystemSleeping2";
    case PowerSystemSleeping3: return "PowerSystemSleeping3";
    case PowerSystemHibernate: return "PowerSystemHibernate";
    case PowerSystemShutdown: return "PowerSystemShutdown";
    case PowerSystemMaximum: return "PowerSystemMaximum";
    default: return "Unknown Power State ?????? Error";
    }
}
