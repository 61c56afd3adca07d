// A mutex that clang's thread-safety analysis understands. It guards the kernel's own tables against real
// concurrency; what a driver sees (spin locks, events) is built above the scheduler instead. Never held
// across a call that may switch threads.
#pragma once

#include <mutex>

#if defined(__clang__)
#define HOST_TSA(x) __attribute__((x))
#else
#define HOST_TSA(x)
#endif

#define HOST_GUARDED_BY(x) HOST_TSA(guarded_by(x))
#define HOST_REQUIRES(...) HOST_TSA(requires_capability(__VA_ARGS__))
#define HOST_NO_ANALYSIS HOST_TSA(no_thread_safety_analysis)

namespace host {

class HOST_TSA(capability("mutex")) Mutex {
  public:
    void Lock() HOST_TSA(acquire_capability()) { mutex_.lock(); }
    void Unlock() HOST_TSA(release_capability()) { mutex_.unlock(); }

  private:
    std::mutex mutex_;
};

class HOST_TSA(scoped_lockable) MutexLock {
  public:
    explicit MutexLock(Mutex& mutex) HOST_TSA(acquire_capability(mutex)) : mutex_(mutex) { mutex_.Lock(); }
    ~MutexLock() HOST_TSA(release_capability()) { mutex_.Unlock(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

  private:
    Mutex& mutex_;
};

} // namespace host
