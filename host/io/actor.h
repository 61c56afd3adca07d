// A system thread that does what it is given, one thing after the other.
#pragma once

#include "ke/kernel.h"
#include "ke/mutex.h"

#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <wdm/io.h>

namespace host {

class IopActor {
  public:
    // The thread starts with the first task and has this name in logs.
    explicit IopActor(std::string name);
    ~IopActor();
    IopActor(const IopActor&) = delete;
    IopActor& operator=(const IopActor&) = delete;

    // IRQL <= DISPATCH_LEVEL.
    void Post(std::function<void()> task);
    // Posts and waits for the end of the task; runs it at once when called from the actor. PASSIVE_LEVEL.
    void Run(const std::function<void()>& task);
    bool IsCurrent() const;
    // No task waits; one may run.
    bool NothingWaits() const;
    // Finishes what was posted and ends the thread. Not from the actor itself.
    void Stop();

  private:
    void Body();

    const std::string name_;
    mutable Mutex mutex_;
    std::deque<std::function<void()>> tasks_ HOST_GUARDED_BY(mutex_);
    bool started_ HOST_GUARDED_BY(mutex_) = false;
    bool stop_ HOST_GUARDED_BY(mutex_) = false;
    Thread* body_ HOST_GUARDED_BY(mutex_) = nullptr;
    Thread* waiting_ HOST_GUARDED_BY(mutex_) = nullptr;
    std::shared_ptr<Thread> thread_;
};

} // namespace host
