#include "verifier/memory_faults.h"

#include "ke/kernel_impl.h"

#include <csignal>
#include <mutex>
#include <ucontext.h>

namespace host {
namespace {

struct sigaction g_previous;

void OnFault(int /*signal*/, siginfo_t* info, void* context)
{
    const auto* const machine = static_cast<const ucontext_t*>(context);
    const auto* const instruction = reinterpret_cast<const void*>(machine->uc_mcontext.gregs[REG_RIP]);
    Kernel* const kernel = Kernel::CurrentOrNull();
    // A touch by the thread itself, not an asynchronous signal: what the report needs may be called here.
    if (kernel != nullptr && KiCurrentThread() != nullptr &&
        kernel->impl().pool.HandleFault(info->si_addr, instruction))
        return; // accessible now: the instruction runs again
    sigaction(SIGSEGV, &g_previous, nullptr);
}

} // namespace

void VfInstallFaultHandler()
{
    static std::once_flag once;
    std::call_once(once, [] {
        struct sigaction action {};
        action.sa_sigaction = OnFault;
        action.sa_flags = SA_SIGINFO | SA_NODEFER;
        sigemptyset(&action.sa_mask);
        sigaction(SIGSEGV, &action, &g_previous);
    });
}

} // namespace host
