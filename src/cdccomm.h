// CDC class requests to the communication interface, and the two sequences made of them. PASSIVE_LEVEL.
//
//     released --SetupLine: first open, and the reader while CdcSetupPending--> set up
//        ^                                                                        |
//        '--ReleaseLine: last close, which sets CdcSetupPending-------------------'
#pragma once

#include "navox.h"

// Bits of SET_CONTROL_LINE_STATE.
inline constexpr USHORT kLineDtr = 0x0001;
inline constexpr USHORT kLineRts = 0x0002;

NTSTATUS ClearCommFeature(PDEVICE_OBJECT device);
NTSTATUS GetCommFeature(PDEVICE_OBJECT device);
// why: the selector is ignored; it is always ABSTRACT_STATE.
NTSTATUS SetCommFeature(PDEVICE_OBJECT device, USHORT selector, USHORT state);
NTSTATUS SetControlLineState(PDEVICE_OBJECT device, USHORT lines);

// Sends a URB and waits for it without limit. The URB's own status is not examined.
NTSTATUS SendCdcRequest(PDEVICE_OBJECT device, PURB urb);

// Conditions the line at the first open: takes ABSTRACT_STATE through its sequence, resets bulk-in, raises
// DTR and RTS. Stops at the first request that fails.
NTSTATUS SetupLine(DEVICE_EXTENSION* extension);

// Drops the lines at the last close and sets ABSTRACT_STATE back. Stops at the first request that fails.
NTSTATUS ReleaseLine(DEVICE_EXTENSION* extension);
