// One open handle of the port, and the program that it is for.
//
//   read until empty ──▶ wait for a character ──▶ read until empty ...
//        │    ▲
//        ▼    │ writable again
//   the program's descriptor is full: nothing is read meanwhile, and the driver drops what its ring cannot
//   hold
//
// A request that the port refuses is the owner's affair: a system that is going to sleep refuses them, too.
//
// Nothing is asked twice and no timer runs: while the module is silent, all sleep.
#pragma once

#include "apps/unique_fd.h"
#include "nt/file.h"

#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace app {

// The port did not let itself be opened.
class OpenError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

struct PortClientCounts {
    std::uint64_t read = 0;      // bytes the port has given
    std::uint64_t delivered = 0; // bytes the program's descriptor has taken
    std::uint64_t written = 0;   // bytes the program has sent; the port has taken and discarded them
};

// All members are called on the thread that runs `io`, which the kernel must know.
class PortClient : public std::enable_shared_from_this<PortClient> {
  public:
    // `output` must not block. `name` is for the status table and the log.
    PortClient(asio::io_context& io, unsigned number, std::string name, UniqueFd output);
    ~PortClient() { Close(); }

    // Opens the port and begins to read. `on_end` is called once, later, if the program goes; `on_refused` when
    // the port has refused a request: nothing is read until GoOn. Throws OpenError; it can be tried again.
    void Open(const std::string& port, std::function<void()> on_end, std::function<void()> on_refused);
    // Reads again.
    void GoOn() { Pump(); }
    // Closes the handle. Nothing is called any more.
    void Close();

    // What the program sends to the port.
    void Write(std::span<const char> bytes);

    bool IsOpen() const { return file_.IsOpen(); }
    unsigned Number() const { return number_; }
    const std::string& Name() const { return name_; }
    const PortClientCounts& Counts() const { return counts_; }
    std::chrono::steady_clock::duration Age() const { return std::chrono::steady_clock::now() - opened_; }
    // Requests that the driver holds.
    int Pending() const { return wait_.Valid() && !wait_.Done() ? 1 : 0; }
    // The program does not take what it is sent.
    bool Blocked() const { return !unsent_.empty(); }
    // Bytes in the driver's ring; 0 when it cannot be asked.
    std::uint32_t Queued() const;

  private:
    void Pump();
    bool Deliver(std::string_view bytes);
    void WaitForRoom();
    void WaitForCharacter();
    void End();
    void Refused();

    asio::io_context& io_;
    const unsigned number_;
    const std::string name_;
    asio::posix::stream_descriptor output_;
    std::function<void()> on_end_;
    std::function<void()> on_refused_;
    host::nt::File file_;
    host::nt::Request wait_;
    std::string unsent_;
    PortClientCounts counts_;
    const std::chrono::steady_clock::time_point opened_ = std::chrono::steady_clock::now();
};

} // namespace app
