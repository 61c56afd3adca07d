// Event tracing: what drivers write goes to the kernel's event log.
#pragma once

#include "ke/kernel.h"
#include "ke/mutex.h"

#include <evntprov.h>
#include <map>
#include <string_view>

namespace host {

class EtwProviders : public Component {
  public:
    using Component::Component;

    // Tells the provider at once that a session listens, at every level.
    NTSTATUS Register(const GUID& id, PETWENABLECALLBACK callback, PVOID context, REGHANDLE& handle,
                      const void* caller);
    NTSTATUS Unregister(REGHANDLE handle);
    bool Registered(REGHANDLE handle) const;
    // Reports providers that are still registered, each once.
    void AuditUnload(std::string_view when);

  private:
    struct Provider {
        const void* registered_at = nullptr;
        bool reported = false;
    };

    mutable Mutex mutex_;
    std::map<REGHANDLE, Provider> providers_ HOST_GUARDED_BY(mutex_);
    REGHANDLE last_ HOST_GUARDED_BY(mutex_) = 0;
};

} // namespace host
