// Event tracing, provider side: descriptors and the kernel's routines.
#pragma once
#include <ntdef.h>

typedef ULONGLONG REGHANDLE, *PREGHANDLE;

typedef struct _EVENT_DESCRIPTOR {
    USHORT Id;
    UCHAR Version;
    UCHAR Channel;
    UCHAR Level;
    UCHAR Opcode;
    USHORT Task;
    ULONGLONG Keyword;
} EVENT_DESCRIPTOR, *PEVENT_DESCRIPTOR;
typedef const EVENT_DESCRIPTOR* PCEVENT_DESCRIPTOR;

typedef struct _EVENT_DATA_DESCRIPTOR {
    ULONGLONG Ptr;
    ULONG Size;
    ULONG Reserved;
} EVENT_DATA_DESCRIPTOR, *PEVENT_DATA_DESCRIPTOR;

typedef struct _EVENT_FILTER_DESCRIPTOR {
    ULONGLONG Ptr;
    ULONG Size;
    ULONG Type;
} EVENT_FILTER_DESCRIPTOR, *PEVENT_FILTER_DESCRIPTOR;

inline VOID EventDataDescCreate(PEVENT_DATA_DESCRIPTOR Descriptor, const VOID* Data, ULONG Size)
{
    *Descriptor = {(ULONGLONG)(ULONG_PTR)Data, Size, 0};
}

typedef VOID NTAPI ETWENABLECALLBACK(LPCGUID SourceId, ULONG ControlCode, UCHAR Level,
                                     ULONGLONG MatchAnyKeyword, ULONGLONG MatchAllKeyword,
                                     PEVENT_FILTER_DESCRIPTOR FilterData, PVOID CallbackContext);
typedef ETWENABLECALLBACK* PETWENABLECALLBACK;

#define EVENT_CONTROL_CODE_DISABLE_PROVIDER 0
#define EVENT_CONTROL_CODE_ENABLE_PROVIDER 1

extern "C" {

NTSTATUS NTAPI EtwRegister(LPCGUID ProviderId, PETWENABLECALLBACK EnableCallback, PVOID CallbackContext,
                           PREGHANDLE RegHandle);
NTSTATUS NTAPI EtwUnregister(REGHANDLE RegHandle);
BOOLEAN NTAPI EtwEventEnabled(REGHANDLE RegHandle, PCEVENT_DESCRIPTOR EventDescriptor);
NTSTATUS NTAPI EtwWrite(REGHANDLE RegHandle, PCEVENT_DESCRIPTOR EventDescriptor, LPCGUID ActivityId,
                        ULONG UserDataCount, PEVENT_DATA_DESCRIPTOR UserData);

} // extern "C"
