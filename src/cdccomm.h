// CDC class requests to the communication interface, and the two sequences made of them. Each returns the
// status of the request, or STATUS_INSUFFICIENT_RESOURCES, or STATUS_DELETE_PENDING once the device was removed.
//
//     released --SetupLine: first open, and the reader while CdcSetupPending--> set up
//        ^                                                                        |
//        '--ReleaseLine: last close, which sets CdcSetupPending-------------------'
#pragma once

#include "navox.h"

// Bits of SET_CONTROL_LINE_STATE.
inline constexpr USHORT kLineDtr = 0x0001;
inline constexpr USHORT kLineRts = 0x0002;

_IRQL_requires_(PASSIVE_LEVEL) NTSTATUS ClearCommFeature(PDEVICE_OBJECT device);
_IRQL_requires_(PASSIVE_LEVEL) NTSTATUS GetCommFeature(PDEVICE_OBJECT device);
// why: the selector is ignored; it is always ABSTRACT_STATE.
_IRQL_requires_(PASSIVE_LEVEL) NTSTATUS SetCommFeature(PDEVICE_OBJECT device, USHORT selector, USHORT state);
_IRQL_requires_(PASSIVE_LEVEL) NTSTATUS SetControlLineState(PDEVICE_OBJECT device, USHORT lines);

// Sends a URB and waits for it without limit. The URB's own status is not examined.
_IRQL_requires_(PASSIVE_LEVEL) NTSTATUS SendCdcRequest(PDEVICE_OBJECT device, PURB urb);

// Conditions the line at the first open: takes ABSTRACT_STATE through its sequence, resets bulk-in, raises
// DTR and RTS. Stops at the first request that fails, but for the reset.
_IRQL_requires_(PASSIVE_LEVEL) NTSTATUS SetupLine(DEVICE_EXTENSION* extension);

// Drops the lines at the last close and sets ABSTRACT_STATE back. Stops at the first request that fails.
_IRQL_requires_(PASSIVE_LEVEL) NTSTATUS ReleaseLine(DEVICE_EXTENSION* extension);
