// One call of an application on its way through a device stack.
#pragma once

#include "io/file_object.h"
#include "io/irp.h"
#include "ke/mutex.h"
#include "nt/file.h"

namespace host::nt {

class FileRequest : public IopRequest, public std::enable_shared_from_this<FileRequest> {
  public:
    FileRequest(IopFile* file, std::size_t capacity, File::OnDone on_done);
    ~FileRequest() override = default;

    bool Completed(PIRP irp) override;
    bool Cancel() override;
    ULONG ProcessId() const override { return file_->process; }
    std::optional<std::size_t> Capacity() const override { return capacity_; }

    // Ends a call that never became a request.
    void Refuse(NTSTATUS status);
    void SetIrp(PIRP irp);
    void SetReturned(NTSTATUS status) { returned_ = status; }
    void HoldsTurn() { holds_turn_ = true; }

    std::span<std::byte> Buffer() { return buffer_; }
    bool Done() const;
    NTSTATUS Status() const;
    std::size_t Information() const;
    NTSTATUS Returned() const { return returned_; }
    Result Take() const;
    bool Wait(Time timeout);
    bool IsOf(const IopFile* file) const { return file_ == file; }

  private:
    void Finish(NTSTATUS status, std::size_t information);

    IopFile* const file_; // referenced while the request is under way
    const std::size_t capacity_;
    const File::OnDone on_done_;
    std::vector<std::byte> buffer_;
    bool holds_turn_ = false;
    NTSTATUS returned_ = STATUS_PENDING; // by whoever starts the call
    KEVENT event_;
    mutable Mutex mutex_;
    PIRP irp_ HOST_GUARDED_BY(mutex_) = nullptr; // while it may be cancelled
    int cancellers_ HOST_GUARDED_BY(mutex_) = 0;
    bool done_ HOST_GUARDED_BY(mutex_) = false;
    NTSTATUS status_ HOST_GUARDED_BY(mutex_) = 0;
    std::size_t information_ HOST_GUARDED_BY(mutex_) = 0;
};

} // namespace host::nt
