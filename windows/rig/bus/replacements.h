// What stands in the place of Wine's kernel routines; their contracts are the platform's.
#pragma once

#include <ntddk.h>

// deferred.cpp: spin locks, cancellation, DPCs and timers
KIRQL NTAPI RigAcquireSpinLockRaiseToDpc(PKSPIN_LOCK lock);
VOID NTAPI RigReleaseSpinLock(PKSPIN_LOCK lock, KIRQL irql);
VOID NTAPI RigAcquireSpinLockAtDpcLevel(PKSPIN_LOCK lock);
VOID NTAPI RigReleaseSpinLockFromDpcLevel(PKSPIN_LOCK lock);
VOID NTAPI RigAcquireCancelSpinLock(PKIRQL irql);
VOID NTAPI RigReleaseCancelSpinLock(KIRQL irql);
BOOLEAN NTAPI RigCancelIrp(PIRP irp);
VOID NTAPI RigInitializeDpc(PRKDPC dpc, PKDEFERRED_ROUTINE routine, PVOID context);
BOOLEAN NTAPI RigInsertQueueDpc(PRKDPC dpc, PVOID argument1, PVOID argument2);
BOOLEAN NTAPI RigRemoveQueueDpc(PRKDPC dpc);
VOID NTAPI RigFlushQueuedDpcs();
BOOLEAN NTAPI RigSetTimer(PKTIMER timer, LARGE_INTEGER due, PKDPC dpc);
BOOLEAN NTAPI RigSetTimerEx(PKTIMER timer, LARGE_INTEGER due, LONG period, PKDPC dpc);
BOOLEAN NTAPI RigCancelTimer(PKTIMER timer);

// power.cpp
NTSTATUS NTAPI RigRequestPowerIrp(PDEVICE_OBJECT device, UCHAR minor, POWER_STATE state,
                                  PREQUEST_POWER_COMPLETE routine, PVOID context, PIRP* irp);

// replacements.cpp
BOOLEAN NTAPI RigIsNtDdiVersionAvailable(ULONG version);
NTSTATUS NTAPI RigWmiRegistrationControl(PDEVICE_OBJECT device, ULONG action);
