// Ps, Ob, Mm: processes and threads, references to objects, exported routines by name.
#pragma once
#include <wdm/ke.h>

typedef struct _ETHREAD* PETHREAD;
typedef struct _EPROCESS* PEPROCESS;
typedef struct _OBJECT_TYPE* POBJECT_TYPE;

typedef struct _CLIENT_ID {
    HANDLE UniqueProcess;
    HANDLE UniqueThread;
} CLIENT_ID, *PCLIENT_ID;

typedef VOID NTAPI KSTART_ROUTINE(PVOID StartContext);
typedef KSTART_ROUTINE* PKSTART_ROUTINE;

#define THREAD_ALL_ACCESS (STANDARD_RIGHTS_REQUIRED | SYNCHRONIZE | 0xffff)

/// One page of memory or a part of it, described by its physical pages. Opaque here.
typedef struct _MDL *PMDL, *PMDLX;

extern "C" {

_IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS NTAPI
    PsCreateSystemThread(PHANDLE ThreadHandle, ULONG DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                         HANDLE ProcessHandle, PCLIENT_ID ClientId, PKSTART_ROUTINE StartRoutine,
                         PVOID StartContext);
_IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS NTAPI PsTerminateSystemThread(NTSTATUS ExitStatus);
HANDLE NTAPI PsGetCurrentProcessId();
HANDLE NTAPI PsGetCurrentThreadId();
PETHREAD NTAPI PsGetCurrentThread();
PEPROCESS NTAPI PsGetCurrentProcess();
/// True on a checked build of the system.
BOOLEAN NTAPI PsGetVersion(PULONG MajorVersion, PULONG MinorVersion, PULONG BuildNumber,
                           PUNICODE_STRING CSDVersion);

extern POBJECT_TYPE* PsThreadType;
extern POBJECT_TYPE* IoFileObjectType;
extern POBJECT_TYPE* ExEventObjectType;

_IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS NTAPI
    ObReferenceObjectByHandle(HANDLE Handle, ACCESS_MASK DesiredAccess, POBJECT_TYPE ObjectType,
                              KPROCESSOR_MODE AccessMode, PVOID* Object, PVOID HandleInformation);
NTSTATUS NTAPI ObReferenceObjectByPointer(PVOID Object, ACCESS_MASK DesiredAccess, POBJECT_TYPE ObjectType,
                                          KPROCESSOR_MODE AccessMode);
LONG_PTR NTAPI ObfReferenceObject(PVOID Object);
LONG_PTR NTAPI ObfDereferenceObject(PVOID Object);

/// The address of a routine that the kernel exports, nullptr when this version has none of that name.
_IRQL_requires_max_(PASSIVE_LEVEL) PVOID NTAPI MmGetSystemRoutineAddress(PUNICODE_STRING SystemRoutineName);

} // extern "C"

#define ObReferenceObject ObfReferenceObject
#define ObDereferenceObject ObfDereferenceObject
