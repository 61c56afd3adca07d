// Io: the I/O and Plug and Play manager's routines.
#pragma once
#include <wdm/irp.h>

typedef struct _IO_WORKITEM* PIO_WORKITEM;
typedef VOID NTAPI IO_WORKITEM_ROUTINE(PDEVICE_OBJECT DeviceObject, PVOID Context);
typedef IO_WORKITEM_ROUTINE* PIO_WORKITEM_ROUTINE;

typedef enum _WORK_QUEUE_TYPE {
    CriticalWorkQueue,
    DelayedWorkQueue,
    HyperCriticalWorkQueue,
    MaximumWorkQueue
} WORK_QUEUE_TYPE;

/// How many devices of each kind the machine has; drivers count their own in and out.
typedef struct _CONFIGURATION_INFORMATION {
    ULONG DiskCount;
    ULONG FloppyCount;
    ULONG CdRomCount;
    ULONG TapeCount;
    ULONG ScsiPortCount;
    ULONG SerialCount;
    ULONG ParallelCount;
    BOOLEAN AtDiskPrimaryAddressClaimed;
    BOOLEAN AtDiskSecondaryAddressClaimed;
    ULONG Version;
    ULONG MediumChangerCount;
} CONFIGURATION_INFORMATION, *PCONFIGURATION_INFORMATION;

typedef enum {
    DevicePropertyDeviceDescription,
    DevicePropertyHardwareID,
    DevicePropertyCompatibleIDs,
    DevicePropertyBootConfiguration,
    DevicePropertyBootConfigurationTranslated,
    DevicePropertyClassName,
    DevicePropertyClassGuid,
    DevicePropertyDriverKeyName,
    DevicePropertyManufacturer,
    DevicePropertyFriendlyName,
    DevicePropertyLocationInformation,
    DevicePropertyPhysicalDeviceObjectName,
    DevicePropertyBusTypeGuid,
    DevicePropertyLegacyBusType,
    DevicePropertyBusNumber,
    DevicePropertyEnumeratorName,
    DevicePropertyAddress,
    DevicePropertyUINumber
} DEVICE_REGISTRY_PROPERTY;

#define PLUGPLAY_REGKEY_DEVICE 1
#define PLUGPLAY_REGKEY_DRIVER 2
#define PLUGPLAY_REGKEY_CURRENT_HWPROFILE 4

#define WMIREG_ACTION_REGISTER 1
#define WMIREG_ACTION_DEREGISTER 2
#define WMIREG_ACTION_REREGISTER 3
#define WMIREG_ACTION_UPDATE_GUIDS 4
#define WMIREG_ACTION_BLOCK_IRPS 5

extern "C" {

// Devices.
_IRQL_requires_max_(APC_LEVEL) NTSTATUS NTAPI
    IoCreateDevice(PDRIVER_OBJECT DriverObject, ULONG DeviceExtensionSize, PUNICODE_STRING DeviceName,
                   DEVICE_TYPE DeviceType, ULONG DeviceCharacteristics, BOOLEAN Exclusive,
                   PDEVICE_OBJECT* DeviceObject);
_IRQL_requires_max_(APC_LEVEL) VOID NTAPI IoDeleteDevice(PDEVICE_OBJECT DeviceObject);
/// The device that was on top before, nullptr on failure.
_IRQL_requires_max_(DISPATCH_LEVEL) PDEVICE_OBJECT NTAPI
    IoAttachDeviceToDeviceStack(PDEVICE_OBJECT SourceDevice, PDEVICE_OBJECT TargetDevice);
_IRQL_requires_max_(PASSIVE_LEVEL) VOID NTAPI IoDetachDevice(PDEVICE_OBJECT TargetDevice);
_IRQL_requires_max_(DISPATCH_LEVEL) PDEVICE_OBJECT NTAPI
    IoGetAttachedDeviceReference(PDEVICE_OBJECT DeviceObject);
_IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS NTAPI
    IoCreateSymbolicLink(PUNICODE_STRING SymbolicLinkName, PUNICODE_STRING DeviceName);
_IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS NTAPI IoDeleteSymbolicLink(PUNICODE_STRING SymbolicLinkName);

// Requests.
_IRQL_requires_max_(DISPATCH_LEVEL) PIRP NTAPI IoAllocateIrp(CCHAR StackSize, BOOLEAN ChargeQuota);
_IRQL_requires_max_(DISPATCH_LEVEL) VOID NTAPI IoFreeIrp(PIRP Irp);
VOID NTAPI IoInitializeIrp(PIRP Irp, USHORT PacketSize, CCHAR StackSize);
VOID NTAPI IoReuseIrp(PIRP Irp, NTSTATUS Iostatus);
_IRQL_requires_max_(DISPATCH_LEVEL) NTSTATUS NTAPI IofCallDriver(PDEVICE_OBJECT DeviceObject, PIRP Irp);
_IRQL_requires_max_(DISPATCH_LEVEL) VOID NTAPI IofCompleteRequest(PIRP Irp, CCHAR PriorityBoost);
/// True when a cancel routine was set and has been called.
_IRQL_requires_max_(DISPATCH_LEVEL) BOOLEAN NTAPI IoCancelIrp(PIRP Irp);
_IRQL_requires_max_(DISPATCH_LEVEL) VOID NTAPI IoAcquireCancelSpinLock(PKIRQL Irql);
_IRQL_requires_(DISPATCH_LEVEL) VOID NTAPI IoReleaseCancelSpinLock(KIRQL Irql);
/// The calling thread gets the completion, so it must still be there then; never free this request.
_IRQL_requires_max_(PASSIVE_LEVEL) PIRP NTAPI
    IoBuildDeviceIoControlRequest(ULONG IoControlCode, PDEVICE_OBJECT DeviceObject, PVOID InputBuffer,
                                  ULONG InputBufferLength, PVOID OutputBuffer, ULONG OutputBufferLength,
                                  BOOLEAN InternalDeviceIoControl, PKEVENT Event,
                                  PIO_STATUS_BLOCK IoStatusBlock);
_IRQL_requires_max_(DISPATCH_LEVEL) ULONG NTAPI IoGetRequestorProcessId(PIRP Irp);

// Work items.
_IRQL_requires_max_(DISPATCH_LEVEL) PIO_WORKITEM NTAPI IoAllocateWorkItem(PDEVICE_OBJECT DeviceObject);
_IRQL_requires_max_(DISPATCH_LEVEL) VOID NTAPI IoFreeWorkItem(PIO_WORKITEM IoWorkItem);
_IRQL_requires_max_(DISPATCH_LEVEL) VOID NTAPI
    IoQueueWorkItem(PIO_WORKITEM IoWorkItem, PIO_WORKITEM_ROUTINE WorkerRoutine, WORK_QUEUE_TYPE QueueType,
                    PVOID Context);

// Plug and Play.
_IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS NTAPI
    IoRegisterDeviceInterface(PDEVICE_OBJECT PhysicalDeviceObject, const GUID* InterfaceClassGuid,
                              PUNICODE_STRING ReferenceString, PUNICODE_STRING SymbolicLinkName);
_IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS NTAPI
    IoSetDeviceInterfaceState(PUNICODE_STRING SymbolicLinkName, BOOLEAN Enable);
_IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS NTAPI
    IoOpenDeviceRegistryKey(PDEVICE_OBJECT DeviceObject, ULONG DevInstKeyType, ACCESS_MASK DesiredAccess,
                            PHANDLE DeviceRegKey);
_IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS NTAPI
    IoGetDeviceProperty(PDEVICE_OBJECT DeviceObject, DEVICE_REGISTRY_PROPERTY DeviceProperty,
                        ULONG BufferLength, PVOID PropertyBuffer, PULONG ResultLength);
_IRQL_requires_max_(DISPATCH_LEVEL) VOID NTAPI IoInvalidateDeviceState(PDEVICE_OBJECT PhysicalDeviceObject);
_IRQL_requires_max_(DISPATCH_LEVEL) VOID NTAPI
    IoInvalidateDeviceRelations(PDEVICE_OBJECT DeviceObject, DEVICE_RELATION_TYPE Type);
_IRQL_requires_max_(PASSIVE_LEVEL) PCONFIGURATION_INFORMATION NTAPI IoGetConfigurationInformation();
_IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS NTAPI
    IoWMIRegistrationControl(PDEVICE_OBJECT DeviceObject, ULONG Action);

} // extern "C"

