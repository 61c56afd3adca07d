#include "io/actor.h"

#include "ke/kernel_impl.h"

#include <utility>

namespace host {

IopActor::IopActor(std::string name) : name_(std::move(name)) {}

IopActor::~IopActor()
{
    Stop();
}

void IopActor::Post(std::function<void()> task)
{
    bool start = false;
    Thread* sleeper = nullptr;
    {
        const MutexLock lock(mutex_);
        tasks_.push_back(std::move(task));
        start = !std::exchange(started_, true);
        sleeper = std::exchange(waiting_, nullptr);
    }
    Kernel& kernel = Kernel::Current();
    if (start)
        thread_ = KiStartThread(name_, ThreadKind::System, [this] { Body(); });
    else if (sleeper != nullptr)
        kernel.GetScheduler().Wake(*sleeper);
}

void IopActor::Run(const std::function<void()>& task)
{
    if (IsCurrent()) {
        task();
        return;
    }
    KEVENT done;
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    Post([&] {
        task();
        KeSetEvent(&done, EVENT_INCREMENT, FALSE);
    });
    KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
}

bool IopActor::IsCurrent() const
{
    const MutexLock lock(mutex_);
    return body_ != nullptr && body_ == KiCurrentThread();
}

bool IopActor::NothingWaits() const
{
    const MutexLock lock(mutex_);
    return tasks_.empty();
}

void IopActor::Stop()
{
    Thread* sleeper = nullptr;
    {
        const MutexLock lock(mutex_);
        stop_ = true;
        sleeper = std::exchange(waiting_, nullptr);
    }
    if (sleeper != nullptr)
        Kernel::Current().GetScheduler().Wake(*sleeper);
    if (thread_)
        KiJoinThread(*thread_);
    thread_.reset();
}

void IopActor::Body()
{
    Scheduler& scheduler = Kernel::Current().GetScheduler();
    for (;;) {
        std::function<void()> task;
        {
            const MutexLock lock(mutex_);
            body_ = KiCurrentThread();
            if (!tasks_.empty()) {
                task = std::move(tasks_.front());
                tasks_.pop_front();
            } else if (stop_) {
                return;
            } else {
                waiting_ = body_;
            }
        }
        if (task)
            task();
        else
            scheduler.Block({"something to do", this, true}, kForever);
    }
}

} // namespace host
