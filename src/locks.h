// Guards for the locks of the platform.
//
// Lock order, outermost first; the verifier of the host kernel checks it as the driver runs:
//
//     ClientListMutex -> ClientListLock -> SerialLock -> Client::TimeoutsLock -> cancel spin lock
//                     -> Client::Lock
//
// StateLock and IdleLock are leaves: nothing is taken under them.
#pragma once

#include "navox_ddk.h"

// Holds a spin lock. The holder runs at DISPATCH_LEVEL.
class NAVOX_SCOPED_LOCK SpinLockGuard {
  public:
    explicit SpinLockGuard(KSPIN_LOCK* lock) NAVOX_ACQUIRES(*lock)
        : lock_(lock), irql_(KeAcquireSpinLockRaiseToDpc(lock))
    {}
    ~SpinLockGuard() NAVOX_RELEASES() { KeReleaseSpinLock(lock_, irql_); }
    SpinLockGuard(const SpinLockGuard&) = delete;
    SpinLockGuard& operator=(const SpinLockGuard&) = delete;

  private:
    KSPIN_LOCK* lock_;
    KIRQL irql_;
};

// Holds a fast mutex. PASSIVE_LEVEL, and so is the holder: the registry may be written under it. What the
// IRQL would have kept out, the critical region does.
class FastMutexGuard {
  public:
    explicit FastMutexGuard(FAST_MUTEX* mutex) : mutex_(mutex)
    {
        KeEnterCriticalRegion();
        ExAcquireFastMutexUnsafe(mutex_);
    }
    ~FastMutexGuard()
    {
        ExReleaseFastMutexUnsafe(mutex_);
        KeLeaveCriticalRegion();
    }
    FastMutexGuard(const FastMutexGuard&) = delete;
    FastMutexGuard& operator=(const FastMutexGuard&) = delete;

  private:
    FAST_MUTEX* mutex_;
};

// Holds the system's cancel spin lock, until its end or until it is handed to a routine that releases it.
class CancelLockGuard {
  public:
    CancelLockGuard() { IoAcquireCancelSpinLock(&irql_); }
    ~CancelLockGuard()
    {
        if (held_)
            IoReleaseCancelSpinLock(irql_);
    }
    CancelLockGuard(const CancelLockGuard&) = delete;
    CancelLockGuard& operator=(const CancelLockGuard&) = delete;

    // The lock is someone else's to release, at the IRQL returned.
    [[nodiscard]] KIRQL HandOver()
    {
        held_ = false;
        return irql_;
    }
    void Release()
    {
        held_ = false;
        IoReleaseCancelSpinLock(irql_);
    }

  private:
    KIRQL irql_ = 0;
    bool held_ = true;
};
