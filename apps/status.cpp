#include "apps/status.h"

#include "apps/options.h"

#include <asio/buffer.hpp>
#include <asio/read.hpp>
#include <asio/write.hpp>
#include <fmt/format.h>
#include <memory>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

namespace app {
namespace {

using Protocol = asio::local::stream_protocol;

const char* ModuleState(const module::ModuleStatus& module)
{
    if (!module.present)
        return "gone";
    if (module.suspended)
        return "suspended";
    if (module.nmea_flowing)
        return "sending sentences";
    return module.configuration != 0 ? "configured, sends nothing" : "not configured";
}

// An address that the system takes; the length of a path is limited.
Protocol::endpoint EndpointOf(const std::string& path)
{
    if (path.size() >= sizeof(sockaddr_un::sun_path))
        throw UsageError(fmt::format("the name of the status socket is too long: {}", path));
    return {path};
}

} // namespace

std::string FormatStatus(System& system, const Clients& clients)
{
    const module::ModuleStatus module = system.Module().Look();
    auto text = fmt::memory_buffer();
    const auto out = std::back_inserter(text);
    fmt::format_to(out, "port    {}, {}\n", system.PortName(), system.PortState());
    fmt::format_to(out, "power   {}\n", system.PowerText());
    fmt::format_to(out, "module  {}; {} bytes in {} transfers, {} bytes given up for want of a reader\n",
                   ModuleState(module), module.bytes_sent, module.transfers_sent, module.bytes_dropped);
    fmt::format_to(out, "\n{:>6}  {:<28}{:>10}{:>12}{:>10}{:>8}{:>9}\n", "client", "program", "seconds",
                   "delivered", "dropped", "queued", "pending");
    for (const ClientStatus& client : clients.Look())
        fmt::format_to(out, "{:>6}  {:<28}{:>10.1f}{:>12}{:>10}{:>8}{:>9}{}\n", client.number, client.name,
                       client.age, client.counts.delivered, client.dropped, client.queued, client.pending,
                       client.blocked ? "  does not read" : "");
    return fmt::to_string(text);
}

StatusServer::StatusServer(asio::io_context& io, std::string path, std::function<std::string()> table)
    : path_(std::move(path)), table_(std::move(table)), acceptor_(io)
{
    const Protocol::endpoint endpoint = EndpointOf(path_);
    asio::error_code error;
    Protocol::socket probe(io);
    probe.connect(endpoint, error);
    if (!error)
        throw UsageError(fmt::format("another instance serves this port: it answers on {}", path_));
    ::unlink(path_.c_str()); // of an instance that did not come to its end
    acceptor_.open(endpoint.protocol());
    error.clear();
    acceptor_.bind(endpoint, error);
    if (!error)
        acceptor_.listen(asio::socket_base::max_listen_connections, error);
    if (error)
        throw UsageError(fmt::format("cannot make the status socket {}: {}", path_, error.message()));
    Accept();
}

StatusServer::~StatusServer()
{
    if (acceptor_.is_open())
        ::unlink(path_.c_str());
}

void StatusServer::Accept()
{
    acceptor_.async_accept([this](const asio::error_code& error, Protocol::socket socket) {
        if (error)
            return;
        const auto peer = std::make_shared<Protocol::socket>(std::move(socket));
        const auto table = std::make_shared<std::string>(table_());
        asio::async_write(*peer, asio::buffer(*table),
                          [peer, table](const asio::error_code&, std::size_t) { peer->close(); });
        Accept();
    });
}

std::string StatusPath(const std::string& folder, const std::string& port)
{
    return fmt::format("{}/{}.status", folder, port);
}

std::string AskStatus(const std::string& path)
{
    asio::io_context io;
    Protocol::socket socket(io);
    asio::error_code error;
    socket.connect(EndpointOf(path), error);
    if (error)
        throw UsageError(fmt::format("no instance answers on {}: {}", path, error.message()));
    std::string text;
    asio::read(socket, asio::dynamic_buffer(text), error);
    return text;
}

} // namespace app
