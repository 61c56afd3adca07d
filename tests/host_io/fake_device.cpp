#include "fake_device.h"

#include <algorithm>

namespace host_test {
Octets FakeDevice::ConfigurationDescriptor()
{
    return {
        9, 2,    55,   0, 2,          1,  0,  0xA0, 50, // two interfaces, remote wake-up
        9, 4,    0,    0, 1,          2,  2,  1,    0,  // interface 0: communications, one pipe
        7, 5,    0x82, 3, 8,          0,  10,           // interrupt in
        9, 4,    1,    0, 2,          10, 0,  0,    0,  // interface 1: data, two pipes
        7, 5,    0x01, 2, kMaxPacket, 0,  0,            // bulk out
        7, 5,    0x81, 2, kMaxPacket, 0,  0,            // bulk in
        7, 0x24, 0,    0, 0,          0,  0,            // something of a class, to be skipped
    };
}

module::Packet FakeDevice::Control(const module::SetupPacket& setup, std::span<const std::uint8_t>)
{
    if (setup.bRequest == 1 && setup.bmRequestType == 2)
        stalled[static_cast<std::uint8_t>(setup.wIndex)] = false;
    if (setup.bRequest != 6)
        return {module::Handshake::Ack, {}};
    Octets descriptor = setup.wValue >> 8 == 1
                            ? Octets{18, 1, 0x00, 0x02, 0, 0, 0, 64, 0x34, 0x12, 0x78, 0x56, 1, 0, 0, 0, 0, 1}
                            : ConfigurationDescriptor();
    descriptor.resize(std::min<std::size_t>(descriptor.size(), setup.wLength));
    return {module::Handshake::Ack, std::move(descriptor)};
}

module::Handshake FakeDevice::Out(std::uint8_t endpoint, std::span<const std::uint8_t> data)
{
    if (stalled[endpoint])
        return module::Handshake::Stall;
    out.emplace_back(data.begin(), data.end());
    return module::Handshake::Ack;
}

module::Packet FakeDevice::In(std::uint8_t endpoint)
{
    if (stalled[endpoint])
        return {module::Handshake::Stall, {}};
    auto& packets = in[endpoint];
    if (packets.empty())
        return {module::Handshake::Nak, {}};
    module::Packet packet = packets.front();
    packets.pop_front();
    return packet;
}

void FakeDevice::Send(std::uint8_t endpoint, std::string_view data)
{
    in[endpoint].push_back({module::Handshake::Ack, {data.begin(), data.end()}});
}

} // namespace host_test
