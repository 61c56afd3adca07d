// Breaks navox_devio.cpp: the DPC that queues the reader's work waits a moment before it does.
#pragma once

#include <ntddk.h>

inline void WaitInDpc()
{
    KEVENT never;
    LARGE_INTEGER timeout;
    timeout.QuadPart = -10'000;
    KeInitializeEvent(&never, NotificationEvent, FALSE);
    KeWaitForSingleObject(&never, Executive, KernelMode, FALSE, &timeout);
}

#define IoQueueWorkItem(...) (WaitInDpc(), IoQueueWorkItem(__VA_ARGS__))
