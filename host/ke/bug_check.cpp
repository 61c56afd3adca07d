#include "ke/kernel_impl.h"

#include <cstdio>

using namespace host;

VOID NTAPI KeBugCheckEx(ULONG BugCheckCode, ULONG_PTR BugCheckParameter1, ULONG_PTR BugCheckParameter2,
                        ULONG_PTR BugCheckParameter3, ULONG_PTR BugCheckParameter4)
{
    char code[24];
    std::snprintf(code, sizeof code, "0x%X", BugCheckCode);
    char text[160];
    std::snprintf(text, sizeof text, "bug check %s (0x%llX, 0x%llX, 0x%llX, 0x%llX)", code,
                  BugCheckParameter1, BugCheckParameter2, BugCheckParameter3, BugCheckParameter4);
    KiKernel().verifier.ReportFatal(Rule::BugCheck, code, text, __builtin_return_address(0));
}

VOID NTAPI DbgBreakPoint()
{
    KiKernel().verifier.ReportFatal(Rule::BugCheck, "DbgBreakPoint", "a breakpoint was hit",
                                    __builtin_return_address(0));
}

VOID NTAPI RtlAssert(PVOID FailedAssertion, PVOID FileName, ULONG LineNumber, PSTR Message)
{
    KiKernel().verifier.ReportFatal(
        Rule::BugCheck, "assertion",
        std::string("assertion failed: ") + static_cast<const char*>(FailedAssertion) + ", " +
            static_cast<const char*>(FileName) + ":" + std::to_string(LineNumber) +
            (Message == nullptr ? "" : std::string(": ") + Message),
        __builtin_return_address(0));
}
