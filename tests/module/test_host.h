// A host for the module under test: the requests a driver makes, and a clock.
#pragma once

#include "module/gps_module.h"
#include "module/nmea_generator.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace module {

// 2024-02-29 23:59:50 UTC.
inline constexpr Time kTestStart = 133'537'247'900'000'000;

class TestHost {
  public:
    explicit TestHost(GpsModuleOptions options = {}, std::unique_ptr<NmeaSource> source = {})
        : gps(std::move(options), std::move(source))
    {}

    static std::unique_ptr<TestHost> WithReceiver(GpsModuleOptions options = {}, int rate = 1)
    {
        return std::make_unique<TestHost>(std::move(options), std::make_unique<NmeaGenerator>(rate));
    }

    Packet Request(std::uint8_t bmRequestType, std::uint8_t bRequest, std::uint16_t wValue,
                   std::uint16_t wIndex, std::uint16_t wLength, const Bytes& out = {})
    {
        return gps.Control({bmRequestType, bRequest, wValue, wIndex, wLength}, out);
    }

    Handshake Configure() { return Request(0x00, 9, 1, 0, 0).handshake; }
    Handshake SetLines(std::uint16_t lines) { return Request(0x21, 0x22, lines, 0, 0).handshake; }
    Handshake SetAbstractState(std::uint8_t state) { return Request(0x21, 2, 1, 0, 2, {state, 0}).handshake; }
    Handshake ClearHalt(std::uint8_t endpoint) { return Request(0x02, 1, 0, endpoint, 0).handshake; }
    Bytes Descriptor(std::uint8_t type, std::uint16_t length = 0xFFFF)
    {
        return Request(0x80, 6, static_cast<std::uint16_t>(type << 8), 0, length).data;
    }

    Handshake Send(std::string_view text)
    {
        return gps.Out(2, std::vector<std::uint8_t>(text.begin(), text.end()));
    }

    // One transfer: packets up to the first that is short. Empty when the endpoint has nothing.
    std::string Read(std::uint8_t endpoint = 0x82)
    {
        const std::size_t most = endpoint == 0x82 ? BulkPacketSize(gps.BusSpeed()) : kInterruptPacketSize;
        std::string text;
        for (;;) {
            const Packet packet = gps.In(endpoint);
            if (packet.handshake != Handshake::Ack)
                return text;
            text.append(packet.data.begin(), packet.data.end());
            if (packet.data.size() < most)
                return text;
        }
    }

    // All that waits on bulk-in, transfer by transfer.
    std::vector<std::string> ReadAll()
    {
        std::vector<std::string> transfers;
        for (std::string text = Read(); !text.empty(); text = Read())
            transfers.push_back(text);
        return transfers;
    }

    std::vector<std::string> Exchange(std::string_view command)
    {
        EXPECT_EQ(Send(command), Handshake::Ack);
        return ReadAll();
    }

    // Configured, lines raised, sentences asked for and their OK read.
    void Open()
    {
        gps.Advance(now);
        Configure();
        SetLines(3);
        Exchange("AT*Q7GPSNPD\r\n");
        gps.Advance(now);
    }

    struct Arrival {
        Time time;
        std::string text;
    };

    // Lives until `end`, reading what comes.
    std::vector<Arrival> RunUntil(Time end)
    {
        std::vector<Arrival> arrivals;
        for (auto next = gps.NextEvent(); next && *next <= end; next = gps.NextEvent()) {
            now = std::max(now, *next);
            gps.Advance(now);
            for (const std::string& text : ReadAll())
                arrivals.push_back({now, text});
        }
        now = end;
        gps.Advance(now);
        return arrivals;
    }

    GpsModule gps;
    Time now = kTestStart;
};

} // namespace module
