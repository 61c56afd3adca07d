// The control device of the test bus, \\.\NavoxRig: what a test can do to the modules and their driver.
//
// Include after the platform's headers. Requests are carried out one by one by a thread of the bus. Those with a
// `port` name one of the bus's kRigPorts.
#pragma once

#include "windows/rig/rig_types.h"

#define RIG_CONTROL(number) CTL_CODE(FILE_DEVICE_UNKNOWN, 0x800 + (number), METHOD_BUFFERED, FILE_ANY_ACCESS)

enum RigControl : unsigned long {
    RIG_PLUG = RIG_CONTROL(0),       // in: RigPlug; fails while a module is in the port
    RIG_UNPLUG = RIG_CONTROL(1),     // in: RigPortRequest
    RIG_RELEASE = RIG_CONTROL(2),    // in: RigPortRequest; the held module begins to send
    RIG_FEED = RIG_CONTROL(3),       // in: RigFeed; bytes for the module to send
    RIG_SEND_PNP = RIG_CONTROL(4),   // in: RigIrpRequest, out: RigIrpAnswer
    RIG_SEND_POWER = RIG_CONTROL(5), // the same
    RIG_SEND_WMI = RIG_CONTROL(6),   // in: RigWmiRequest, out: RigWmiAnswer
    RIG_COUNTERS = RIG_CONTROL(7),   // in: RigPortRequest, out: RigCounters
    RIG_FINDING = RIG_CONTROL(8),    // in: RigPortRequest, its number in place of the port; out: RigFinding
    RIG_FORGET_FINDINGS = RIG_CONTROL(9), // nothing in or out
    RIG_SUSPEND_IDLE = RIG_CONTROL(10),   // in: RigPortRequest; calls the driver back that asked to be idle

    // Not of the control device, but of a port: fails with the status with which the driver refused to open it. Wine
    // gives a handle in any case.
    RIG_OPEN_STATUS = RIG_CONTROL(64),
};
