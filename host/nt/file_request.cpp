#include "nt/file_request.h"

#include "io/buffered.h"

#include <algorithm>

namespace host::nt {

FileRequest::FileRequest(IopFile* file, std::size_t capacity, File::OnDone on_done)
    : file_(file), capacity_(capacity), on_done_(std::move(on_done)), buffer_(capacity)
{
    KeInitializeEvent(&event_, NotificationEvent, FALSE);
}

void FileRequest::SetIrp(PIRP irp)
{
    const MutexLock lock(mutex_);
    irp_ = irp;
}

void FileRequest::Finish(NTSTATUS status, std::size_t information)
{
    {
        const MutexLock lock(mutex_);
        done_ = true;
        status_ = status;
        information_ = information;
    }
    KeSetEvent(&event_, EVENT_INCREMENT, FALSE);
    if (on_done_)
        on_done_();
}

void FileRequest::Refuse(NTSTATUS status)
{
    returned_ = status;
    Finish(status, 0);
}

bool FileRequest::Completed(PIRP irp)
{
    IopUnbufferRequest(irp, capacity_);
    const IO_STATUS_BLOCK result = irp->IoStatus;
    bool free = false;
    {
        const MutexLock lock(mutex_);
        irp_ = nullptr;
        free = cancellers_ == 0;
    }
    IopFile* file = file_;
    if (holds_turn_)
        KeSetEvent(&file->turn, EVENT_INCREMENT, FALSE);
    Finish(result.Status, result.Information);
    IopReleaseFile(file);
    return free;
}

bool FileRequest::Cancel()
{
    PIRP irp = nullptr;
    {
        const MutexLock lock(mutex_);
        if (irp_ == nullptr)
            return false;
        irp = irp_;
        ++cancellers_;
    }
    IoCancelIrp(irp);
    bool free = false;
    {
        const MutexLock lock(mutex_);
        free = --cancellers_ == 0 && irp_ == nullptr;
    }
    if (free)
        IopFreeIrp(irp);
    return true;
}

bool FileRequest::Done() const
{
    const MutexLock lock(mutex_);
    return done_;
}

NTSTATUS FileRequest::Status() const
{
    const MutexLock lock(mutex_);
    return done_ ? status_ : STATUS_PENDING;
}

std::size_t FileRequest::Information() const
{
    const MutexLock lock(mutex_);
    return information_;
}

Result FileRequest::Take() const
{
    const MutexLock lock(mutex_);
    Result result{status_, information_, {}};
    if (!NT_ERROR(status_)) {
        const std::size_t length = std::min(information_, buffer_.size());
        result.data.assign(buffer_.begin(), buffer_.begin() + static_cast<std::ptrdiff_t>(length));
    }
    return result;
}

bool FileRequest::Wait(Time timeout)
{
    LARGE_INTEGER limit{};
    limit.QuadPart = -timeout;
    return KeWaitForSingleObject(&event_, UserRequest, KernelMode, FALSE,
                                 timeout == kForever ? nullptr : &limit) != STATUS_TIMEOUT;
}

} // namespace host::nt
