// The port over TCP: each connection is one open handle.
#pragma once

#include "apps/clients.h"
#include "apps/options.h"

#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>
#include <asio/steady_timer.hpp>
#include <string>

namespace app {

class TcpServer {
  public:
    // Throws UsageError when it cannot listen there.
    TcpServer(asio::io_context& io, Clients& clients, const TcpEndpoint& endpoint);

    // "127.0.0.1:10110", with the port that was chosen.
    std::string Address() const;

  private:
    void Accept();

    Clients& clients_;
    asio::ip::tcp::acceptor acceptor_;
    asio::steady_timer pause_;
};

} // namespace app
