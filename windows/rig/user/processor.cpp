// The interrupt request level of each thread. Wine's kernel has no such thing: its KeGetCurrentIrql is 0 always, and
// the register that holds the level on a real processor is out of reach of a user-mode process.
#include "windows/rig/user/rig_user.h"

#include <windows.h>

#include <cstdint>
#include <cstring>

namespace {

DWORD g_slot = TLS_OUT_OF_INDEXES;

// The register that bits 0 to 3 of `number` name in an instruction.
DWORD64& Register(CONTEXT& context, unsigned number)
{
    // In the order of their numbers, Rax to R15.
    return (&context.Rax)[number];
}

// mov r64, cr8 is 44 0F 20 C0+r; mov cr8, r64 is 44 0F 22 C0+r; with 45 in front r is 8 higher.
LONG CALLBACK AnswerRegister(EXCEPTION_POINTERS* pointers)
{
    const EXCEPTION_RECORD& record = *pointers->ExceptionRecord;
    if (record.ExceptionCode != EXCEPTION_PRIV_INSTRUCTION)
        return EXCEPTION_CONTINUE_SEARCH;
    CONTEXT& context = *pointers->ContextRecord;
    const auto* code = reinterpret_cast<const unsigned char*>(context.Rip);
    if ((code[0] & 0xFE) != 0x44 || code[1] != 0x0F || (code[2] != 0x20 && code[2] != 0x22) ||
        (code[3] & 0xF8) != 0xC0)
        return EXCEPTION_CONTINUE_SEARCH;
    DWORD64& value = Register(context, (code[3] & 7U) | (code[0] & 1U) << 3);
    if (code[2] == 0x20)
        value = RigIrql();
    else
        RigSetIrql(static_cast<unsigned char>(value));
    context.Rip += 4;
    return EXCEPTION_CONTINUE_EXECUTION;
}

bool WriteCode(void* at, const void* bytes, std::size_t length)
{
    DWORD before = 0;
    if (VirtualProtect(at, length, PAGE_EXECUTE_READWRITE, &before) == 0)
        return false;
    std::memcpy(at, bytes, length);
    return VirtualProtect(at, length, before, &before) != 0 &&
           FlushInstructionCache(GetCurrentProcess(), at, length) != 0;
}

} // namespace

unsigned char RigIrql()
{
    return static_cast<unsigned char>(reinterpret_cast<std::uintptr_t>(TlsGetValue(g_slot)));
}

unsigned char RigSetIrql(unsigned char level)
{
    const unsigned char before = RigIrql();
    TlsSetValue(g_slot, reinterpret_cast<void*>(static_cast<std::uintptr_t>(level)));
    return before;
}

int RigStartProcessor()
{
    if (g_slot == TLS_OUT_OF_INDEXES)
        g_slot = TlsAlloc();
    return g_slot != TLS_OUT_OF_INDEXES && AddVectoredExceptionHandler(1, AnswerRegister) != nullptr;
}

long long RigNow()
{
    FILETIME now;
    GetSystemTimePreciseAsFileTime(&now);
    return static_cast<long long>(now.dwHighDateTime) << 32 | now.dwLowDateTime;
}

int RigReplace(void* routine, void* replacement)
{
    // mov rax, imm64; jmp rax
    unsigned char code[12] = {0x48, 0xB8, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xE0};
    std::memcpy(code + 2, &replacement, sizeof replacement);
    return WriteCode(routine, code, sizeof code);
}
