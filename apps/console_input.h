// Where the console's lines come from: standard input, and a script.
#pragma once

#include "apps/console.h"

#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/steady_timer.hpp>
#include <asio/streambuf.hpp>
#include <deque>
#include <vector>

namespace app {

// Gives commands to the console one after the other, each when its time has come.
class CommandQueue {
  public:
    CommandQueue(asio::io_context& io, Console& console) : console_(console), timer_(io) {}
    void Add(Command command);

  private:
    void Next();

    Console& console_;
    asio::steady_timer timer_;
    std::deque<Command> waiting_; // the first one's time runs
};

// Reads lines until standard input ends, or belongs to somebody else.
class StandardInput {
  public:
    StandardInput(asio::io_context& io, Console& console);

  private:
    void AwaitLine();
    void SkipLine();
    void TakeLine(bool good);

    Console& console_;
    CommandQueue queue_;
    asio::posix::stream_descriptor input_;
    asio::streambuf lines_;
    bool skipping_ = false; // the rest of a line that is too long
};

} // namespace app
