// The routines that a driver can look up by name because not every version of the system has them.
#include "ke/kernel_impl.h"

#include <string>
#include <string_view>
#include <wdm/etw.h>
#include <wdm/ps.h>
#include <wdm/rtl.h>

using namespace host;

namespace {

struct SystemRoutine {
    std::string_view name;
    PVOID address;
};

#define ROUTINE(name)                                                                                        \
    {                                                                                                        \
#name, reinterpret_cast < PVOID>(&name)                                                              \
    }
const SystemRoutine kRoutines[] = {
    ROUTINE(DbgPrint),
    ROUTINE(DbgPrintEx),
    ROUTINE(EtwEventEnabled),
    ROUTINE(EtwRegister),
    ROUTINE(EtwUnregister),
    ROUTINE(EtwWrite),
    ROUTINE(ExAllocatePoolWithTag),
    ROUTINE(ExFreePool),
    ROUTINE(ExFreePoolWithTag),
    ROUTINE(KeBugCheckEx),
    ROUTINE(KeFlushQueuedDpcs),
    ROUTINE(KeQueryActiveProcessorCount),
    ROUTINE(KeQueryInterruptTime),
    ROUTINE(KeQuerySystemTime),
    ROUTINE(PsGetCurrentProcessId),
    ROUTINE(PsGetVersion),
    ROUTINE(RtlCompareMemory),
    ROUTINE(RtlIsNtDdiVersionAvailable),
    ROUTINE(RtlUnicodeStringToInteger),
};
#undef ROUTINE

// Exported names are ASCII.
std::string NameIn(const UNICODE_STRING& text)
{
    std::string name;
    for (std::size_t i = 0; i < text.Length / sizeof(WCHAR); ++i)
        name += static_cast<char>(text.Buffer[i] < 0x80 ? text.Buffer[i] : '?');
    return name;
}

} // namespace

PVOID NTAPI MmGetSystemRoutineAddress(PUNICODE_STRING SystemRoutineName)
{
    const void* const caller = __builtin_return_address(0);
    VfRequireIrqlAtMost(PASSIVE_LEVEL, Rule::IrqlPassive, __func__, caller);
    VfRequireString(SystemRoutineName, __func__, caller);
    const std::string name = NameIn(*SystemRoutineName);
    if (KiKernel().options.hidden_routines.contains(name))
        return nullptr;
    for (const SystemRoutine& routine : kRoutines) {
        if (routine.name == name)
            return routine.address;
    }
    return nullptr;
}
