// The platform headers, in the order in which they build, and what the cross-compiler's set lacks.
#pragma once

#include <ntddk.h>

#include <ntstrsafe.h>

extern "C" {
#include <ntddser.h>
#include <usb.h>
#include <usbdi.h>
#include <usbdlib.h>
#include <usbioctl.h>
#include <wmidata.h>
#include <wmistr.h>

#include <wmilib.h>
}

// Missing from the cross-compiler's headers --------------------------------------------------------------

// Annotations that its sal.h does not know.
#ifndef _Guarded_by_
#define _Guarded_by_(lock)
#endif
#ifndef _Requires_lock_held_
#define _Requires_lock_held_(lock)
#endif
#ifndef _IRQL_requires_max_
#define _IRQL_requires_max_(irql)
#endif
#ifndef _IRQL_requires_
#define _IRQL_requires_(irql)
#endif

// Attributes that have no annotation of their own: guard types, and routines in which the analysis cannot
// follow a lock that is handed from one routine to the next.
#if defined(__has_attribute)
#if __has_attribute(scoped_lockable)
#define NAVOX_SCOPED_LOCK __attribute__((scoped_lockable))
#define NAVOX_ACQUIRES(...) __attribute__((acquire_capability(__VA_ARGS__)))
#define NAVOX_RELEASES(...) __attribute__((release_capability(__VA_ARGS__)))
#define NAVOX_HANDS_LOCK_OVER __attribute__((no_thread_safety_analysis))
#endif
#endif
#ifndef NAVOX_SCOPED_LOCK
#define NAVOX_SCOPED_LOCK
#define NAVOX_ACQUIRES(...)
#define NAVOX_RELEASES(...)
#define NAVOX_HANDS_LOCK_OVER
#endif

// Discarded after DriverEntry, and pageable. A routine that takes a spin lock itself belongs in neither.
#define NAVOX_INIT __attribute__((section("INIT"), noinline))
#define NAVOX_PAGED __attribute__((section("PAGE"), noinline))
