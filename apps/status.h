// The table of what goes on: the port, the module, and every handle.
#pragma once

#include "apps/clients.h"
#include "apps/system.h"

#include <asio/io_context.hpp>
#include <asio/local/stream_protocol.hpp>
#include <functional>
#include <string>

namespace app {

std::string FormatStatus(System& system, const Clients& clients);

// Gives the table to whoever connects to the socket. One instance serves a port: a second one finds the
// socket answered.
class StatusServer {
  public:
    // Throws UsageError when another instance answers there, or the socket cannot be made.
    StatusServer(asio::io_context& io, std::string path, std::function<std::string()> table);
    ~StatusServer();
    StatusServer(const StatusServer&) = delete;
    StatusServer& operator=(const StatusServer&) = delete;

  private:
    void Accept();

    const std::string path_;
    const std::function<std::string()> table_;
    asio::local::stream_protocol::acceptor acceptor_;
};

// Where the instance that serves `port` answers.
std::string StatusPath(const std::string& folder, const std::string& port);

// What the instance there says. Throws UsageError when there is none.
std::string AskStatus(const std::string& path);

} // namespace app
