// Looks at the level on the way into platform routines. An import of the image under test is led to a few bytes of
// code of its own, which name the import and go on to PassImport; from there it is on to the routine itself.
#include "windows/rig/user/rig_user.h"

#include <windows.h>

#include <cstdint>
#include <cstring>
#include <string_view>

namespace {

constexpr unsigned kPassive = 0;
constexpr unsigned kApc = 1;
constexpr unsigned kDispatch = 2;

struct Import {
    void* routine; // read by PassImport
    const char* name;
    unsigned highest; // level
};

// Routines with a lower limit than DISPATCH_LEVEL, as documented. Those that may wait or touch paged memory depending
// on their arguments are in Allowed.
struct Limit {
    std::string_view name;
    unsigned highest;
};

constexpr Limit kLimits[] = {
    {"ExAcquireFastMutexUnsafe", kApc},
    {"ExReleaseFastMutexUnsafe", kApc},
    {"IoAttachDeviceToDeviceStack", kPassive},
    {"IoBuildDeviceIoControlRequest", kPassive},
    {"IoCreateDevice", kApc},
    {"IoCreateSymbolicLink", kPassive},
    {"IoDeleteDevice", kApc},
    {"IoDeleteSymbolicLink", kPassive},
    {"IoDetachDevice", kPassive},
    {"IoGetConfigurationInformation", kPassive},
    {"IoOpenDeviceRegistryKey", kPassive},
    {"IoRegisterDeviceInterface", kPassive},
    {"IoSetDeviceInterfaceState", kPassive},
    {"IoWMIRegistrationControl", kPassive},
    {"KeEnterCriticalRegion", kApc},
    {"KeFlushQueuedDpcs", kPassive},
    {"KeLeaveCriticalRegion", kApc},
    {"MmGetSystemRoutineAddress", kPassive},
    {"RtlDeleteRegistryValue", kPassive},
    {"RtlFreeUnicodeString", kPassive},
    {"RtlUnicodeStringToInteger", kPassive},
    {"RtlWriteRegistryValue", kPassive},
    {"USBD_CreateConfigurationRequestEx", kPassive},
    {"USBD_ParseConfigurationDescriptorEx", kPassive},
    {"WmiSystemControl", kPassive},
    {"ZwClose", kPassive},
    {"ZwQueryValueKey", kPassive},
    {"ZwSetValueKey", kPassive},
    {"_vsnwprintf", kPassive},
};

std::uint64_t g_image = 0; // where the image begins

unsigned HighestFor(std::string_view name)
{
    for (const Limit& limit : kLimits) {
        if (limit.name == name)
            return limit.highest;
    }
    return kDispatch;
}

// `arguments` are the four in registers; those on the stack begin at the sixth quadword of `stack`.
bool Allowed(const Import& import, const std::uint64_t* arguments, const std::uint64_t* stack)
{
    const std::string_view name = import.name;
    if (name == "KeWaitForSingleObject") { // a look without waiting is
        const auto* timeout = reinterpret_cast<const LARGE_INTEGER*>(stack[5]);
        return timeout != nullptr && timeout->QuadPart == 0;
    }
    if (name == "ExAllocatePoolWithTag") // the paged pools have odd numbers
        return (arguments[0] & 1) == 0;
    if (name == "KeSetEvent") // nobody may be promised that a wait comes next
        return (arguments[2] & 0xFF) == 0;
    return false;
}

} // namespace

extern "C" void RigPassImport();

extern "C" __attribute__((used)) void RigCheckImport(const Import* import, const std::uint64_t* arguments,
                                                     const std::uint64_t* stack)
{
    const unsigned level = RigIrql();
    constexpr std::string_view kDependsOnArguments[] = {"KeWaitForSingleObject", "ExAllocatePoolWithTag",
                                                        "KeSetEvent"};
    bool depends = false;
    for (const std::string_view name : kDependsOnArguments)
        depends |= name == import->name;
    if (level >= kDispatch && depends ? Allowed(*import, arguments, stack) : level <= import->highest)
        return;
    RigReport("%s at IRQL %u, called from navox.sys+0x%llx", import->name, level, stack[0] - g_image);
}

