#include "ke/kernel_impl.h"

using namespace host;

PRKTHREAD NTAPI KeGetCurrentThread()
{
    return KiHandleOf(KiSelf());
}

KPRIORITY NTAPI KeSetPriorityThread(PKTHREAD /*Thread*/, KPRIORITY /*Priority*/)
{
    // Which thread runs is the strategy's to say, not a priority's.
    constexpr KPRIORITY kNormal = 8;
    return kNormal;
}

ULONG NTAPI KeQueryActiveProcessorCount(KAFFINITY* ActiveProcessors)
{
    const unsigned count = KiKernel().options.dpc_processors;
    if (ActiveProcessors != nullptr)
        *ActiveProcessors = (KAFFINITY{1} << count) - 1;
    return count;
}
