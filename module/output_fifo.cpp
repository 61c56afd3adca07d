#include "module/output_fifo.h"

#include <algorithm>
#include <utility>

namespace module {

void OutputFifo::Push(Bytes transfer, Kind kind)
{
    if (transfer.empty()) {
        return;
    }
    if (!MakeRoom(transfer.size())) {
        dropped_ += transfer.size();
        return;
    }
    size_ += transfer.size();
    transfers_.push_back({std::move(transfer), kind});
}

bool OutputFifo::MakeRoom(std::size_t bytes)
{
    if (bytes > capacity_) {
        return false;
    }
    auto oldest = transfers_.begin() + (begun_ > 0 ? 1 : 0);
    while (size_ + bytes > capacity_) {
        oldest = std::find_if(oldest, transfers_.end(),
                              [](const Transfer& transfer) { return transfer.kind == Kind::Sentences; });
        if (oldest == transfers_.end()) {
            return false;
        }
        size_ -= oldest->bytes.size();
        dropped_ += oldest->bytes.size();
        oldest = transfers_.erase(oldest);
    }
    return true;
}

std::optional<OutputFifo::Bytes> OutputFifo::NextPacket()
{
    if (transfers_.empty()) {
        return {};
    }
    const Bytes& bytes = transfers_.front().bytes;
    const std::size_t length = std::min(bytes.size() - begun_, max_packet_);
    const auto first = bytes.begin() + static_cast<std::ptrdiff_t>(begun_);
    Bytes packet(first, first + static_cast<std::ptrdiff_t>(length));
    begun_ += length;
    size_ -= length;
    if (length < max_packet_) { // the short packet ends the transfer
        transfers_.pop_front();
        begun_ = 0;
    }
    return packet;
}

void OutputFifo::Clear()
{
    transfers_.clear();
    begun_ = 0;
    size_ = 0;
}

} // namespace module
