// WMILIB: turns system-control requests into calls of a driver's data-block routines.
#pragma once
#include <wdm.h>
#include <wmistr.h>

typedef enum _WMIENABLEDISABLECONTROL {
    WmiEventControl,
    WmiDataBlockControl
} WMIENABLEDISABLECONTROL,
    *PWMIENABLEDISABLECONTROL;

typedef enum _SYSCTL_IRP_DISPOSITION {
    IrpProcessed,
    IrpNotCompleted,
    IrpNotWmi,
    IrpForward
} SYSCTL_IRP_DISPOSITION,
    *PSYSCTL_IRP_DISPOSITION;

typedef struct _WMIGUIDREGINFO {
    LPCGUID Guid;
    ULONG InstanceCount;
    ULONG Flags;
} WMIGUIDREGINFO, *PWMIGUIDREGINFO;

typedef NTSTATUS NTAPI WMI_QUERY_REGINFO_CALLBACK(PDEVICE_OBJECT DeviceObject, PULONG RegFlags,
                                                  PUNICODE_STRING InstanceName, PUNICODE_STRING* RegistryPath,
                                                  PUNICODE_STRING MofResourceName, PDEVICE_OBJECT* Pdo);
typedef WMI_QUERY_REGINFO_CALLBACK* PWMI_QUERY_REGINFO;

typedef NTSTATUS NTAPI WMI_QUERY_DATABLOCK_CALLBACK(PDEVICE_OBJECT DeviceObject, PIRP Irp, ULONG GuidIndex,
                                                    ULONG InstanceIndex, ULONG InstanceCount,
                                                    PULONG InstanceLengthArray, ULONG BufferAvail,
                                                    PUCHAR Buffer);
typedef WMI_QUERY_DATABLOCK_CALLBACK* PWMI_QUERY_DATABLOCK;

typedef NTSTATUS NTAPI WMI_SET_DATABLOCK_CALLBACK(PDEVICE_OBJECT DeviceObject, PIRP Irp, ULONG GuidIndex,
                                                  ULONG InstanceIndex, ULONG BufferSize, PUCHAR Buffer);
typedef WMI_SET_DATABLOCK_CALLBACK* PWMI_SET_DATABLOCK;

typedef NTSTATUS NTAPI WMI_SET_DATAITEM_CALLBACK(PDEVICE_OBJECT DeviceObject, PIRP Irp, ULONG GuidIndex,
                                                 ULONG InstanceIndex, ULONG DataItemId, ULONG BufferSize,
                                                 PUCHAR Buffer);
typedef WMI_SET_DATAITEM_CALLBACK* PWMI_SET_DATAITEM;

typedef NTSTATUS NTAPI WMI_EXECUTE_METHOD_CALLBACK(PDEVICE_OBJECT DeviceObject, PIRP Irp, ULONG GuidIndex,
                                                   ULONG InstanceIndex, ULONG MethodId, ULONG InBufferSize,
                                                   ULONG OutBufferSize, PUCHAR Buffer);
typedef WMI_EXECUTE_METHOD_CALLBACK* PWMI_EXECUTE_METHOD;

typedef NTSTATUS NTAPI WMI_FUNCTION_CONTROL_CALLBACK(PDEVICE_OBJECT DeviceObject, PIRP Irp, ULONG GuidIndex,
                                                     WMIENABLEDISABLECONTROL Function, BOOLEAN Enable);
typedef WMI_FUNCTION_CONTROL_CALLBACK* PWMI_FUNCTION_CONTROL;

typedef struct _WMILIB_CONTEXT {
    ULONG GuidCount;
    PWMIGUIDREGINFO GuidList;
    PWMI_QUERY_REGINFO QueryWmiRegInfo;
    PWMI_QUERY_DATABLOCK QueryWmiDataBlock;
    PWMI_SET_DATABLOCK SetWmiDataBlock;
    PWMI_SET_DATAITEM SetWmiDataItem;
    PWMI_EXECUTE_METHOD ExecuteWmiMethod;
    PWMI_FUNCTION_CONTROL WmiFunctionControl;
} WMILIB_CONTEXT, *PWMILIB_CONTEXT;

extern "C" {

/// Completes the request with `Status` and the buffer sizes that WMI expects; returns the final status.
_IRQL_requires_max_(DISPATCH_LEVEL) NTSTATUS NTAPI
    WmiCompleteRequest(PDEVICE_OBJECT DeviceObject, PIRP Irp, NTSTATUS Status, ULONG BufferUsed,
                       CCHAR PriorityBoost);
/// Dispatches a system-control request; `IrpDisposition` says what the caller must still do with it.
_IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS NTAPI
    WmiSystemControl(PWMILIB_CONTEXT WmiLibInfo, PDEVICE_OBJECT DeviceObject, PIRP Irp,
                     PSYSCTL_IRP_DISPOSITION IrpDisposition);

} // extern "C"
