// Work items of drivers: what IoAllocateWorkItem hands out.
#pragma once

#include "ke/kernel.h"
#include "ke/mutex.h"

#include <map>
#include <optional>
#include <string_view>
#include <vector>
#include <wdm/io.h>

// Opaque to drivers.
struct _IO_WORKITEM {
    PDEVICE_OBJECT device;
};

namespace host {

class WorkItems : public Component {
  public:
    using Component::Component;

    // nullptr when memory is short or a fault point says so.
    PIO_WORKITEM Allocate(PDEVICE_OBJECT device, const void* caller);
    void Free(PIO_WORKITEM item, const void* caller);
    void Queue(PIO_WORKITEM item, PIO_WORKITEM_ROUTINE routine, WORK_QUEUE_TYPE queue, PVOID context,
               const void* caller);

    // Reports items that are queued or running, and those that were not freed, each once.
    void AuditUnload(std::string_view when);

  private:
    struct State {
        std::uint64_t number = 0;
        const void* allocated_at = nullptr;
        bool queued = false;
        bool reported = false;
    };
    struct Call {
        PIO_WORKITEM item;
        PDEVICE_OBJECT device;
        PIO_WORKITEM_ROUTINE routine;
        PVOID context;
    };

    bool Known(PIO_WORKITEM item, const char* routine, const void* caller);
    void Run(const Call& call);

    Mutex mutex_;
    std::map<PIO_WORKITEM, State> items_ HOST_GUARDED_BY(mutex_);
    std::vector<PIO_WORKITEM_ROUTINE> running_ HOST_GUARDED_BY(mutex_);
    std::uint64_t last_number_ HOST_GUARDED_BY(mutex_) = 0;
};

} // namespace host