// r11 is the import. Keeps the registers that arguments come in, but for the xmm ones: none of the imports takes
// floating-point arguments, and variadic ones get none.
asm(R"(
    .globl RigPassImport
RigPassImport:
    pushq %r11
    pushq %r9
    pushq %r8
    pushq %rdx
    pushq %rcx
    movq %r11, %rcx
    movq %rsp, %rdx
    leaq 40(%rsp), %r8
    subq $32, %rsp
    call RigCheckImport
    addq $32, %rsp
    popq %rcx
    popq %rdx
    popq %r8
    popq %r9
    popq %r11
    jmp *(%r11)
)");

namespace {

// One import's record and its code, in a page that can be executed.
struct Passage {
    Import import;
    unsigned char code[24];
};

void WriteCode(Passage& passage)
{
    // mov r11, &import; mov rax, RigPassImport; jmp rax
    const void* import = &passage.import;
    void (*const pass)() = RigPassImport;
    unsigned char code[22] = {0x49, 0xBB, 0, 0, 0, 0, 0, 0, 0, 0,    0x48,
                              0xB8, 0,    0, 0, 0, 0, 0, 0, 0, 0xFF, 0xE0};
    std::memcpy(code + 2, &import, 8);
    std::memcpy(code + 12, &pass, 8);
    std::memcpy(passage.code, code, sizeof code);
}

constexpr std::size_t kPassages = 512;

bool LeadThrough(Passage& passage, const char* name, std::uint64_t& entry, const RigRedirection* redirection)
{
    void* routine = reinterpret_cast<void*>(entry);
    for (; redirection->name != nullptr; ++redirection) {
        if (std::strcmp(redirection->name, name) == 0)
            routine = redirection->routine;
    }
    passage.import = {routine, name, HighestFor(name)};
    WriteCode(passage);
    DWORD before = 0;
    if (VirtualProtect(&entry, sizeof entry, PAGE_READWRITE, &before) == 0)
        return false;
    entry = reinterpret_cast<std::uint64_t>(passage.code);
    return VirtualProtect(&entry, sizeof entry, before, &before) != 0;
}

} // namespace

int RigWatchImports(void* image, const RigRedirection* redirections)
{
    auto* base = static_cast<unsigned char*>(image);
    g_image = reinterpret_cast<std::uint64_t>(image);
    const auto* dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
    const auto* headers = reinterpret_cast<const IMAGE_NT_HEADERS64*>(base + dos->e_lfanew);
    const IMAGE_DATA_DIRECTORY& directory =
        headers->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
    auto* passages = static_cast<Passage*>(
        VirtualAlloc(nullptr, kPassages * sizeof(Passage), MEM_COMMIT | MEM_RESERVE, PAGE_EXECUTE_READWRITE));
    if (passages == nullptr || directory.VirtualAddress == 0)
        return 0;
    std::size_t used = 0;
    const auto* descriptor =
        reinterpret_cast<const IMAGE_IMPORT_DESCRIPTOR*>(base + directory.VirtualAddress);
    for (; descriptor->Name != 0; ++descriptor) {
        const auto* names = reinterpret_cast<const std::uint64_t*>(base + descriptor->OriginalFirstThunk);
        auto* entries = reinterpret_cast<std::uint64_t*>(base + descriptor->FirstThunk);
        for (; *names != 0; ++names, ++entries) {
            const auto* by_name = reinterpret_cast<const IMAGE_IMPORT_BY_NAME*>(base + *names);
            if (used == kPassages || !LeadThrough(passages[used++], by_name->Name, *entries, redirections))
                return 0;
        }
    }
    return 1;
}
