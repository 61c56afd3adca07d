#include "apps/tcp_server.h"

#include <array>
#include <chrono>
#include <fcntl.h>
#include <fmt/core.h>
#include <memory>
#include <spdlog/spdlog.h>
#include <utility>

namespace app {
namespace {

using asio::ip::tcp;

// What the system keeps for a program that is slow to read; the driver's ring comes on top of it.
constexpr int kSendBuffer = 16 * 1024;
// Between attempts to take a connection, when there is no room for one.
constexpr std::chrono::seconds kAcceptPause(1);

std::string Text(const tcp::endpoint& endpoint)
{
    const std::string address = endpoint.address().to_string();
    return endpoint.address().is_v6() ? fmt::format("[{}]:{}", address, endpoint.port())
                                      : fmt::format("{}:{}", address, endpoint.port());
}

class Connection : public std::enable_shared_from_this<Connection> {
  public:
    Connection(Clients& clients, tcp::socket socket) : clients_(clients), socket_(std::move(socket)) {}

    void Start()
    {
        asio::error_code ignored;
        const tcp::endpoint peer = socket_.remote_endpoint(ignored);
        socket_.set_option(tcp::no_delay(true), ignored);
        socket_.set_option(asio::socket_base::send_buffer_size(kSendBuffer), ignored);
        socket_.native_non_blocking(true, ignored);
        UniqueFd output(::fcntl(socket_.native_handle(), F_DUPFD_CLOEXEC, 0));
        if (!output)
            return;
        client_ = clients_.Open("tcp " + Text(peer), std::move(output),
                                [self = shared_from_this()] { self->Close(); });
        if (client_ != nullptr)
            AwaitInput();
    }

  private:
    void AwaitInput()
    {
        socket_.async_read_some(asio::buffer(input_),
                                [self = shared_from_this()](const asio::error_code& error, std::size_t size) {
                                    if (error)
                                        return self->Close();
                                    self->client_->Write(std::span(self->input_).first(size));
                                    self->AwaitInput();
                                });
    }

    void Close()
    {
        clients_.Close(client_);
        asio::error_code ignored;
        socket_.shutdown(tcp::socket::shutdown_both, ignored);
        socket_.close(ignored);
    }

    Clients& clients_;
    tcp::socket socket_;
    std::shared_ptr<PortClient> client_;
    std::array<char, 4096> input_{};
};

} // namespace

TcpServer::TcpServer(asio::io_context& io, Clients& clients, const TcpEndpoint& endpoint)
    : clients_(clients), acceptor_(io), pause_(io)
{
    asio::error_code error;
    const tcp::endpoint at(asio::ip::make_address(endpoint.address, error), endpoint.port);
    if (error)
        throw UsageError(fmt::format("--tcp: {} is no IP address", endpoint.address));
    acceptor_.open(at.protocol(), error);
    if (!error)
        acceptor_.set_option(tcp::acceptor::reuse_address(true), error);
    if (!error)
        acceptor_.bind(at, error);
    if (!error)
        acceptor_.listen(asio::socket_base::max_listen_connections, error);
    if (error)
        throw UsageError(
            fmt::format("cannot listen on {}:{}: {}", endpoint.address, endpoint.port, error.message()));
    Accept();
}

std::string TcpServer::Address() const
{
    return Text(acceptor_.local_endpoint());
}

void TcpServer::Accept()
{
    acceptor_.async_accept([this](const asio::error_code& error, tcp::socket socket) {
        if (error == asio::error::operation_aborted)
            return;
        if (!error) {
            std::make_shared<Connection>(clients_, std::move(socket))->Start();
            return Accept();
        }
        spdlog::warn("a connection cannot be taken: {}", error.message());
        pause_.expires_after(kAcceptPause);
        pause_.async_wait([this](const asio::error_code& stopped) {
            if (!stopped)
                Accept();
        });
    });
}

} // namespace app
