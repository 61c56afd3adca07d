// A run of its own that may come to nothing: where a deadlock or a bug check ends the run and not the process.
//
// Threads that can go no further are not unwound: the platform's calling convention keeps registers that an exception
// on Linux does not restore, so none may pass through a driver. They are left where they are, asleep for good.
#pragma once

#include <functional>

namespace host {

// Runs `scenario`, which may construct a simulated Kernel under Policy::Record, on a thread of its own and waits for
// its end. False: the run had to stop. Then its kernel, its threads and all that lives on their stacks stay in
// memory untouched, so nothing that outlives the scenario may be owned there. Rethrows what the scenario throws.
[[nodiscard]] bool RunIsolated(const std::function<void()>& scenario);

// For the kernel: whether the calling thread is within RunIsolated, and the end of that run from any thread of it.
class IsolatedRun;
IsolatedRun* KiIsolatedRun();
[[noreturn]] void KiAbandonRun(IsolatedRun& run);

} // namespace host
