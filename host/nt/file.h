// The user-mode side: files on devices, with the calls that applications make.
//
// All members are called from kernel threads (in a live kernel: attached ones) at PASSIVE_LEVEL and never
// throw what a driver could see. A File is one handle; Duplicate gives another. Closing the last handle sends
// cleanup and, when no request is left, close.
#pragma once

#include "ke/kernel.h"

#include <cstddef>
#include <functional>
#include <memory>
#include <ntdef.h>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace host {
class IopFile;
}

namespace host::nt {

enum class Access : std::uint8_t { None, Read, Write, ReadWrite };

struct OpenOptions {
    Access access = Access::ReadWrite;
    ULONG share = 0;
    bool overlapped = true; // else one request at a time, and each call returns when it is complete
    ULONG process = 0;      // 0: the caller's own
};

// What a call that has ended gives.
struct Result {
    NTSTATUS status = 0;
    std::size_t information = 0;
    std::vector<std::byte> data; // the first `information` bytes of the buffer, unless the call failed

    std::string Text() const { return {reinterpret_cast<const char*>(data.data()), data.size()}; }
};

class FileRequest;

// A call that may be under way. Copies refer to the same call.
class Request {
  public:
    Request() = default;
    explicit Request(std::shared_ptr<FileRequest> request) : request_(std::move(request)) {}

    bool Valid() const { return request_ != nullptr; }
    bool Done() const;
    // STATUS_PENDING until it is done.
    NTSTATUS Status() const;
    std::size_t Information() const;
    // What the driver's dispatch routine returned. The system gives this to the caller, and looks at the status that the
    // request was completed with only when it is STATUS_PENDING.
    NTSTATUS Returned() const;
    // Waits for the end.
    Result Wait() const;
    // False when `timeout` passed first.
    [[nodiscard]] bool WaitFor(Time timeout) const;
    // True when the call was still under way. It ends soon, in whatever way its driver ends it.
    bool Cancel() const; // NOLINT(modernize-use-nodiscard)

  private:
    std::shared_ptr<FileRequest> request_;
};

class File {
  public:
    File() = default;
    File(File&& other) noexcept : file_(std::exchange(other.file_, nullptr)) {}
    File& operator=(File&& other) noexcept;
    ~File() { Close(); }

    // `path`: "COM5", "\\.\COM5", "\\?\USB#...", or a name of the kernel's own, "\Device\x".
    static NTSTATUS Open(std::string_view path, File* file, const OpenOptions& options = {});

    bool IsOpen() const { return file_ != nullptr; }
    void Close();
    File Duplicate() const;

    // Asynchronous calls. `on_done` is called once, on the thread that completes the call, at
    // IRQL <= DISPATCH_LEVEL; it must do no more than pass the word on.
    using OnDone = std::function<void()>;
    Request StartRead(std::size_t length, OnDone on_done = {}) const;
    Request StartWrite(std::span<const std::byte> data, OnDone on_done = {}) const;
    Request StartControl(ULONG code, std::span<const std::byte> input, std::size_t output_length,
                         OnDone on_done = {}) const;
    Request StartFlush(OnDone on_done = {}) const;

    // The same, waited for.
    Result Read(std::size_t length) const { return StartRead(length).Wait(); }
    Result Write(std::span<const std::byte> data) const { return StartWrite(data).Wait(); }
    Result Control(ULONG code, std::span<const std::byte> input = {}, std::size_t output_length = 0) const
    {
        return StartControl(code, input, output_length).Wait();
    }
    Result Flush() const { return StartFlush().Wait(); }

    // Cancels what the calling thread has under way on this file, or what any thread has. True when there
    // was something.
    bool CancelIo() const;   // NOLINT(modernize-use-nodiscard)
    bool CancelIoEx() const; // NOLINT(modernize-use-nodiscard)

    // For tests of the kernel.
    IopFile* Object() const { return file_; }

  private:
    explicit File(IopFile* file) : file_(file) {}
    Request Start(UCHAR major, std::span<const std::byte> input, std::size_t output_length, ULONG code,
                  OnDone on_done) const;

    IopFile* file_ = nullptr;
};

// Bytes of a value, as a control's input.
template <class T>
std::span<const std::byte> BytesOf(const T& value)
{
    return std::as_bytes(std::span(&value, 1));
}

// What the end of a thread does to its calls: cancels each, and waits until they have come back. Called by
// client threads as the last thing they do.
void CancelThreadIo();
// A thread of an application: runs `body`, then CancelThreadIo.
[[nodiscard]] ThreadHandle SpawnClient(std::string name, std::function<void()> body);

// Names of the enabled interfaces of a class, ready for Open.
std::vector<std::string> Interfaces(const GUID& interface_class);

} // namespace host::nt
