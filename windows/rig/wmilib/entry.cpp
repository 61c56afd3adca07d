// A library of routines needs no device, but the system calls its entry.
#include <ntddk.h>

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT, PUNICODE_STRING)
{
    return STATUS_SUCCESS;
}
