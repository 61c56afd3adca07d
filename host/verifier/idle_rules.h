// Rules of a driver's part in the idle requests that it sends to its bus.
#pragma once

#include <wdm/io.h>

namespace host {

// While it lives, the calling thread runs a driver's part of an idle request: its callback, or the completion.
// The hub goes on when that returns, so it must not wait there until its device is in D0.
class IdleScope {
  public:
    enum class Part { Callback, Completion };

    IdleScope(PDEVICE_OBJECT pdo, Part part);
    // Outside of any, as what the system does meanwhile.
    IdleScope();
    ~IdleScope();
    IdleScope(const IdleScope&) = delete;
    IdleScope& operator=(const IdleScope&) = delete;

    // The thread has asked for D0 for the stack above `pdo`.
    static void NotePowerUp(PDEVICE_OBJECT pdo);
    // The calling thread is about to wait.
    static void CheckWait(const char* routine, const void* caller);

  private:
    bool MayWait() const;

    PDEVICE_OBJECT pdo_ = nullptr;
    Part part_ = Part::Callback;
    bool asked_ = false; // for D0
    IdleScope* before_;
};

} // namespace host
