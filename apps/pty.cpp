#include "apps/pty.h"

#include "apps/options.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fmt/core.h>
#include <poll.h>
#include <spdlog/spdlog.h>
#include <sys/inotify.h>
#include <termios.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace app {
namespace {

constexpr std::size_t kLongestName = 64; // of a terminal

[[noreturn]] void Fail(const std::string& what)
{
    throw UsageError(fmt::format("{}: {}", what, std::strerror(errno)));
}

// The system may take seconds to close an inotify descriptor that has watched something: they are kept for the next
// terminal.
std::vector<UniqueFd>& SpareWatchers()
{
    static std::vector<UniqueFd> spare;
    return spare;
}

UniqueFd OpenWatcher()
{
    std::vector<UniqueFd>& spare = SpareWatchers();
    if (spare.empty())
        return UniqueFd(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    UniqueFd watcher = std::move(spare.back());
    spare.pop_back();
    return watcher;
}

} // namespace

Pty::Pty(asio::io_context& io, Clients& clients, std::string link)
    : clients_(clients), link_(std::move(link)), master_(io), events_(io)
{
    OpenMaster();
    UniqueFd events = OpenWatcher();
    if (!events)
        Fail("cannot watch pseudo-terminals");
    events_.assign(events.release());
    Refresh();
    MakeLink();
    AwaitEvents();
}

Pty::~Pty()
{
    clients_.Close(client_);
    ::unlink(link_.c_str());
    Unwatch();
    SpareWatchers().emplace_back(events_.release());
}

void Pty::OpenMaster()
{
    UniqueFd master(::open("/dev/ptmx", O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
    std::array<char, kLongestName> name{};
    if (!master || ::grantpt(master.get()) != 0 || ::unlockpt(master.get()) != 0 ||
        ::ptsname_r(master.get(), name.data(), name.size()) != 0)
        Fail("cannot open a pseudo-terminal");
    device_ = name.data();
    master_.assign(master.release());
    // One that was never open does not hang up.
    const UniqueFd once(::open(device_.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
}

void Pty::MakeLink() const
{
    const std::string fresh = link_ + ".new";
    ::unlink(fresh.c_str());
    if (::symlink(device_.c_str(), fresh.c_str()) != 0 || ::rename(fresh.c_str(), link_.c_str()) != 0)
        Fail(fmt::format("cannot make the link {}", link_));
}

void Pty::Refresh()
{
    Unwatch(); // this opening is none of a program's
    const bool occupied = Occupied();
    {
        const UniqueFd terminal(::open(device_.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
        termios settings{};
        if (!terminal || ::tcgetattr(terminal.get(), &settings) != 0)
            Fail(fmt::format("cannot set up {}", device_));
        ::cfmakeraw(&settings);
        if (!occupied) // a program has settings of its own
            ::tcsetattr(terminal.get(), TCSANOW, &settings);
        ::tcflush(terminal.get(), TCIFLUSH);
    }
    Watch();
    opens_ = Occupied() ? 1 : 0;
    if (opens_ > 0)
        Join();
}

void Pty::Watch()
{
    watch_ = ::inotify_add_watch(events_.native_handle(), device_.c_str(), IN_OPEN | IN_CLOSE);
    if (watch_ < 0)
        Fail(fmt::format("cannot watch {}", device_));
}

void Pty::Unwatch()
{
    if (watch_ >= 0)
        ::inotify_rm_watch(events_.native_handle(), std::exchange(watch_, -1));
}

// A terminal that nobody has open hangs up on its master.
bool Pty::Occupied()
{
    pollfd master{master_.native_handle(), POLLIN, 0};
    return ::poll(&master, 1, 0) >= 0 && (master.revents & POLLHUP) == 0;
}

void Pty::AwaitEvents()
{
    events_.async_read_some(
        asio::buffer(event_buffer_),
        [this, here = std::weak_ptr(here_)](const asio::error_code& error, std::size_t size) {
            if (error || here.expired())
                return;
            OnEvents(size);
            AwaitEvents();
        });
}

// Whether it is open is what the master says; the events tell of a program that left and one that came
// since the last look. Equal events in a row may reach us as one, so their count is checked against it.
void Pty::OnEvents(std::size_t size)
{
    bool left = false;
    for (std::size_t at = 0; at + sizeof(inotify_event) <= size;) {
        inotify_event event{};
        std::memcpy(&event, event_buffer_.data() + at, sizeof(event));
        at += sizeof(event) + event.len;
        if (event.wd != watch_)
            continue; // from before a refresh
        if ((event.mask & IN_OPEN) != 0)
            ++opens_;
        if ((event.mask & IN_CLOSE) != 0)
            left = --opens_ <= 0 || left;
    }
    const bool occupied = Occupied();
    if (left || !occupied)
        Leave();
    if (occupied && client_ == nullptr)
        Join();
}

void Pty::Join()
{
    opens_ = std::max(opens_, 1);
    UniqueFd output(::fcntl(master_.native_handle(), F_DUPFD_CLOEXEC, 0));
    client_ =
        clients_.Open(link_.substr(link_.rfind('/') + 1), std::move(output), [this] { client_.reset(); });
    if (!reading_)
        AwaitInput();
}

void Pty::Leave()
{
    const bool was_open = client_ != nullptr;
    clients_.Close(std::exchange(client_, nullptr));
    opens_ = 0;
    if (was_open)
        Refresh();
}

void Pty::AwaitInput()
{
    reading_ = true;
    master_.async_read_some(asio::buffer(input_), [this, here = std::weak_ptr(here_)](
                                                      const asio::error_code& error, std::size_t size) {
        if (here.expired())
            return;
        reading_ = false;
        if (error)
            return; // nobody is there any more: an event tells
        if (client_ != nullptr)
            client_->Write(std::span(input_).first(size));
        AwaitInput();
    });
}

} // namespace app
