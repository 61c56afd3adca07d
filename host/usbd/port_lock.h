// Holds a port's spin lock for a block.
#pragma once

#include "ke/own_step.h"

#include <wdm/io.h>

namespace host {

class PortLock {
  public:
    explicit PortLock(KSPIN_LOCK& lock) _Analysis_suppress_lock_checking_ : lock_(lock)
    {
        const OwnStep step;
        irql_ = KeAcquireSpinLockRaiseToDpc(&lock_);
    }
    ~PortLock() _Analysis_suppress_lock_checking_
    {
        const OwnStep step;
        KeReleaseSpinLock(&lock_, irql_);
    }
    PortLock(const PortLock&) = delete;
    PortLock& operator=(const PortLock&) = delete;

  private:
    KSPIN_LOCK& lock_;
    KIRQL irql_ = PASSIVE_LEVEL;
};

// The cancel routine of a URB that a port has.
VOID NTAPI UsbCancelUrb(PDEVICE_OBJECT device, PIRP irp);

} // namespace host
