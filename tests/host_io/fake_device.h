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
    bool Present() const override { return present; }
    module::Packet Control(const module::SetupPacket& setup, std::span<const std::uint8_t> out) override;
    module::Handshake Out(std::uint8_t endpoint, std::span<const std::uint8_t> data) override;
    module::Packet In(std::uint8_t endpoint) override;
    void Suspend() override { suspended = true; }
    void Resume() override { suspended = false; }
    bool WantsResume() const override { return wants_resume; }
    void Advance(module::Time now) override;
    std::optional<module::Time> NextEvent() const override;

    static Octets DeviceDescriptor();
    static Octets ConfigurationDescriptor();

    // The next packets of an IN endpoint; without any it answers NAK.
    void Send(std::uint8_t endpoint, std::string_view data);
    void SendAt(module::Time when, std::uint8_t endpoint, std::string_view data);

    struct ControlCall {
        module::SetupPacket setup;
        Octets out;
    };

    bool present = true;
    bool suspended = false;
    bool wants_resume = false;
    bool nak_control = false; // of class requests
    bool nak_out = false;
    bool babble_control = false;
    std::uint8_t stalls_request = 0;      // bRequest of class requests that are stalled
    std::map<std::uint8_t, bool> stalled; // endpoints
    std::map<std::uint8_t, std::deque<module::Packet>> in;
    std::vector<Octets> out;
    std::vector<ControlCall> control;
    module::Time now = 0;

  private:
    struct Later {
        module::Time when;
        std::uint8_t endpoint;
        Octets data;
    };
    std::deque<Later> later_;
};

} // namespace host_test