#define IoCallDriver IofCallDriver
#define IoCompleteRequest IofCompleteRequest

inline USHORT IoSizeOfIrp(CCHAR StackSize)
{
    return static_cast<USHORT>(sizeof(IRP) + static_cast<USHORT>(StackSize) * sizeof(IO_STACK_LOCATION));
}

inline PIO_STACK_LOCATION IoGetCurrentIrpStackLocation(PIRP Irp)
{
    return Irp->Tail.Overlay.CurrentStackLocation;
}

inline PIO_STACK_LOCATION IoGetNextIrpStackLocation(PIRP Irp)
{
    return Irp->Tail.Overlay.CurrentStackLocation - 1;
}

inline VOID IoSetNextIrpStackLocation(PIRP Irp)
{
    --Irp->CurrentLocation;
    --Irp->Tail.Overlay.CurrentStackLocation;
}

inline VOID IoSkipCurrentIrpStackLocation(PIRP Irp)
{
    ++Irp->CurrentLocation;
    ++Irp->Tail.Overlay.CurrentStackLocation;
}

/// Everything but the completion routine, its context and the control bits.
inline VOID IoCopyCurrentIrpStackLocationToNext(PIRP Irp)
{
    PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(Irp);
    RtlCopyMemory(next, IoGetCurrentIrpStackLocation(Irp), offsetof(IO_STACK_LOCATION, CompletionRoutine));
    next->Control = 0;
}

inline VOID IoSetCompletionRoutine(PIRP Irp, PIO_COMPLETION_ROUTINE CompletionRoutine, PVOID Context,
                                   BOOLEAN InvokeOnSuccess, BOOLEAN InvokeOnError, BOOLEAN InvokeOnCancel)
{
    PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(Irp);
    next->CompletionRoutine = CompletionRoutine;
    next->Context = Context;
    next->Control = static_cast<UCHAR>((InvokeOnSuccess ? SL_INVOKE_ON_SUCCESS : 0) |
                                       (InvokeOnError ? SL_INVOKE_ON_ERROR : 0) |
                                       (InvokeOnCancel ? SL_INVOKE_ON_CANCEL : 0));
}

inline VOID IoMarkIrpPending(PIRP Irp)
{
    IoGetCurrentIrpStackLocation(Irp)->Control |= SL_PENDING_RETURNED;
}

/// Returns the routine that was set before; nullptr when IoCancelIrp has taken it.
inline PDRIVER_CANCEL IoSetCancelRoutine(PIRP Irp, PDRIVER_CANCEL CancelRoutine)
{
    return reinterpret_cast<PDRIVER_CANCEL>(InterlockedExchangePointer(
        reinterpret_cast<PVOID volatile*>(&Irp->CancelRoutine), reinterpret_cast<PVOID>(CancelRoutine)));
}
