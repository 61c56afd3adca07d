// Rtl: memory, strings, registry helpers, versions, debug output.
#pragma once
#include <cstring>
#include <wdm/ke.h>

typedef NTSTATUS NTAPI RTL_QUERY_REGISTRY_ROUTINE(PWSTR ValueName, ULONG ValueType, PVOID ValueData,
                                                  ULONG ValueLength, PVOID Context, PVOID EntryContext);
typedef RTL_QUERY_REGISTRY_ROUTINE* PRTL_QUERY_REGISTRY_ROUTINE;

typedef struct _RTL_QUERY_REGISTRY_TABLE {
    PRTL_QUERY_REGISTRY_ROUTINE QueryRoutine;
    ULONG Flags;
    PWSTR Name;
    PVOID EntryContext;
    ULONG DefaultType;
    PVOID DefaultData;
    ULONG DefaultLength;
} RTL_QUERY_REGISTRY_TABLE, *PRTL_QUERY_REGISTRY_TABLE;

#define RTL_REGISTRY_ABSOLUTE 0
#define RTL_REGISTRY_SERVICES 1
#define RTL_REGISTRY_CONTROL 2
#define RTL_REGISTRY_WINDOWS_NT 3
#define RTL_REGISTRY_DEVICEMAP 4
#define RTL_REGISTRY_USER 5
#define RTL_REGISTRY_HANDLE 0x40000000
#define RTL_REGISTRY_OPTIONAL 0x80000000U

#define RTL_QUERY_REGISTRY_SUBKEY 0x00000001
#define RTL_QUERY_REGISTRY_TOPKEY 0x00000002
#define RTL_QUERY_REGISTRY_REQUIRED 0x00000004
#define RTL_QUERY_REGISTRY_NOVALUE 0x00000008
#define RTL_QUERY_REGISTRY_NOEXPAND 0x00000010
#define RTL_QUERY_REGISTRY_DIRECT 0x00000020
#define RTL_QUERY_REGISTRY_DELETE 0x00000040
#define RTL_QUERY_REGISTRY_TYPECHECK 0x00000100
#define RTL_QUERY_REGISTRY_TYPECHECK_SHIFT 24

#define NTDDI_WIN2K 0x05000000
#define NTDDI_WINXP 0x05010000
#define NTDDI_WS03 0x05020000
#define NTDDI_VISTA 0x06000000
#define NTDDI_LONGHORN NTDDI_VISTA
#define NTDDI_WIN6 NTDDI_VISTA
#define NTDDI_WIN7 0x06010000
#define NTDDI_WIN8 0x06020000
#define NTDDI_WINBLUE 0x06030000
#define NTDDI_WIN10 0x0A000000

extern "C" {

VOID NTAPI RtlInitUnicodeString(PUNICODE_STRING DestinationString, PCWSTR SourceString);
VOID NTAPI RtlInitAnsiString(PANSI_STRING DestinationString, PCSZ SourceString);
VOID NTAPI RtlCopyUnicodeString(PUNICODE_STRING DestinationString, PCUNICODE_STRING SourceString);
NTSTATUS NTAPI RtlAppendUnicodeStringToString(PUNICODE_STRING Destination, PCUNICODE_STRING Source);
NTSTATUS NTAPI RtlAppendUnicodeToString(PUNICODE_STRING Destination, PCWSTR Source);
BOOLEAN NTAPI RtlEqualUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2,
                                    BOOLEAN CaseInSensitive);
LONG NTAPI RtlCompareUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2,
                                   BOOLEAN CaseInSensitive);
_IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS NTAPI
    RtlUnicodeStringToInteger(PCUNICODE_STRING String, ULONG Base, PULONG Value);
_IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS NTAPI
    RtlIntegerToUnicodeString(ULONG Value, ULONG Base, PUNICODE_STRING String);
_IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS NTAPI
    RtlAnsiStringToUnicodeString(PUNICODE_STRING DestinationString, PCANSI_STRING SourceString,
                                 BOOLEAN AllocateDestinationString);
_IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS NTAPI
    RtlUnicodeStringToAnsiString(PANSI_STRING DestinationString, PCUNICODE_STRING SourceString,
                                 BOOLEAN AllocateDestinationString);
_IRQL_requires_max_(PASSIVE_LEVEL) VOID NTAPI RtlFreeUnicodeString(PUNICODE_STRING UnicodeString);
_IRQL_requires_max_(PASSIVE_LEVEL) VOID NTAPI RtlFreeAnsiString(PANSI_STRING AnsiString);
_IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS NTAPI RtlStringFromGUID(REFGUID Guid, PUNICODE_STRING GuidString);
SIZE_T NTAPI RtlCompareMemory(const VOID* Source1, const VOID* Source2, SIZE_T Length);

_IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS NTAPI
    RtlQueryRegistryValues(ULONG RelativeTo, PCWSTR Path, PRTL_QUERY_REGISTRY_TABLE QueryTable, PVOID Context,
                           PVOID Environment);
_IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS NTAPI
    RtlWriteRegistryValue(ULONG RelativeTo, PCWSTR Path, PCWSTR ValueName, ULONG ValueType, PVOID ValueData,
                          ULONG ValueLength);
_IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS NTAPI
    RtlDeleteRegistryValue(ULONG RelativeTo, PCWSTR Path, PCWSTR ValueName);

/// Whether the running system is of this version (an NTDDI_ value) or later.
_IRQL_requires_max_(PASSIVE_LEVEL) BOOLEAN NTAPI RtlIsNtDdiVersionAvailable(ULONG Version);

ULONG NTAPI DbgPrint(PCSTR Format, ...);
ULONG NTAPI DbgPrintEx(ULONG ComponentId, ULONG Level, PCSTR Format, ...);
VOID NTAPI DbgBreakPoint();
VOID NTAPI RtlAssert(PVOID FailedAssertion, PVOID FileName, ULONG LineNumber, PSTR Message);

} // extern "C"

#define DPFLTR_IHVDRIVER_ID 77
#define DPFLTR_ERROR_LEVEL 0
#define DPFLTR_WARNING_LEVEL 1
#define DPFLTR_TRACE_LEVEL 2
#define DPFLTR_INFO_LEVEL 3

#define RtlEqualMemory(left, right, length) (std::memcmp((left), (right), (length)) == 0)
#define RtlMoveMemory(destination, source, length) std::memmove((destination), (source), (length))
#define RtlCopyMemory(destination, source, length) std::memcpy((destination), (source), (length))
#define RtlFillMemory(destination, length, fill) std::memset((destination), (fill), (length))
#define RtlZeroMemory(destination, length) std::memset((destination), 0, (length))
#define RtlCopyBytes RtlCopyMemory
#define RtlZeroBytes RtlZeroMemory

/// Survives the optimiser, unlike RtlZeroMemory before a free.
inline PVOID RtlSecureZeroMemory(PVOID Destination, SIZE_T Length)
{
    std::memset(Destination, 0, Length);
    asm volatile("" : : "r"(Destination) : "memory");
    return Destination;
}

inline VOID RtlInitEmptyUnicodeString(PUNICODE_STRING String, PWCHAR Buffer, USHORT BufferSize)
{
    *String = {0, BufferSize, Buffer};
}

#if DBG
#define ASSERT(expr) ((expr) ? (void)0 : RtlAssert((PVOID) #expr, (PVOID)__FILE__, __LINE__, nullptr))
#define ASSERTMSG(text, expr)                                                                                \
    ((expr) ? (void)0 : RtlAssert((PVOID) #expr, (PVOID)__FILE__, __LINE__, const_cast<PSTR>(text)))
#else
#define ASSERT(expr) ((void)0)
#define ASSERTMSG(text, expr) ((void)0)
#endif
#define NT_ASSERT ASSERT

#define PAGED_CODE() ASSERT(KeGetCurrentIrql() <= APC_LEVEL)
#define PAGED_CODE_LOCKED() ((void)0)
#if DBG
#define KdPrint(arguments) DbgPrint arguments
#else
#define KdPrint(arguments) ((void)0)
#endif
