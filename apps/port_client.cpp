#include "apps/port_client.h"

#include <asio/post.hpp>
#include <cerrno>
#include <cstring>
#include <fmt/core.h>
#include <ntddser.h>
#include <ntstatus.h>
#include <unistd.h>
#include <utility>

namespace app {
namespace {

using host::nt::BytesOf;

constexpr std::size_t kReadSize = 4096; // all that a ring can hold

void Control(const host::nt::File& file, std::uint32_t code, std::span<const std::byte> input)
{
    const NTSTATUS status = file.Control(code, input).status;
    if (!NT_SUCCESS(status))
        throw OpenError(
            fmt::format("the port refuses 0x{:08x}: 0x{:08x}", code, static_cast<std::uint32_t>(status)));
}

} // namespace

PortClient::PortClient(asio::io_context& io, unsigned number, std::string name, UniqueFd output)
    : io_(io), number_(number), name_(std::move(name)), output_(io, output.release())
{}

void PortClient::Open(const std::string& port, std::function<void()> on_end, std::function<void()> on_refused)
{
    host::nt::File file;
    const NTSTATUS status = host::nt::File::Open("\\\\.\\" + port, &file);
    if (!NT_SUCCESS(status))
        throw OpenError(fmt::format("cannot open {}: 0x{:08x}", port, static_cast<std::uint32_t>(status)));
    // Reads return at once with what there is.
    const SERIAL_TIMEOUTS timeouts{.ReadIntervalTimeout = MAXULONG};
    Control(file, IOCTL_SERIAL_SET_TIMEOUTS, BytesOf(timeouts));
    const ULONG mask = SERIAL_EV_RXCHAR;
    Control(file, IOCTL_SERIAL_SET_WAIT_MASK, BytesOf(mask));
    file_ = std::move(file);
    on_end_ = std::move(on_end);
    on_refused_ = std::move(on_refused);
    asio::post(io_, [self = shared_from_this()] { self->Pump(); });
}

void PortClient::Close()
{
    on_end_ = nullptr;
    file_.Close(); // ends the wait
    asio::error_code ignored;
    output_.close(ignored);
}

// Reads and sends until the port has no more or the program takes no more.
void PortClient::Pump()
{
    while (file_.IsOpen() && unsent_.empty()) {
        const host::nt::Result result = file_.Read(kReadSize);
        if (!NT_SUCCESS(result.status)) {
            Refused();
            return;
        }
        if (result.information == 0) {
            WaitForCharacter();
            return;
        }
        counts_.read += result.information;
        if (!Deliver(result.Text()))
            return;
    }
}

// False when the program has gone.
bool PortClient::Deliver(std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t sent = ::write(output_.native_handle(), bytes.data(), bytes.size());
        if (sent >= 0) {
            counts_.delivered += static_cast<std::uint64_t>(sent);
            bytes.remove_prefix(static_cast<std::size_t>(sent));
        } else if (errno == EAGAIN) {
            unsent_ = bytes;
            WaitForRoom();
            return true;
        } else if (errno != EINTR) {
            End();
            return false;
        }
    }
    return true;
}

void PortClient::WaitForRoom()
{
    output_.async_wait(asio::posix::stream_descriptor::wait_write,
                       [self = shared_from_this()](const asio::error_code& error) {
                           if (!self->file_.IsOpen())
                               return;
                           if (error)
                               return self->End();
                           if (self->Deliver(std::exchange(self->unsent_, {})))
                               self->Pump();
                       });
}

void PortClient::WaitForCharacter()
{
    // The word comes on whichever thread completes the wait.
    const auto tell = [weak = weak_from_this(), &io = io_] {
        asio::post(io, [weak] {
            const auto self = weak.lock();
            if (!self || !self->file_.IsOpen())
                return;
            if (NT_SUCCESS(self->wait_.Status()))
                self->Pump();
            else
                self->Refused();
        });
    };
    wait_ = file_.StartControl(IOCTL_SERIAL_WAIT_ON_MASK, {}, sizeof(ULONG), tell);
}

void PortClient::End()
{
    if (on_end_)
        asio::post(io_, [self = shared_from_this(), on_end = std::exchange(on_end_, nullptr)] {
            if (self->file_.IsOpen())
                on_end();
        });
}

void PortClient::Refused()
{
    asio::post(io_, [self = shared_from_this()] {
        if (self->file_.IsOpen())
            self->on_refused_();
    });
}

void PortClient::Write(std::span<const char> bytes)
{
    if (!file_.IsOpen())
        return;
    counts_.written += file_.Write(std::as_bytes(bytes)).information;
}

std::uint32_t PortClient::Queued() const
{
    if (!file_.IsOpen())
        return 0;
    const host::nt::Result result = file_.Control(IOCTL_SERIAL_GET_COMMSTATUS, {}, sizeof(SERIAL_STATUS));
    SERIAL_STATUS status{};
    if (NT_SUCCESS(result.status) && result.data.size() == sizeof(status))
        std::memcpy(&status, result.data.data(), sizeof(status));
    return status.AmountInInQueue;
}

} // namespace app
