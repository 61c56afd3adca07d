// A mutex that clang's thread-safety analysis understands. It guards the kernel's own tables against real
// concurrency; kernel objects that a driver sees (spin locks, events) are built above the scheduler instead.
// Never held across a call of the Scheduler that may switch threads.
#pragma once

#include <mutex>

#if defined(__clang__)
#define NAVOX_TSA(x) __attribute__((x))
#else
#define NAVOX_TSA(x)
#endif

#define HOST_GUARDED_BY(x) NAVOX_TSA(guarded_by(x))
#define HOST_REQUIRES(...) NAVOX_TSA(requires_capability(__VA_ARGS__))
#define HOST_EXCLUDES(...) NAVOX_TSA(locks_excluded(__VA_ARGS__))
#define HOST_NO_ANALYSIS NAVOX_TSA(no_thread_safety_analysis)

namespace host {

class NAVOX_TSA(capability("mutex")) Mutex {
  public:
    void Lock() NAVOX_TSA(acquire_capability()) { mutex_.lock(); }
    void Unlock() NAVOX_TSA(release_capability()) { mutex_.unlock(); }

  private:
    std::mutex mutex_;
};

class NAVOX_TSA(scoped_lockable) MutexLock {
  public:
    explicit MutexLock(Mutex& mutex) NAVOX_TSA(acquire_capability(mutex)) : mutex_(mutex) { mutex_.Lock(); }
    ~MutexLock() NAVOX_TSA(release_capability()) { mutex_.Unlock(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

  private:
    Mutex& mutex_;
};

} // namespace host
