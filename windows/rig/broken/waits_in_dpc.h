// Breaks navox_devio.cpp: the DPC that queues the reader's work waits a moment before it does, and asks for
// memory that may be paged.
#pragma once

#include <ntddk.h>

inline void WaitInDpc()
{
    KEVENT never;
    LARGE_INTEGER timeout;
    timeout.QuadPart = -10'000;
    KeInitializeEvent(&never, NotificationEvent, FALSE);
    KeWaitForSingleObject(&never, Executive, KernelMode, FALSE, &timeout);
    ExFreePool(ExAllocatePoolWithTag(PagedPool, 16, 0x6B6F7242));
}

#define IoQueueWorkItem(...) (WaitInDpc(), IoQueueWorkItem(__VA_ARGS__))
