// The driver's two records: the device extension, one per module, and the client, one per open handle.
#pragma once

#include "locks.h"
#include "navox_ddk.h"
#include "navox_trace.h"
#include "pool.h"
#include "racy.h"
#include "read_timeouts.h"
#include "ring.h"

// Plug and Play states. The bit patterns matter: the request gate tests bits 16 and 28.
inline constexpr ULONG STATE_REMOVED = 0x00000000;
inline constexpr ULONG STATE_SURPRISE_REMOVED = 0x00010000;
inline constexpr ULONG STATE_NEVER_STARTED = 0x00020000;
inline constexpr ULONG STATE_STARTED = 0x01210000;
inline constexpr ULONG STATE_STOP_PENDING = 0x10000000;
inline constexpr ULONG STATE_REMOVE_PENDING = 0x10010000;
inline constexpr ULONG STATE_STOPPED = 0x10100000;
inline constexpr ULONG STATE_POWER_QUERIED = 0x11000000;

inline constexpr ULONG kReadBufferSize = 4096; // one bulk-in transfer, and every client's ring
inline constexpr ULONG kAuxBufferSize = 4096;
inline constexpr ULONG kUrbAllocation = 152; // every URB that is not variable in length fits
inline constexpr USHORT kDeviceNameBytes = 256;
inline constexpr USHORT kPortNameBytes = 66;
inline constexpr LONGLONG kReaderStartDelay = -15'000'000; // 1.5 s

// Whether the reader's work item is about: see navox_devio.cpp.
enum ReaderCycleState : LONG { ReaderCycleIdle, ReaderCycleRunning, ReaderCycleWanted };

struct DEVICE_EXTENSION {
    // Continuous reader (navox_devio)
    Racy<BOOLEAN> CdcSetupPending; // the line set-up must run before the next AT command
    PUCHAR ReadBuffer;             // ReadBufferSize bytes, non-paged
    PIRP ReaderIrp;                // taken by exchange: whoever takes it may cancel it or free it
    Racy<BOOLEAN> ReaderCancelled;
    Racy<BOOLEAN> AtCommandPending; // the module must be told to stream before the next transfer
    ULONG ReadBufferSize;
    Racy<BOOLEAN> ReaderHalted; // the cycle must not go on
    ULONG BytesReceived;        // length of the last transfer
    KDPC ReaderDpc;
    KTIMER ReaderStartTimer;  // runs ReaderDpc 1.5 s after the first open
    LONG ReaderDeferred;      // interlocked: the reader stopped for want of power and is to go on with it
    LONG ReaderCycle;         // ReaderCycleState, interlocked
    KEVENT ReaderCancelEvent; // synchronization event: the canceller of ReaderIrp is through with it

    // Device stack
    PDEVICE_OBJECT Self;
    PDEVICE_OBJECT PhysicalDeviceObject;
    PDEVICE_OBJECT LowerDeviceObject;

    // Names (navox_portname)
    UNICODE_STRING InterfaceName;
    UNICODE_STRING DeviceName;
    UNICODE_STRING SpareName; // never filled
    UNICODE_STRING SymbolicLinkName;
    UNICODE_STRING PortName;
    ULONG PortNumber;
    BOOLEAN SerialCommWritten;
    BOOLEAN SymbolicLinkCreated;
    UNICODE_STRING PortNameCopy;

    // USB layer (navox_usb). The two descriptor pointers dangle once the start has returned.
    PUSB_DEVICE_DESCRIPTOR DeviceDescriptor;
    PUSB_CONFIGURATION_DESCRIPTOR ConfigurationDescriptor;
    BOOLEAN RemoteWakeupCapable; // for the debugger
    USBD_INTERFACE_INFORMATION DataInterface;
    USBD_INTERFACE_INFORMATION CommunicationInterface;
    USBD_PIPE_INFORMATION BulkInPipe;
    USBD_PIPE_INFORMATION BulkOutPipe;
    USBD_PIPE_INFORMATION InterruptPipe;
    PUCHAR AuxBuffer;
    ULONG AuxBufferSize;
    PURB AuxUrb;

    // Locks, counts and events
    KSPIN_LOCK StateLock;
    LONG OutstandingTimers;    // armed time-out timers of all clients, interlocked
    KEVENT TimersDrainedEvent; // synchronization event; nobody waits for it

    // Selective suspend (navox_selsusp). What follows the first two is initialised only when the setting is not 0.
    ULONG EnableSelectiveSuspend; // setting
    Racy<BOOLEAN> NoIdleRequests;
    KDPC IdleDpc;
    KTIMER IdleTimer;
    KEVENT IdleCheckDoneEvent;
    KEVENT IdleRequestDoneEvent;
    KEVENT IdleAwakeEvent; // notification event: no request for D0 is under way
    Racy<BOOLEAN> IdleMonitorActive;
    struct _USB_IDLE_CALLBACK_INFO* IdleCallbackInfo _Guarded_by_(IdleLock);
    PIRP IdleIrp; // taken by exchange
    LONG IdleIrpRefs;
    KSPIN_LOCK IdleLock;
    LONG IdleInProgress;

    // Power (navox_power)
    Racy<DEVICE_POWER_STATE> DevicePowerState;
    DEVICE_POWER_STATE PreviousDevicePowerState; // for the debugger
    SYSTEM_POWER_STATE SystemPowerState;
    SYSTEM_POWER_STATE PreviousSystemPowerState;
    PIRP SystemPowerIrp;     // held while the device follows; taken by exchange
    ULONG FastResumePending; // 1: the system request was completed before the device followed
    PIRP WaitWakeIrp;        // taken by exchange
    LONG WaitWakeCancelled;  // interlocked
    ULONG EnableFR;          // setting

