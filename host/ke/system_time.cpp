#include "ke/kernel_impl.h"

#include <thread>

using namespace host;

namespace {

// One tick of the platform's clock: 15.625 ms.
constexpr ULONG kTick = 156'250;

} // namespace

VOID NTAPI KeQuerySystemTime(PLARGE_INTEGER CurrentTime)
{
    CurrentTime->QuadPart = KiKernel().kernel.Now();
}

VOID NTAPI KeQueryTickCount(PLARGE_INTEGER CurrentCount)
{
    CurrentCount->QuadPart = KiKernel().kernel.InterruptTime() / kTick;
}

ULONG NTAPI KeQueryTimeIncrement()
{
    return kTick;
}

ULONGLONG NTAPI KeQueryInterruptTime()
{
    return static_cast<ULONGLONG>(KiKernel().kernel.InterruptTime());
}

LARGE_INTEGER NTAPI KeQueryPerformanceCounter(PLARGE_INTEGER PerformanceFrequency)
{
    if (PerformanceFrequency != nullptr)
        PerformanceFrequency->QuadPart = kSecond;
    LARGE_INTEGER counter;
    counter.QuadPart = KiKernel().kernel.InterruptTime();
    return counter;
}

VOID NTAPI KeStallExecutionProcessor(ULONG MicroSeconds)
{
    const Kernel& kernel = KiKernel().kernel;
    if (!kernel.Simulated()) {
        std::this_thread::sleep_for(std::chrono::microseconds(MicroSeconds));
        return;
    }
    Scheduler& scheduler = *KiKernel().scheduler;
    const Time end = scheduler.Now() + MicroSeconds * kMicrosecond;
    while (scheduler.Now() < end)
        (void)scheduler.Block({"a stall of the processor", nullptr}, end);
}
