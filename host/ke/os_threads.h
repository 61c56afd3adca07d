// Operating-system threads, kept for reuse: a test run makes thousands of kernels with ten threads each.
#pragma once

#include <functional>
#include <string>

namespace host {

// Runs `job` on an idle or new thread and returns at once. `processor` is the one it is bound to, -1 for all
// that the process may use. `job` must not throw.
void OsRun(std::function<void()> job, int processor);

// Ends the job of the calling thread, which OsRun made, from wherever it is. Nothing of its stack is unwound.
[[noreturn]] void OsEndJob();
// The calling thread does nothing any more.
[[noreturn]] void OsSleepForever();

// What debuggers call the calling thread: the first 15 characters of `name`.
void OsName(const std::string& name);
// Binds the calling thread, as above.
void OsBind(int processor);
// The processor the calling thread runs on now.
int OsCurrentProcessor();

} // namespace host
