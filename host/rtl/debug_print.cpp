#include "ke/kernel_impl.h"
#include "rtl/format.h"

#include <cstdio>
#include <ntstatus.h>

namespace host {
namespace {

ULONG Print(const CHAR* format, __builtin_ms_va_list list)
{
    RtlpPlatformArguments arguments(list);
    std::string text = RtlpFormatter<CHAR>::Format(format, arguments);
    while (text.ends_with('\n') || text.ends_with('\r'))
        text.pop_back();
    Kernel::Impl& kernel = KiKernel();
    if (kernel.options.echo_debug_prints)
        std::fprintf(stderr, "%s: %s\n", ActorName().c_str(), text.c_str());
    kernel.log.Note("debug", "print", text);
    kernel.prints.Add(std::move(text));
    return STATUS_SUCCESS;
}

} // namespace
} // namespace host

ULONG NTAPI DbgPrint(PCSTR Format, ...)
{
    __builtin_ms_va_list arguments;
    __builtin_ms_va_start(arguments, Format);
    const ULONG status = host::Print(Format, arguments);
    __builtin_ms_va_end(arguments);
    return status;
}

ULONG NTAPI DbgPrintEx(ULONG /*ComponentId*/, ULONG /*Level*/, PCSTR Format, ...)
{
    __builtin_ms_va_list arguments;
    __builtin_ms_va_start(arguments, Format);
    const ULONG status = host::Print(Format, arguments);
    __builtin_ms_va_end(arguments);
    return status;
}
