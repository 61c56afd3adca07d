// Po: power states and power requests.
#pragma once
#include <ntstatus.h>

typedef enum _SYSTEM_POWER_STATE {
    PowerSystemUnspecified,
    PowerSystemWorking,
    PowerSystemSleeping1,
    PowerSystemSleeping2,
    PowerSystemSleeping3,
    PowerSystemHibernate,
    PowerSystemShutdown,
    PowerSystemMaximum
} SYSTEM_POWER_STATE,
    *PSYSTEM_POWER_STATE;

typedef enum _DEVICE_POWER_STATE {
    PowerDeviceUnspecified,
    PowerDeviceD0,
    PowerDeviceD1,
    PowerDeviceD2,
    PowerDeviceD3,
    PowerDeviceMaximum
} DEVICE_POWER_STATE,
    *PDEVICE_POWER_STATE;

// A request may say something else.
typedef enum _POWER_STATE_TYPE : int { SystemPowerState, DevicePowerState } POWER_STATE_TYPE, *PPOWER_STATE_TYPE;

typedef union _POWER_STATE {
    SYSTEM_POWER_STATE SystemState;
    DEVICE_POWER_STATE DeviceState;
} POWER_STATE, *PPOWER_STATE;

typedef enum {
    PowerActionNone,
    PowerActionReserved,
    PowerActionSleep,
    PowerActionHibernate,
    PowerActionShutdown,
    PowerActionShutdownReset,
    PowerActionShutdownOff,
    PowerActionWarmEject
} POWER_ACTION,
    *PPOWER_ACTION;

struct _DEVICE_OBJECT;
struct _IRP;
struct _IO_STATUS_BLOCK;

typedef VOID NTAPI REQUEST_POWER_COMPLETE(struct _DEVICE_OBJECT* DeviceObject, UCHAR MinorFunction,
                                          POWER_STATE PowerState, PVOID Context,
                                          struct _IO_STATUS_BLOCK* IoStatus);
typedef REQUEST_POWER_COMPLETE* PREQUEST_POWER_COMPLETE;

extern "C" {

_IRQL_requires_max_(DISPATCH_LEVEL) NTSTATUS NTAPI
    PoCallDriver(struct _DEVICE_OBJECT* DeviceObject, struct _IRP* Irp);
_IRQL_requires_max_(DISPATCH_LEVEL) VOID NTAPI PoStartNextPowerIrp(struct _IRP* Irp);
/// Returns the state that was set before.
_IRQL_requires_max_(DISPATCH_LEVEL) POWER_STATE NTAPI
    PoSetPowerState(struct _DEVICE_OBJECT* DeviceObject, POWER_STATE_TYPE Type, POWER_STATE State);
/// Sends a query, set or wait-wake request for a device power state to the top of the stack of `DeviceObject`
/// and returns STATUS_PENDING; the routine is called when it is complete.
_IRQL_requires_max_(DISPATCH_LEVEL) NTSTATUS NTAPI
    PoRequestPowerIrp(struct _DEVICE_OBJECT* DeviceObject, UCHAR MinorFunction, POWER_STATE PowerState,
                      PREQUEST_POWER_COMPLETE CompletionFunction, PVOID Context, struct _IRP** Irp);

} // extern "C"
