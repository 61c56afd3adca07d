// Everyone who has the port open.
#pragma once

#include "apps/port_client.h"
#include "apps/system.h"

#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>

namespace app {

// A row of the status table.
struct ClientStatus {
    unsigned number = 0;
    std::string name;
    double age = 0; // seconds
    PortClientCounts counts;
    std::uint64_t dropped = 0; // bytes that found its ring full
    std::uint32_t queued = 0;  // bytes in its ring
    int pending = 0;           // requests that the driver holds
    bool blocked = false;      // the program does not take what it is sent
};

struct ClientTotals {
    unsigned opened = 0;
    PortClientCounts counts;
    std::uint64_t dropped = 0;
};

class Clients {
  public:
    Clients(asio::io_context& io, System& system) : io_(io), system_(system), retry_(io) {}

    // Opens the port for a program. `on_end` is called if the handle ends before Close: by then it is closed.
    // A program that comes while the device has no power is served when it has. Null, with a warning in the
    // log, when the port cannot be opened.
    std::shared_ptr<PortClient> Open(std::string name, UniqueFd output, std::function<void()> on_end);
    // Does nothing for a client that is closed, or null.
    void Close(const std::shared_ptr<PortClient>& client);
    void CloseAll();
    // Closes every handle as if it had ended by itself.
    void HangUp();
    // The system has woken: those who were refused meanwhile try again.
    void GoOn();
    std::size_t Count() const { return open_.size(); }

    std::vector<ClientStatus> Look() const;
    // Those that have gone included.
    ClientTotals Totals() const;

  private:
    struct Entry {
        std::shared_ptr<PortClient> client;
        std::function<void()> on_end;
        std::uint64_t sent_before = 0; // bytes of sentences the module had sent when it opened
    };
    ClientStatus Look(const Entry& entry) const;
    bool OpenPort(unsigned number);
    void HangUp(unsigned number);
    void OnRefused(unsigned number);
    void Rest(unsigned number);

    asio::io_context& io_;
    System& system_;
    std::map<unsigned, Entry> open_;
    std::set<unsigned> resting_; // the port has refused their last request, or to be opened
    asio::steady_timer retry_;
    ClientTotals gone_;
};

} // namespace app
