// System worker threads and their queues.
#pragma once

#include "ke/mutex.h"
#include "ke/thread.h"

#include <array>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>
#include <wdm/io.h>

namespace host {

class WorkQueues {
  public:
    WorkQueues(Kernel& kernel, unsigned threads_each);

    // `work` runs once on a worker of that queue at PASSIVE_LEVEL. IRQL <= DISPATCH_LEVEL.
    void Post(WORK_QUEUE_TYPE queue, std::function<void()> work);
    // Ends the workers; what is queued stays so.
    void Shutdown();

  private:
    struct Worker {
        std::shared_ptr<Thread> thread;
        bool idle = false;
    };
    struct Queue {
        const char* name = "";
        std::deque<std::function<void()>> work;
        std::vector<std::unique_ptr<Worker>> workers;
    };

    void Serve(Queue& queue, Worker& worker);
    bool Take(Queue& queue, Worker& worker, std::function<void()>& work);

    Kernel& kernel_;
    const unsigned max_workers_;
    Mutex mutex_;
    std::array<Queue, MaximumWorkQueue> queues_ HOST_GUARDED_BY(mutex_);
    bool stop_ HOST_GUARDED_BY(mutex_) = false;
};

} // namespace host