    // Plug and Play (navox_pnp)
    Racy<ULONG> DevicePnPState; // written under StateLock
    DEVICE_CAPABILITIES Capabilities;
    BOOLEAN CapabilitiesReceived;                          // for the debugger
    DEVICE_POWER_STATE DeviceStateMap[PowerSystemMaximum]; // by SYSTEM_POWER_STATE
    DEVICE_POWER_STATE IdlePowerState;                     // what an idle device is sent to
    Racy<BOOLEAN> RemovalStarted;                          // for the debugger
    Racy<BOOLEAN> RequestsCancelled; // the device is going: no request may begin to wait

    // Pending-I/O accounting (navox_utils)
    ULONG OutstandingIO _Guarded_by_(StateLock); // starts at 1: the bias that removal takes away
    ULONG IdleDebt _Guarded_by_(StateLock);      // decrements without an increment: see SubmitIdleRequest
    KEVENT StopEvent;                            // signalled while OutstandingIO <= 1
    KEVENT RemoveEvent;                          // signalled once OutstandingIO is 0

    // WMI (navox_wmi)
    WMILIB_CONTEXT WmiLibInfo;
    SERIAL_WMI_COMM_DATA WmiCommData;
    SERIAL_WMI_PERF_DATA WmiPerfData;
    BOOLEAN WmiRegInfoGiven;

    // Serial state of the device (navox_ioctl). Nothing writes the first five: they stay zero and are only
    // consulted.
    UCHAR DeviceLineControl;
    SERIAL_HANDFLOW DeviceHandFlow;
    SERIAL_CHARS DeviceSpecialChars;
    ULONG SupportedBauds;
    ULONG BufferSize;
    SERIALPERF_STATS PerfStats;
    KSPIN_LOCK SerialLock;

    Racy<ULONG> NmeaMode; // private controls (navox_gps)

    // Clients (navox_createclose)
    Racy<BOOLEAN> FirstOpenSinceStart;
    KSPIN_LOCK ClientListLock;
    FAST_MUTEX ClientListMutex;
    LIST_ENTRY ClientList; // written under ClientListMutex and ClientListLock; either is enough to walk it
};

struct CLIENT {
    KSPIN_LOCK Lock; // the client lock: fill state of the ring, event masks

    // Reads (navox_read). Queues, current requests and their reference words: cancel spin lock.
    LIST_ENTRY ReadQueue;
    PIRP CurrentReadIrp;
    LIST_ENTRY MaskQueue;
    PIRP CurrentMaskIrp;
    PIRP CurrentWaitIrp;
    ULONG BytesStillNeeded;
    KTIMER TotalTimer;
    KTIMER IntervalTimer;
    LONGLONG IntervalTime; // 100 ns
    LONGLONG ShortIntervalAmount;
    LONGLONG LongIntervalAmount;
    LONGLONG CutOverAmount;
    LARGE_INTEGER LastReadTime;
    const LONGLONG* IntervalTimeToUse;
    ClientRing Ring;
    ULONG CountOnLastRead; // bytes at the last interval check, or one of the markers of navox_read.h
    KDPC ReadCompletionDpc;
    KDPC TotalTimerDpc;
    KDPC IntervalTimerDpc;
    KDPC EventDpc;
    LONG OutstandingTimers; // armed timers and queued completion DPCs, interlocked
    KEVENT TimersDrainedEvent;
    LIST_ENTRY DeferredQueue; // nothing is put here
    DEVICE_EXTENSION* Device;

    KSPIN_LOCK TimeoutsLock; // the second client lock: ReadTimeouts, and one take from the ring at a time
    SERIAL_TIMEOUTS ReadTimeouts;

    // Event mask (navox_write): client lock
    Racy<ULONG> WaitMask;
    ULONG HistoryMask;
    PULONG WaitResultLocation; // the armed wait's system buffer

    // Serial state (navox_ioctl): the device's SerialLock
    Racy<ULONG> BaudRate;
    ULONG ModemControl;
    ULONG FifoControl; // kept, and nothing else
    SERIAL_LINE_CONTROL LineControl;
    UCHAR LineControlRegister;
    SERIAL_HANDFLOW HandFlow;
    UCHAR ValidDataMask; // kept, and nothing else
    ULONG QueueSize;
    SERIAL_CHARS SpecialChars; // nothing writes it
    Racy<UCHAR> EscapeChar;

    LIST_ENTRY ListEntry; // in DEVICE_EXTENSION::ClientList
};

// What outlives the devices: set at load, released at unload.
struct DRIVER_GLOBALS {
    PDRIVER_OBJECT DriverObject;
    UNICODE_STRING RegistryPath;
    LONG NextDeviceIndex; // interlocked; numbers are not used twice
};
extern DRIVER_GLOBALS Globals;

inline DEVICE_EXTENSION* GetExtension(PDEVICE_OBJECT device)
{
    return static_cast<DEVICE_EXTENSION*>(device->DeviceExtension);
}

// The client of the handle that the request came through.
inline CLIENT* ClientOf(PIRP irp)
{
    return static_cast<CLIENT*>(IoGetCurrentIrpStackLocation(irp)->FileObject->FsContext);
}

inline CLIENT* ClientFromEntry(PLIST_ENTRY entry)
{
    return CONTAINING_RECORD(entry, CLIENT, ListEntry);
}
