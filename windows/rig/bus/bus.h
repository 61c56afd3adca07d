// The test bus: a driver for Wine's user-mode kernel only, with two ports that simulated modules are plugged into.
//
// A control thread carries out what the tests ask for (control.cpp), the pump thread moves data between the URBs and
// the modules (urb.cpp). Before the driver under test is loaded the bus puts its own routines in the place of those
// that Wine's kernel lacks or does wrongly (replacements.cpp); once it is loaded, the bus steps in front of some of its
// dispatch routines (in_front.cpp).
#pragma once

#include <algorithm>
#include <ntddk.h>

extern "C" {
#include <usb.h>
#include <usbdi.h>
#include <usbioctl.h>
}

#include "windows/rig/rig_control.h"
#include "windows/rig/user/rig_user.h"

inline constexpr ULONG kTag = 0x6749724E;
inline constexpr ULONG kPipes = 4;

struct Pipe {
    UCHAR endpoint; // address; the handle of the pipe points here
    UCHAR interface_number;
    USHORT max_packet;
};

struct Port {
    ULONG number;
    PDEVICE_OBJECT pdo; // null: none, or deleted
    volatile LONG plugged;
    volatile LONG started;
    volatile LONG power; // DEVICE_POWER_STATE
    volatile LONG urbs;
    volatile LONG wmi;

    FAST_MUTEX module_mutex;
    RigModule* module; // under module_mutex
    LONG module_power; // as the module was told; the pump's

    KSPIN_LOCK lock;
    LIST_ENTRY queue; // URBs' IRPs, by Tail.Overlay.ListEntry, under lock
    PIRP idle;        // under lock

    // The configuration, of the pump.
    UCHAR configuration;
    UCHAR descriptor[512];
    Pipe pipes[kPipes];
};

enum DeviceKind { BusDevice, PortDevice, ControlDevice };

// The extension of every device object of this driver.
struct Extension {
    DeviceKind kind;
    Port* port;
    PDEVICE_OBJECT lower;
};

struct Bus {
    PDRIVER_OBJECT driver;
    PDEVICE_OBJECT pdo; // the root device; null until the bus device is there
    PDEVICE_OBJECT fdo;
    PDEVICE_OBJECT control;
    KEVENT pump; // there is something to do
    Port ports[kRigPorts];
};

extern Bus g_bus;

inline Extension* ExtensionOf(PDEVICE_OBJECT device)
{
    return static_cast<Extension*>(device->DeviceExtension);
}

// IRQL <= DISPATCH_LEVEL. Returns `status`.
NTSTATUS Complete(PIRP irp, NTSTATUS status, ULONG_PTR information = 0);
// Runs `routine` on a system thread of its own. IRQL PASSIVE_LEVEL.
NTSTATUS StartThread(PKSTART_ROUTINE routine, PVOID context);
// Sends `irp`, whose first stack location is filled, to `device` and waits ten seconds at most for its end. A request
// that is still out then is reported as a finding and left alone: STATUS_IO_TIMEOUT. IRQL PASSIVE_LEVEL.
NTSTATUS SendAndWait(PDEVICE_OBJECT device, PIRP irp, ULONG_PTR* information = nullptr);

// replacements.cpp, deferred.cpp, power.cpp
NTSTATUS ReplaceRoutines();
NTSTATUS StartDeferred();

// image.cpp
NTSTATUS WatchForImage();

// port.cpp
NTSTATUS PortPnp(PDEVICE_OBJECT device, PIRP irp);
NTSTATUS PortPower(PDEVICE_OBJECT device, PIRP irp);
NTSTATUS MakePortDevice(Port& port);

// urb.cpp
NTSTATUS SubmitUrb(Port& port, PIRP irp);
void FailUrbs(Port& port);
void Pump(PVOID);
ULONG PendingUrbs(Port& port);

// idle.cpp
NTSTATUS SubmitIdle(Port& port, PIRP irp);
void EndIdle(Port& port, NTSTATUS status);
NTSTATUS CallIdle(Port& port);

// in_front.cpp
void StepInFront(PDRIVER_OBJECT driver); // once
// `top` is the driver's device object on that of the port: its START is on its way.
void Attached(PDEVICE_OBJECT top, const Port& port);
// Until the driver has returned from REMOVE.
bool HasDriver(const Port& port, bool* started);
ULONG OpenFiles();

// control.cpp
NTSTATUS ControlRequest(PIRP irp);
NTSTATUS StartControl();
