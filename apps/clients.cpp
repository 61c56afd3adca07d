#include "apps/clients.h"

#include <chrono>
#include <spdlog/spdlog.h>
#include <utility>

namespace app {
namespace {

// What a fresh handle finds in its ring: the empty fix sentence.
constexpr std::uint64_t kBytesBeforeFirst = 32;
// For a device that follows the system late.
constexpr std::chrono::milliseconds kRetryPause(20);

void Add(ClientTotals& totals, const ClientStatus& client)
{
    totals.counts.read += client.counts.read;
    totals.counts.delivered += client.counts.delivered;
    totals.counts.written += client.counts.written;
    totals.dropped += client.dropped;
}

} // namespace

std::shared_ptr<PortClient> Clients::Open(std::string name, UniqueFd output, std::function<void()> on_end)
{
    if (!system_.Started()) {
        spdlog::warn("{} finds no port", name);
        return nullptr;
    }
    const unsigned number = ++gone_.opened;
    auto client = std::make_shared<PortClient>(io_, number, std::move(name), std::move(output));
    open_[number] = {client, std::move(on_end)};
    if (OpenPort(number))
        return client;
    open_.erase(number);
    return nullptr;
}

// False when the client is to go.
bool Clients::OpenPort(unsigned number)
{
    Entry& entry = open_.at(number);
    try {
        entry.client->Open(
            system_.PortName(), [this, number] { HangUp(number); }, [this, number] { OnRefused(number); });
    } catch (const OpenError& error) {
        const bool waits = !system_.Powered();
        spdlog::log(waits ? spdlog::level::info : spdlog::level::warn, "client {} ({}): {}{}", number,
                    entry.client->Name(), error.what(), waits ? "; it waits for the device's power" : "");
        if (waits)
            Rest(number);
        return waits;
    }
    entry.sent_before = system_.Module().Look().sentence_bytes;
    spdlog::info("client {} ({}) has opened {}", number, entry.client->Name(), system_.PortName());
    return true;
}

void Clients::Close(const std::shared_ptr<PortClient>& client)
{
    const auto found = client != nullptr ? open_.find(client->Number()) : open_.end();
    if (found == open_.end())
        return;
    const ClientStatus last = Look(found->second);
    Add(gone_, last);
    open_.erase(found);
    client->Close();
    spdlog::info("client {} ({}) has closed: {} bytes delivered, {} dropped", last.number, last.name,
                 last.counts.delivered, last.dropped);
}

void Clients::CloseAll()
{
    while (!open_.empty())
        Close(std::shared_ptr(open_.begin()->second.client));
}

void Clients::HangUp(unsigned number)
{
    const auto found = open_.find(number);
    if (found == open_.end())
        return;
    const std::function<void()> on_end = std::move(found->second.on_end);
    Close(std::shared_ptr(found->second.client));
    on_end();
}

// A port that is not gone takes requests again when the system has woken, and its device has followed.
void Clients::OnRefused(unsigned number)
{
    if (!system_.Started())
        return HangUp(number);
    Rest(number);
}

void Clients::Rest(unsigned number)
{
    resting_.insert(number);
    if (!system_.Awake())
        return;
    retry_.expires_after(kRetryPause);
    retry_.async_wait([this](const asio::error_code& error) {
        if (!error)
            GoOn();
    });
}

void Clients::GoOn()
{
    for (const unsigned number : std::exchange(resting_, {})) {
        const auto found = open_.find(number);
        if (found == open_.end())
            continue;
        if (found->second.client->IsOpen())
            found->second.client->GoOn();
        else if (!OpenPort(number))
            HangUp(number);
    }
}

void Clients::HangUp()
{
    while (!open_.empty())
        HangUp(open_.begin()->first);
}

// The driver does not count what a full ring drops: it is what the module has sent and neither the program
// has got nor the ring holds. What is on its way at this moment is counted as dropped, too.
ClientStatus Clients::Look(const Entry& entry) const
{
    const PortClient& client = *entry.client;
    const std::uint64_t sent = system_.Module().Look().sentence_bytes - entry.sent_before + kBytesBeforeFirst;
    ClientStatus status{.number = client.Number(),
                        .name = client.Name(),
                        .age = std::chrono::duration<double>(client.Age()).count(),
                        .counts = client.Counts(),
                        .queued = client.Queued(),
                        .pending = client.Pending(),
                        .blocked = client.Blocked()};
    const std::uint64_t accounted = status.counts.read + status.queued;
    status.dropped = client.IsOpen() && sent > accounted ? sent - accounted : 0;
    return status;
}

std::vector<ClientStatus> Clients::Look() const
{
    std::vector<ClientStatus> all;
    for (const auto& [number, entry] : open_)
        all.push_back(Look(entry));
    return all;
}

ClientTotals Clients::Totals() const
{
    ClientTotals totals = gone_;
    for (const ClientStatus& client : Look())
        Add(totals, client);
    return totals;
}

} // namespace app
