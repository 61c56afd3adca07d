#include "ke/kernel_impl.h"

#include <wdm/ps.h>
#include <wdm/rtl.h>

using namespace host;

HANDLE NTAPI PsGetCurrentProcessId()
{
    return ULongToPtr(KiSelf().process);
}

HANDLE NTAPI PsGetCurrentThreadId()
{
    // Thread ids of the platform are multiples of four, and 0 is none.
    return ULongToPtr((KiSelf().id + 1) * 4);
}

PETHREAD NTAPI PsGetCurrentThread()
{
    return reinterpret_cast<PETHREAD>(KiHandleOf(KiSelf()));
}

PEPROCESS NTAPI PsGetCurrentProcess()
{
    // An address that is the process's own; nothing can be done with it.
    return reinterpret_cast<PEPROCESS>(0xffff'8000'0000'0000 + KiSelf().process * 0x1000ULL);
}

BOOLEAN NTAPI PsGetVersion(PULONG MajorVersion, PULONG MinorVersion, PULONG BuildNumber,
                           PUNICODE_STRING CSDVersion)
{
    const OsVersion& os = KiKernel().options.os;
    if (MajorVersion != nullptr)
        *MajorVersion = os.major;
    if (MinorVersion != nullptr)
        *MinorVersion = os.minor;
    if (BuildNumber != nullptr)
        *BuildNumber = os.build;
    if (CSDVersion != nullptr)
        CSDVersion->Length = 0; // no service pack
    return FALSE;
}

BOOLEAN NTAPI RtlIsNtDdiVersionAvailable(ULONG Version)
{
    VfRequireIrqlAtMost(PASSIVE_LEVEL, Rule::IrqlPassive, __func__, __builtin_return_address(0));
    // Service packs and sub-versions, the low half, are not this routine's.
    const OsVersion& os = KiKernel().options.os;
    const ULONG running = os.major << 24 | os.minor << 16;
    return (Version & 0xffff) == 0 && running >= Version ? TRUE : FALSE;
}
