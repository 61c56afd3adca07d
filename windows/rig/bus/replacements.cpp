// Which of Wine's kernel routines are replaced, in memory and before the driver under test is loaded, and why.
#include "windows/rig/bus/replacements.h"

#include "windows/rig/bus/bus.h"

namespace {

struct Replacement {
    const wchar_t* name;
    void* routine;
};

template <class Routine>
void* Address(Routine* routine)
{
    return reinterpret_cast<void*>(routine);
}

} // namespace

BOOLEAN NTAPI RigIsNtDdiVersionAvailable(ULONG version)
{
    return version <= NTDDI_WIN10;
}

NTSTATUS NTAPI RigWmiRegistrationControl(PDEVICE_OBJECT device, ULONG action)
{
    for (Port& port : g_bus.ports) {
        // The driver registers its own device object, which stands on the port's.
        if (port.pdo == nullptr || port.pdo->AttachedDevice != device)
            continue;
        if (action == WMIREG_ACTION_REGISTER)
            InterlockedIncrement(&port.wmi);
        else if (action == WMIREG_ACTION_DEREGISTER)
            InterlockedDecrement(&port.wmi);
        return STATUS_SUCCESS;
    }
    RigReport("IoWMIRegistrationControl: no module has the device %p", static_cast<void*>(device));
    return STATUS_INVALID_PARAMETER;
}

NTSTATUS ReplaceRoutines()
{
    if (RigStartProcessor() == 0)
        return STATUS_UNSUCCESSFUL;
    // Not outside: addresses of this type need a constructor, which nobody would run.
    const Replacement replacements[] = {
        // Spin locks work, but leave the level where it is.
        {L"KeAcquireSpinLockRaiseToDpc", Address(RigAcquireSpinLockRaiseToDpc)},
        {L"KeReleaseSpinLock", Address(RigReleaseSpinLock)},
        {L"KeAcquireSpinLockAtDpcLevel", Address(RigAcquireSpinLockAtDpcLevel)},
        {L"KeReleaseSpinLockFromDpcLevel", Address(RigReleaseSpinLockFromDpcLevel)},
        // Goes back to level 0, wherever it came from.
        {L"IoAcquireCancelSpinLock", Address(RigAcquireCancelSpinLock)},
        {L"IoReleaseCancelSpinLock", Address(RigReleaseCancelSpinLock)},
        // The same, for a request without a cancel routine.
        {L"IoCancelIrp", Address(RigCancelIrp)},
        // Says that the DPC is queued and never runs it.
        {L"KeInsertQueueDpc", Address(RigInsertQueueDpc)},
        // Goes with the former.
        {L"KeInitializeDpc", Address(RigInitializeDpc)},
        // Raises an exception.
        {L"KeRemoveQueueDpc", Address(RigRemoveQueueDpc)},
        // Does nothing.
        {L"KeFlushQueuedDpcs", Address(RigFlushQueuedDpcs)},
        // Run the DPC themselves, at no level and out of reach of KeRemoveQueueDpc.
        {L"KeSetTimer", Address(RigSetTimer)},
        {L"KeSetTimerEx", Address(RigSetTimerEx)},
        // TRUE for a timer that has expired already.
        {L"KeCancelTimer", Address(RigCancelTimer)},
        // Raises an exception.
        {L"PoRequestPowerIrp", Address(RigRequestPowerIrp)},
        // FALSE for every version, as if this were older than the oldest.
        {L"RtlIsNtDdiVersionAvailable", Address(RigIsNtDdiVersionAvailable)},
        // Does nothing; here it counts.
        {L"IoWMIRegistrationControl", Address(RigWmiRegistrationControl)},
    };
    for (const Replacement& replacement : replacements) {
        UNICODE_STRING name;
        RtlInitUnicodeString(&name, replacement.name);
        void* routine = MmGetSystemRoutineAddress(&name);
        if (routine == nullptr || RigReplace(routine, replacement.routine) == 0)
            return STATUS_PROCEDURE_NOT_FOUND;
    }
    return STATUS_SUCCESS;
}
