// A USB device that does what the test says: two interfaces, bulk in 81 and out 01, interrupt in 82.
#pragma once

#include "module/device.h"

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string_view>
#include <vector>

namespace host_test {

using Octets = std::vector<std::uint8_t>;

class FakeDevice : public module::Device {
  public:
    static constexpr std::uint16_t kMaxPacket = 8;

    module::Speed BusSpeed() const override { return module::Speed::Full; }
    bool Present() const override { return true; }
    module::Packet Control(const module::SetupPacket& setup, std::span<const std::uint8_t> out) override;
    module::Handshake Out(std::uint8_t endpoint, std::span<const std::uint8_t> data) override;
    module::Packet In(std::uint8_t endpoint) override;
    void Suspend() override { suspended = true; }
    void Resume() override { suspended = false; }
    bool WantsResume() const override { return wants_resume; }

    void Advance(module::Time) override {}
    std::optional<module::Time> NextEvent() const override { return {}; }

    static Octets ConfigurationDescriptor();

    // The next packets of an IN endpoint; without any it answers NAK.
    void Send(std::uint8_t endpoint, std::string_view data);

    bool suspended = false;
    bool wants_resume = false;
    std::map<std::uint8_t, bool> stalled; // endpoints
    std::map<std::uint8_t, std::deque<module::Packet>> in;
    std::vector<Octets> out;
};

} // namespace host_test
