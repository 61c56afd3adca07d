// The rules for spin locks and fast mutexes: owners, IRQL, order.
#pragma once

#include "ke/mutex.h"
#include "ke/thread.h"

#include <map>
#include <optional>
#include <string>
#include <wdm/ex.h>

namespace host {

enum class LockKind : std::uint8_t { Spin, FastMutex };

// Knows every lock that was initialised or used, by address. Lock order is learnt from every acquisition: two
// locks that are taken in both orders are reported although nothing hung.
class LockRules {
  public:
    void Initialized(const void* lock, LockKind kind, const void* caller);

    // An event may be part of a fast mutex that is being initialised.
    void EventInitialized(const KEVENT* event, const void* caller);

    // Before the caller may block in the acquisition. False: it would wait for itself.
    bool Acquiring(Thread& self, const void* lock, LockKind kind, const void* caller);
    // The thread has it now. `old_irql` is what a release goes back to.
    void Acquired(Thread& self, const void* lock, LockKind kind, KIRQL old_irql, const void* caller);
    // `new_irql`: what the release goes to, nothing when it leaves the IRQL alone. False: it is not the
    // caller's to release.
    bool Releasing(Thread& self, const void* lock, LockKind kind, std::optional<KIRQL> new_irql,
                   const void* caller);

    // The memory [begin, end) is about to be freed: forgets its locks. True: one of them is held.
    bool ForgetRange(const void* begin, const void* end, std::string& which);

    // "held by DPC 0 at IRQL 2, taken at ...", or nothing when nobody holds it.
    std::string DescribeHolder(const void* lock) const;

  private:
    struct Edge {
        const void* caller = nullptr;
        std::string actor;
    };
    struct Node {
        LockKind kind = LockKind::Spin;
        bool initialized = false;
        Thread* owner = nullptr;
        unsigned recursions = 0; // acquisitions by the owner that were reported instead
        const void* acquired_at = nullptr;
        std::map<const void*, Edge> after; // locks that were taken while this one was held
    };

    void CheckOrder(Thread& self, const void* lock, const void* caller);
    bool Reaches(const void* from, const void* to, std::string& path) const HOST_REQUIRES(mutex_);

    mutable Mutex mutex_;
    std::map<const void*, Node> nodes_ HOST_GUARDED_BY(mutex_);
};

// Reports what the calling thread still holds or has changed at its end.
void VfCheckThreadEnd(Thread& self);

} // namespace host
