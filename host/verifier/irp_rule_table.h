// The rules of the I/O, PnP and power managers, in the form of rule_table.h. Code 0x00: a rule of this kernel's own,
// for which Windows has no bug check.
#pragma once

// clang-format off
#define VF_IRP_RULES(R)                                                                                               \
    /* Life of a request */                                                                                           \
    R(IrpInvalid,               0xC9, 0x01,   "a routine was given memory that is not a live request")                \
    R(IrpDoubleCompletion,      0x44, 0x00,   "a request was completed twice")                                        \
    R(IrpFreedInUse,            0xC9, 0x20A,  "a request was freed while a driver below still had it")                \
    R(IrpFreeNotOwned,          0xC9, 0x20C,  "IoFreeIrp was given a request that the I/O manager frees itself")      \
    R(IrpInitializeAllocated,   0xC9, 0x20D,  "IoInitializeIrp was given a request that IoAllocateIrp made")          \
    R(IrpReuseInUse,            0x00, 0x10,   "IoReuseIrp was given a request that is still in use")                  \
    R(IrpLeak,                  0x00, 0x06,   "a request was neither freed nor completed")                            \
    R(IrpNeverSent,             0xC9, 0x239,  "a request was completed that had never been sent")                     \
    R(IrpCompletionNotStopped,  0x00, 0x0F,   "a request of IoAllocateIrp was completed to its end: its completion "  \
                                              "routine must keep it")                                                 \
    R(IrpFreedThenContinued,    0x00, 0x0B,   "a completion routine freed a request and let its completion go on")    \
    R(IrpCompletedWhilePassed,  0xC9, 0x209,  "a request was completed by a driver that had passed it down")          \
    R(IrpForwardedWhilePassed,  0xC9, 0x205,  "a request was passed down by a driver that had passed it down")        \
    R(IrpCancelledTooSlowly,    0xC4, 0x135,  "a cancelled request was not completed in time")                        \
    /* Completion */                                                                                                  \
    R(IrpCompletedPending,      0xC9, 0x06,   "a request was completed with STATUS_PENDING")                          \
    R(IrpCompletedCancellable,  0xC9, 0x07,   "a request was completed with its cancel routine still set")            \
    R(IrpCompletedAtHighIrql,   0xC9, 0x0E,   "a request was completed above DISPATCH_LEVEL")                         \
    R(IrpGarbageStatus,         0xC9, 0x225,  "a request was completed with a value that is not a status")            \
    R(IrpInformationTooLarge,   0x50, 0x00,   "a request was completed with more information than its buffer holds")  \
    R(IrpStatusOnDeadStack,     0xC9, 0x0C,   "a request reports to a place on a stack that is not in use")           \
    R(SpinLockSafe,             0xC4, 0x1030, "a request was completed or passed down with a spin lock held")         \
    /* Forwarding */                                                                                                  \
    R(IrpForwardedAtHighIrql,   0xC9, 0x10,   "IoCallDriver was called above DISPATCH_LEVEL")                         \
    R(ForwardedAtBadIrql,       0xC9, 0x23A,  "a request was passed down at an IRQL that its kind forbids")           \
    R(IrpForwardedCancellable,  0xC9, 0x203,  "a request was passed down with its cancel routine still set")          \
    R(IrpOutOfStack,            0x35, 0x00,   "a request has no stack location left for the driver below")            \
    R(IrpBadStackCopy,          0xC9, 0x206,  "a stack location was copied with the completion routine of the one "   \
                                              "above")                                                                \
    R(IrpNeedlessCopy,          0xC9, 0x21C,  "a stack location was copied without need: it is to be skipped")        \
    R(CompletionRoutineRegistered, 0x00, 0x05, "a completion routine was set for a request that was not "             \
                                              "passed down")                                                          \
    R(IrpDeviceInvalid,         0xC9, 0x02,   "a request was sent to something that is not a live device")            \
    /* Dispatch */                                                                                                    \
    R(PendingNotMarked,         0xC9, 0x23D,  "STATUS_PENDING was returned for a request that is not marked pending") \
    R(MarkedNotPending,         0xC9, 0x23E,  "a request marked pending was answered with another status")            \
    R(PendingLost,              0xC9, 0x228,  "a completion routine did not propagate the pending mark")              \
    R(StatusMismatch,           0xC9, 0x224,  "the status returned differs from the one the request completed with")  \
    R(IrpForgotten,             0xC9, 0x226,  "a request was neither completed, kept pending, nor passed down")       \
    R(CancelLockHeldAtReturn,   0xC4, 0x1021, "a cancel routine did not release the cancel spin lock")                \
    /* Handles and strings */                                                                                         \
    R(HandleInvalid,            0x93, 0x00,   "a handle was used that is not open")                                   \
    R(HandleLeak,               0x00, 0x07,   "a handle was not closed")                                              \
    R(ObjectDereference,        0x18, 0x00,   "an object was dereferenced more often than referenced")                \
    /* Devices */                                                                                                     \
    R(DeviceInitializing,       0xC9, 0x243,  "AddDevice left DO_DEVICE_INITIALIZING set")                            \
    R(DeviceDoubleDelete,       0xC9, 0x240,  "a device object was deleted twice")                                    \
    R(DeviceDeletedAttached,    0xC9, 0x201,  "a device object was deleted before it was detached")                   \
    R(DeviceDeletedUnder,       0xC9, 0x201,  "a device object was deleted that another is attached to")              \
    R(DeviceDetachNothing,      0xC9, 0x202,  "IoDetachDevice was called where nothing is attached")                  \
    R(DeviceDeletedWithPower,   0x9F, 0x01,   "a device object was deleted with a power request outstanding")         \
    R(DeviceBothIoFlags,        0xC9, 0x245,  "a device object has both DO_BUFFERED_IO and DO_DIRECT_IO")             \
    R(DeviceLeak,               0x00, 0x08,   "a device object was not deleted")                                      \
    R(PagableFlagLost,          0xC9, 0x23F,  "a device above a pageable one does not have DO_POWER_PAGABLE")         \
    R(SymbolicLinkLeak,         0x00, 0x09,   "a symbolic link leads to a device that is gone")                         \
    R(PnpSameDeviceObject,      0x00, 0x0C,   "a device object was attached to its own stack")                        \
    /* Plug and Play */                                                                                               \
    R(PnpCompleted,             0xC9, 0x22D,  "a Plug and Play request was completed instead of passed down")         \
    R(PnpUntouchedCompleted,    0xC9, 0x22F,  "a Plug and Play request was completed as it came")                     \
    R(PnpFailedPassedDown,      0xC9, 0x215,  "a Plug and Play request was passed down with a failure in it")         \
    R(PnpStatusTouched,         0xC9, 0x216,  "the status of a Plug and Play request was changed to not-supported")   \
    R(PnpUnknownTouched,        0xC9, 0x213,  "a Plug and Play request that is not known was changed")                \
    R(PnpInitialStatus,         0xC9, 0x20E,  "a Plug and Play request was sent with a status in it")                 \
    R(PnpInterfaceLeft,         0x00, 0x03,   "an interface was left enabled by a surprise removal")                  \
    R(PnpMayNotFail,            0xC9, 0x247,  "a Plug and Play request was failed that may not fail")                 \
    R(PnpRemoveNoDetach,        0xC9, 0x21D,  "a device was not detached by IRP_MN_REMOVE_DEVICE")                    \
    R(PnpRemoveNoDelete,        0xC9, 0x21E,  "a device was not deleted by IRP_MN_REMOVE_DEVICE")                     \
    R(PnpSurpriseDetach,        0xC9, 0x242,  "a device was detached or deleted by IRP_MN_SURPRISE_REMOVAL")          \
    R(PnpSystemOnly,            0xC9, 0x237,  "a driver sent a request that only the system may send")                \
    R(DispatchMissing,          0xC9, 0x21F,  "a driver lacks a dispatch routine that every driver must have")        \
    /* Power */                                                                                                       \
    R(PowerNotStartedNext,      0x9F, 0x02,   "a power request was completed or passed on without "                   \
                                              "PoStartNextPowerIrp")                                                  \
    R(PowerStartedTwice,        0x9F, 0x500,  "PoStartNextPowerIrp was called twice for one request")                 \
    R(PowerStuck,               0x9F, 0x03,   "a power request was not completed in time")                            \
    R(PowerWrongCall,           0x00, 0x0D,   "a power request was passed down with IoCallDriver")                    \
    R(PowerCompleted,           0xC9, 0x230,  "a power request was completed instead of passed down")                 \
    R(PowerUntouchedCompleted,  0xC9, 0x232,  "a power request was completed as it came")                             \
    R(PowerFailedPassedDown,    0xC9, 0x219,  "a power request was passed down with a failure in it")                 \
    R(PowerStatusTouched,       0xC9, 0x21A,  "the status of a power request was changed to not-supported")           \
    R(PowerUnknownTouched,      0xC9, 0x214,  "a power request that is not known was changed")                        \
    R(PowerMayNotFail,          0xC9, 0x247,  "a power request was failed that may not fail")                         \
    R(RequestedPowerIrp,        0x00, 0x0E,   "PoRequestPowerIrp was asked for the request itself")                   \
    R(PowerUpDownOrder,         0x00, 0x04,   "a lower power state was not reported before the device lost power")    \
    /* WMI */                                                                                                         \
    R(WmiNotDeregistered,       0xC4, 0xDB,   "a device was deleted that is still registered with WMI")               \
    R(WmiWrongProvider,         0xC9, 0x220,  "a WMI request was completed by a device that it was not meant for")    \
    R(WmiNotCompleted,          0x00, 0x0A,   "a WMI request was not completed by the device that it was meant for")  \
    R(WmiUnknownTouched,        0xC9, 0x23B,  "a WMI request that is not known was changed")                          \
    R(WmiInitialStatus,         0xC9, 0x210,  "a WMI request was sent with a status in it")                           \
    R(WmiBadAnswer,             0x00, 0x02,   "the answer to a WMI request is malformed")                             \
    /* USB */                                                                                                         \
    R(UrbReused,                0xFE, 0x01,   "a URB was submitted while it was still in flight")                     \
    R(UrbMalformed,             0xFE, 0x02,   "the length of a URB does not fit its function")                        \
    R(UrbPipeStale,             0xFE, 0x03,   "a pipe handle was used that is not open any more")                     \
    R(UrbNotInD0,               0xFE, 0x04,   "a URB was submitted while the device is not in D0")                    \
    R(UrbAfterRemove,           0xFE, 0x05,   "a URB was submitted after the device had been removed")                \
    R(UrbBadIrql,               0xFE, 0x06,   "a URB was submitted at an IRQL that its function forbids")             \
    R(IdleRequestTwice,         0xFE, 0x07,   "a second idle request was sent for a device")                          \
    R(IdleNotInD0,              0xFE, 0x08,   "an idle request was sent while the device is not in D0")               \
    R(IdleNotPoweredDown,       0xFE, 0x09,   "an idle callback returned before the device had left D0")              \
    R(IdleBlocksOnPowerUp,      0xFE, 0x0A,   "an idle callback or completion waits for the device to be in D0")
// clang-format on
