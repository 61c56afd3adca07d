#include "ke/os_threads.h"

#include "ke/mutex.h"
#include "ke/parker.h"

#include <new>
#include <pthread.h>
#include <sched.h>
#include <thread>
#include <utility>
#include <vector>

namespace host {
namespace {

struct OsThread {
    Parker parker;
    std::function<void()> job;
    int processor = -1;
};

thread_local OsThread* t_thread = nullptr;

class OsThreadPool {
  public:
    static OsThreadPool& Instance()
    {
        // Never destroyed: its threads sleep in it until the process ends.
        static auto* pool = new OsThreadPool;
        return *pool;
    }

    void Run(std::function<void()> job, int processor)
    {
        OsThread* thread = TakeIdle();
        const bool fresh = thread == nullptr;
        if (fresh)
            thread = new OsThread;
        thread->job = std::move(job);
        thread->processor = processor;
        if (fresh)
            std::thread([this, thread] { Serve(*thread); }).detach();
        else
            thread->parker.Post();
    }

    // Goes on above the stack of the job that is given up.
    [[noreturn]] void EndJob()
    {
        AwaitJob(*t_thread);
        Serve(*t_thread);
    }

    void Bind(int processor)
    {
        // What the calling thread is bound to now; the call is not free.
        thread_local int bound = -1;
        thread_local bool inherited = true;
        if (bound == processor && !inherited)
            return;
        bound = processor;
        inherited = false;
        cpu_set_t set = all_;
        if (processor >= 0) {
            CPU_ZERO(&set);
            CPU_SET(static_cast<unsigned>(processor), &set);
        }
        // Where it is not allowed, runs are slower and nothing else.
        (void)sched_setaffinity(0, sizeof set, &set);
    }

  private:
    OsThreadPool()
    {
        if (sched_getaffinity(0, sizeof all_, &all_) != 0) {
            for (unsigned processor = 0; processor < CPU_SETSIZE; ++processor)
                CPU_SET(processor, &all_);
        }
        // A death test forks: the child has none of these threads.
        pthread_atfork(nullptr, nullptr, [] { Instance().ForgetThreads(); });
    }

    void AwaitJob(OsThread& thread)
    {
        thread.job = nullptr;
        {
            const MutexLock lock(mutex_);
            idle_.push_back(&thread);
        }
        thread.parker.Wait();
    }

    OsThread* TakeIdle()
    {
        const MutexLock lock(mutex_);
        if (idle_.empty())
            return nullptr;
        OsThread* thread = idle_.back();
        idle_.pop_back();
        return thread;
    }

    [[noreturn]] void Serve(OsThread& thread)
    {
        t_thread = &thread;
        for (;;) {
            Bind(thread.processor);
            thread.job();
            AwaitJob(thread);
        }
    }

    // In a forked child: whatever another thread was doing to these will never be finished.
    void ForgetThreads() HOST_NO_ANALYSIS
    {
        new (&mutex_) Mutex;
        new (&idle_) std::vector<OsThread*>;
    }

    cpu_set_t all_{};
    Mutex mutex_;
    std::vector<OsThread*> idle_ HOST_GUARDED_BY(mutex_);
};

} // namespace

void OsRun(std::function<void()> job, int processor)
{
    OsThreadPool::Instance().Run(std::move(job), processor);
}

void OsEndJob()
{
    OsThreadPool::Instance().EndJob();
}

void OsSleepForever()
{
    Parker nobody_posts;
    for (;;)
        nobody_posts.Wait();
}

void OsName(const std::string& name)
{
    (void)pthread_setname_np(pthread_self(), name.substr(0, 15).c_str());
}

void OsBind(int processor)
{
    OsThreadPool::Instance().Bind(processor);
}

int OsCurrentProcessor()
{
    return sched_getcpu();
}

} // namespace host
