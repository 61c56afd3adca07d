// Any host at all talks to the module: control requests, OUT packets, IN tokens, time, suspend and resume,
// as the input's bytes say. The first byte chooses the kind of module.

#include "fuzz/input.h"
#include "module/gps_module.h"
#include "module/nmea_generator.h"

namespace {

using fuzz::Input;
using fuzz::Require;
using module::GpsModule;
using module::Handshake;
using module::Time;

void Control(GpsModule& gps, Input& input)
{
    module::SetupPacket setup;
    setup.bmRequestType = input.Byte();
    setup.bRequest = input.Byte();
    setup.wValue = input.Word();
    setup.wIndex = input.Word();
    setup.wLength = input.Byte();
    const bool in = (setup.bmRequestType & module::kDirectionIn) != 0;
    const auto packet = gps.Control(setup, in ? std::span<const std::uint8_t>() : input.Take(setup.wLength));
    Require(packet.data.size() <= setup.wLength);
    Require(packet.handshake == Handshake::Ack || packet.data.empty());
}

void In(GpsModule& gps, std::uint8_t endpoint)
{
    const auto packet = gps.In(endpoint);
    Require(packet.data.size() <= module::BulkPacketSize(gps.BusSpeed()));
    Require(packet.handshake == Handshake::Ack || packet.data.empty());
}

// A module that is told the time does not ask for it again, and what it waits for is still to come.
Time Advance(GpsModule& gps, Time now)
{
    gps.Advance(now);
    const auto next = gps.NextEvent();
    Require(!next || *next > now);
    return now;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Input input({data, size});
    const std::uint8_t kind = input.Byte();
    module::GpsModuleOptions options;
    options.function.speed = (kind & 1) != 0 ? module::Speed::High : module::Speed::Full;
    options.streams_unasked = (kind & 2) != 0;
    options.fifo_capacity = 1024;
    options.faults.lie = static_cast<module::Lie>((kind >> 2) % static_cast<int>(module::Lie::Count_));
    GpsModule gps(options, std::make_unique<module::NmeaGenerator>(10));
    gps.Control({0x00, 9, 1, 0, 0}, {});

    Time now = 1;
    while (!input.empty()) {
        switch (input.Byte() % 8) {
        case 0:
        case 1: Control(gps, input); break;
        case 2: {
            const std::uint8_t length = input.Byte();
            gps.Out(0x02, input.Take(length));
            break;
        }
        case 3: In(gps, 0x82); break;
        case 4: In(gps, input.Byte()); break;
        case 5: now = Advance(gps, now + input.Byte() * module::kMillisecond * 10); break;
        case 6: gps.Suspend(); break;
        default: gps.Resume(); break;
        }
    }
    const module::ModuleStatus status = gps.Look();
    Require(status.at_commands.size() <= GpsModule::kLogLength);
    return 0;
}
