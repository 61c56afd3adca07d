#include "io/handle_table.h"

#include <bit>
#include <wdm/zw.h>

namespace host {

HANDLE ObHandleTable::Insert(std::shared_ptr<ObHandleBody> body)
{
    const MutexLock lock(mutex_);
    const ULONG_PTR value = next_;
    next_ += 4;
    open_[value] = std::move(body);
    return std::bit_cast<HANDLE>(value);
}

std::shared_ptr<ObHandleBody> ObHandleTable::FindAny(HANDLE handle)
{
    const MutexLock lock(mutex_);
    auto found = open_.find(std::bit_cast<ULONG_PTR>(handle));
    return found == open_.end() ? nullptr : found->second;
}

bool ObHandleTable::Close(HANDLE handle)
{
    std::shared_ptr<ObHandleBody> last; // released after the lock
    const MutexLock lock(mutex_);
    auto found = open_.find(std::bit_cast<ULONG_PTR>(handle));
    if (found == open_.end())
        return false;
    last = std::move(found->second);
    open_.erase(found);
    return true;
}

std::size_t ObHandleTable::Open() const
{
    const MutexLock lock(mutex_);
    return open_.size();
}

void ObHandleTable::Audit()
{
    const MutexLock lock(mutex_);
    for (const auto& [value, body] : open_)
        VfReport(Rule::HandleLeak, "handle", "a handle was not closed: " + body->Describe());
}

} // namespace host

extern "C" NTSTATUS NTAPI ZwClose(HANDLE Handle)
{
    using namespace host;
    const void* caller = __builtin_return_address(0);
    VfRequireIrqlAtMost(PASSIVE_LEVEL, Rule::IrqlPassive, "ZwClose", caller);
    if (Kernel::Current().Get<ObHandleTable>().Close(Handle))
        return STATUS_SUCCESS;
    VfReport(Rule::HandleInvalid, "ZwClose", "ZwClose was given a handle that is not open", caller);
    return STATUS_INVALID_HANDLE;
}
