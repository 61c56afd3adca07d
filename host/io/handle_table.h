// Handles of the system process: small numbers that stand for objects until ZwClose.
#pragma once

#include "ke/kernel.h"
#include "ke/mutex.h"

#include <map>
#include <memory>
#include <ntdef.h>
#include <string>

namespace host {

// What a handle can refer to.
class ObHandleBody {
  public:
    virtual ~ObHandleBody() = default;
    // For reports: "key \Registry\...".
    virtual std::string Describe() const = 0;
    // What ObReferenceObjectByHandle gives for it; nullptr when it has no object of its own.
    virtual PVOID Object() const { return nullptr; }
};

class ObHandleTable : public Component {
  public:
    using Component::Component;

    HANDLE Insert(std::shared_ptr<ObHandleBody> body);
    // Null for a handle that is not open or refers to something else.
    template <class T>
    std::shared_ptr<T> Find(HANDLE handle)
    {
        return std::dynamic_pointer_cast<T>(FindAny(handle));
    }
    std::shared_ptr<ObHandleBody> FindAny(HANDLE handle);
    bool Close(HANDLE handle);
    std::size_t Open() const;

    void Audit() override;

  private:
    mutable Mutex mutex_;
    std::map<ULONG_PTR, std::shared_ptr<ObHandleBody>> open_ HOST_GUARDED_BY(mutex_);
    ULONG_PTR next_ HOST_GUARDED_BY(mutex_) = 4;
};

} // namespace host
