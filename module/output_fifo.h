// What waits to be sent on an IN endpoint, as transfers: each is cut into packets, and its end is a packet
// shorter than the maximum, which may be empty.
//
// The FIFO is bounded. When the host does not read, the oldest transfers that have not begun make room: a
// position that is late is worth less than a fresh one, and no sentence is torn. Answers to commands are
// never given up for sentences.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <vector>

namespace module {

class OutputFifo {
  public:
    using Bytes = std::vector<std::uint8_t>;
    enum class Kind { Answer, Sentences };

    OutputFifo(std::size_t capacity, std::size_t max_packet) : capacity_(capacity), max_packet_(max_packet) {}

    // Drops `transfer` itself when no room can be made. An empty transfer is nothing to send.
    void Push(Bytes transfer, Kind kind);
    std::optional<Bytes> NextPacket();
    // What the next packet is of; only while there is one.
    Kind NextKind() const { return transfers_.front().kind; }
    void Clear();

    bool empty() const { return transfers_.empty(); }
    std::size_t size() const { return size_; }         // bytes waiting, never above the capacity
    std::uint64_t dropped() const { return dropped_; } // bytes that were pushed and given up for want of room

  private:
    struct Transfer {
        Bytes bytes;
        Kind kind;
    };

    bool MakeRoom(std::size_t bytes);

    std::size_t capacity_;
    std::size_t max_packet_;
    std::deque<Transfer> transfers_;
    std::size_t begun_ = 0; // bytes of the first transfer that are sent
    std::size_t size_ = 0;
    std::uint64_t dropped_ = 0;
};

} // namespace module
