// A USB device as its bus sees it: setup packets and packets in, packets and handshakes out.
//
// Nothing here knows of a kernel or an operating system. The bus that owns a device calls it from one
// thread at a time and tells it what time it is.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace module {

// 100-ns units since 1601-01-01 00:00 UTC, as on the platform.
using Time = std::int64_t;

inline constexpr Time kMillisecond = 10'000;
inline constexpr Time kSecond = 1'000 * kMillisecond;

// The eight bytes that open a control transfer, decoded.
struct SetupPacket {
    std::uint8_t bmRequestType = 0;
    std::uint8_t bRequest = 0;
    std::uint16_t wValue = 0;
    std::uint16_t wIndex = 0;
    std::uint16_t wLength = 0;
};

enum class Speed { Full, High };

// What the device answers to a token. `Nak` on a control transfer means: it does not answer now, and
// if nothing changes it never will.
enum class Handshake { Ack, Nak, Stall };

// One packet of an IN endpoint, or the data stage of a control read.
struct Packet {
    Handshake handshake = Handshake::Nak;
    std::vector<std::uint8_t> data; // empty with Ack: a zero-length packet
};

class Device {
  public:
    virtual ~Device() = default;

    virtual Speed BusSpeed() const = 0;

    // False once the device has vanished from the bus; it answers nothing from then on.
    virtual bool Present() const = 0;

    // A whole control transfer on endpoint 0. `out` is the data stage of a control write.
    virtual Packet Control(const SetupPacket& setup, std::span<const std::uint8_t> out) = 0;

    // One OUT packet to `endpoint` (its address, direction bit clear).
    virtual Handshake Out(std::uint8_t endpoint, std::span<const std::uint8_t> data) = 0;

    // The next IN packet of `endpoint` (its address, direction bit set): at most wMaxPacketSize bytes,
    // unless the device babbles.
    virtual Packet In(std::uint8_t endpoint) = 0;

    // The bus suspends and resumes the device. A device armed for remote wake-up may resume by itself;
    // the bus sees that as WantsResume().
    virtual void Suspend() {}
    virtual void Resume() {}
    virtual bool WantsResume() const { return false; }

    // Time passes. The bus calls Advance at NextEvent (or later), and after it asks every endpoint again
    // that it has a transfer waiting on.
    virtual void Advance(Time now) = 0;
    virtual std::optional<Time> NextEvent() const = 0;
};

} // namespace module
