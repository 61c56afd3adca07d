#include "ex/work_queue.h"

#include "ke/kernel_impl.h"

#include <algorithm>

namespace host {

WorkQueues::WorkQueues(Kernel& kernel, unsigned threads_each)
    : kernel_(kernel), max_workers_(std::max(threads_each, 1u))
{
    queues_[CriticalWorkQueue].name = "critical work ";
    queues_[DelayedWorkQueue].name = "work ";
    queues_[HyperCriticalWorkQueue].name = "hypercritical work ";
}

void WorkQueues::Post(WORK_QUEUE_TYPE queue_type, std::function<void()> work)
{
    const MutexLock lock(mutex_);
    Queue& queue = queues_[queue_type];
    queue.work.push_back(std::move(work));
    for (const auto& worker : queue.workers) {
        if (worker->idle) {
            worker->idle = false;
            kernel_.GetScheduler().Wake(*worker->thread);
            return;
        }
    }
    if (queue.workers.size() == max_workers_)
        return; // a busy one takes it when it is free
    Worker& fresh = *queue.workers.emplace_back(std::make_unique<Worker>());
    fresh.thread = KiStartThread(queue.name + std::to_string(queue.workers.size() - 1), ThreadKind::System,
                                 [this, &queue, &fresh] { Serve(queue, fresh); });
}

bool WorkQueues::Take(Queue& queue, Worker& worker, std::function<void()>& work)
{
    for (;;) {
        {
            const MutexLock lock(mutex_);
            if (stop_)
                return false;
            if (!queue.work.empty()) {
                worker.idle = false;
                work = std::move(queue.work.front());
                queue.work.pop_front();
                return true;
            }
            worker.idle = true;
        }
        (void)kernel_.GetScheduler().Block({"work", nullptr, true}, kForever);
    }
}

void WorkQueues::Serve(Queue& queue, Worker& worker)
{
    std::function<void()> work;
    while (Take(queue, worker, work)) {
        work();
        work = nullptr;
    }
}

void WorkQueues::Shutdown()
{
    std::vector<std::shared_ptr<Thread>> threads;
    {
        const MutexLock lock(mutex_);
        stop_ = true;
        for (Queue& queue : queues_) {
            for (const auto& worker : queue.workers) {
                threads.push_back(worker->thread);
                kernel_.GetScheduler().Wake(*worker->thread);
            }
        }
    }
    for (const auto& thread : threads)
        KiJoinThread(*thread);
}

} // namespace host
