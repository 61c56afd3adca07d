#include "ke/thread.h"

#include "ke/kernel_impl.h"
#include "ke/os_threads.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <pthread.h>
#include <utility>

namespace host {
namespace {

constexpr ULONG kFirstProcess = 1000; // of applications

thread_local Thread* t_current = nullptr;

struct StackBounds {
    const std::byte* low = nullptr;
    const std::byte* high = nullptr;
};

StackBounds FindStack()
{
    pthread_attr_t attributes;
    if (pthread_getattr_np(pthread_self(), &attributes) != 0)
        return {};
    void* low = nullptr;
    std::size_t size = 0;
    pthread_attr_getstack(&attributes, &low, &size);
    pthread_attr_destroy(&attributes);
    return {static_cast<const std::byte*>(low), static_cast<const std::byte*>(low) + size};
}

void EndThread(Thread& self)
{
    // Found while this thread still counts: once it is done, the kernel's end only waits for Finish to return.
    Scheduler& scheduler = self.kernel.GetScheduler();
    VfCheckThreadEnd(self);
    KiSetIrql(self, PASSIVE_LEVEL);
    {
        const MutexLock lock(KiDispatcher());
        self.done = true;
        KiSignal(self.header);
    }
    scheduler.Finish(self);
}

void ThreadMain(Thread& self)
{
    OsName(self.kernel.impl().threads.NameOf(self.id));
    try {
        self.body();
    } catch (...) {
        self.failure = std::current_exception();
    }
    self.body = nullptr;
    EndThread(self);
}

} // namespace

Thread* KiCurrentThread()
{
    return t_current;
}

void KiSetCurrentThread(Thread* thread)
{
    // Asked once for each operating-system thread: for the process's first, the answer takes reading a file.
    thread_local const StackBounds stack = FindStack();
    t_current = thread;
    if (thread != nullptr) {
        thread->stack_low = stack.low;
        thread->stack_high = stack.high;
    }
}

Thread& KiSelf()
{
    if (t_current == nullptr) {
        std::fprintf(stderr, "a kernel routine was called from a thread that the kernel does not know\n");
        std::abort();
    }
    return *t_current;
}

std::shared_ptr<Thread> ThreadTable::Add(Kernel& kernel, std::string name, ThreadKind kind,
                                         std::function<void()> body)
{
    const MutexLock lock(mutex_);
    auto thread =
        std::make_shared<Thread>(kernel, static_cast<ThreadId>(threads_.size()), kind, std::move(body));
    KiInitializeHeader(thread->header, ObjectType::Thread, 0);
    if (kind != ThreadKind::System)
        thread->process = t_current == nullptr ? kFirstProcess : t_current->process;
    threads_.push_back(thread);
    names_.push_back(std::move(name));
    return thread;
}

std::string ThreadTable::NameOf(ThreadId id) const
{
    const MutexLock lock(mutex_);
    return names_[id];
}

std::vector<std::string> ThreadTable::Names() const
{
    const MutexLock lock(mutex_);
    return names_;
}

std::vector<std::shared_ptr<Thread>> ThreadTable::All() const
{
    const MutexLock lock(mutex_);
    return threads_;
}

std::shared_ptr<Thread> KiStartThread(std::string name, ThreadKind kind, std::function<void()> body)
{
    Kernel::Impl& kernel = KiKernel();
    std::shared_ptr<Thread> thread =
        kernel.threads.Add(kernel.kernel, std::move(name), kind, std::move(body));
    Thread& raw = *thread;
    kernel.scheduler->Start(raw, [&raw] { ThreadMain(raw); });
    return thread;
}

void KiJoinThread(Thread& thread)
{
    if (!thread.done)
        (void)KiWaitOne(thread.header, kForever, {"the end of a thread", &thread});
}

void KiExitThread(NTSTATUS status)
{
    Thread& self = KiSelf();
    self.exit_status = status;
    EndThread(self);
    OsEndJob();
}

ThreadHandle::ThreadHandle(std::shared_ptr<Thread> thread) : thread_(std::move(thread)) {}

ThreadHandle::ThreadHandle(ThreadHandle&& other) noexcept = default;

ThreadHandle& ThreadHandle::operator=(ThreadHandle&& other) noexcept
{
    ThreadHandle old(std::move(*this)); // joined at the end of this scope
    thread_ = std::move(other.thread_);
    return *this;
}

ThreadHandle::~ThreadHandle()
{
    if (thread_ == nullptr)
        return;
    const std::shared_ptr<Thread> thread = thread_;
    KiJoinThread(*thread);
    if (thread->failure != nullptr && std::uncaught_exceptions() == 0)
        thread->kernel.GetVerifier().Report(Rule::UnhandledException, "",
                                            "an exception left a thread that nobody joined");
}

void ThreadHandle::Join()
{
    const std::shared_ptr<Thread> thread = std::exchange(thread_, nullptr);
    if (thread == nullptr)
        return;
    KiJoinThread(*thread);
    if (thread->failure != nullptr)
        std::rethrow_exception(std::exchange(thread->failure, nullptr));
}

bool ThreadHandle::Done() const
{
    return thread_ == nullptr || thread_->done;
}

AttachedThread::AttachedThread(std::string name)
{
    Kernel::Impl& kernel = KiKernel();
    if (kernel.options.mode != Mode::Live) {
        std::fprintf(stderr, "only a live kernel takes threads of the application\n");
        std::abort();
    }
    thread_ = kernel.threads.Add(kernel.kernel, std::move(name), ThreadKind::Attached, nullptr);
    kernel.scheduler->Adopt(*thread_);
}

AttachedThread::~AttachedThread()
{
    VfCheckThreadEnd(*thread_);
    thread_->done = true;
    thread_->kernel.GetScheduler().Release(*thread_);
}

void SetActorProcess(std::uint32_t id)
{
    KiSelf().process = id;
}

std::string ActorName()
{
    const Thread* const self = KiCurrentThread();
    return self == nullptr ? "?" : self->kernel.impl().threads.NameOf(self->id);
}

} // namespace host
