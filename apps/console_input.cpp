#include "apps/console_input.h"

#include "apps/unique_fd.h"

#include <asio/read_until.hpp>
#include <csignal>
#include <fcntl.h>
#include <fmt/core.h>
#include <istream>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace app {
namespace {

constexpr std::size_t kLongestLine = 4096;

// Our own descriptor, as reading without blocking must not concern others that share the terminal. Null: there
// is nothing to read lines from.
UniqueFd OpenInput()
{
    struct stat info {};
    if (::fstat(STDIN_FILENO, &info) != 0 || S_ISDIR(info.st_mode))
        return {};
    if (S_ISFIFO(info.st_mode) || S_ISCHR(info.st_mode)) {
        const int own = ::open("/proc/self/fd/0", O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
        if (own >= 0)
            return UniqueFd(own);
    }
    return UniqueFd(::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0));
}

} // namespace

void CommandQueue::Add(Command command)
{
    waiting_.push_back(std::move(command));
    if (waiting_.size() == 1)
        Next();
}

void CommandQueue::Next()
{
    timer_.expires_after(waiting_.front().after);
    timer_.async_wait([this](const asio::error_code& error) {
        if (error)
            return;
        console_.Run(waiting_.front());
        waiting_.pop_front();
        if (!waiting_.empty())
            Next();
    });
}

StandardInput::StandardInput(asio::io_context& io, Console& console)
    : console_(console), queue_(io, console), input_(io), lines_(kLongestLine)
{
    std::signal(SIGTTIN, SIG_IGN); // in the background there is nothing to read; the host goes on
    UniqueFd input = OpenInput();
    asio::error_code error;
    if (input)
        input_.assign(input.get(), error);
    if (!input || error)
        return;
    (void)input.release();
    AwaitLine();
}

void StandardInput::AwaitLine()
{
    asio::async_read_until(input_, lines_, '\n', [this](const asio::error_code& error, std::size_t) {
        if (error == asio::error::not_found)
            SkipLine();
        else
            TakeLine(!error || error == asio::error::eof);
        if (!error || error == asio::error::not_found)
            AwaitLine();
    });
}

// Of a line that is too long, up to what is there of it.
void StandardInput::SkipLine()
{
    lines_.consume(lines_.size());
    if (!std::exchange(skipping_, true))
        console_.Say(fmt::format("a line has at most {} bytes", kLongestLine - 1));
}

void StandardInput::TakeLine(bool good)
{
    std::string line;
    std::istream in(&lines_);
    if (good)
        std::getline(in, line);
    if (std::exchange(skipping_, false))
        return; // the rest of it
    try {
        if (std::optional<Command> command = ParseCommand(line))
            queue_.Add(std::move(*command));
    } catch (const CommandError& wrong) {
        console_.Say(wrong.what());
    }
}

} // namespace app
