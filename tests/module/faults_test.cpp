#include "module/test_host.h"

namespace module {
namespace {

using Kind = PacketFault::Kind;
using AnswerKind = AnswerFault::Kind;
using Transfers = std::vector<std::string>;

constexpr Handshake kAck = Handshake::Ack;
constexpr Handshake kNak = Handshake::Nak;
constexpr Handshake kStall = Handshake::Stall;

GpsModuleOptions With(PacketFault fault)
{
    GpsModuleOptions options;
    options.faults.packets = {fault};
    return options;
}

GpsModuleOptions With(AnswerFault fault)
{
    GpsModuleOptions options;
    options.faults.answers = {fault};
    return options;
}

TEST(Faults, TheNthControlRequest)
{
    struct Case {
        const char* name;
        PacketFault fault;
        std::vector<Handshake> answers; // SET_CONFIGURATION, then alternately lines and state
    };
    const Case cases[] = {
        {"the first", {.kind = Kind::Stall}, {kStall, kStall, kStall, kStall, kStall}}, // never configured
        {"the third", {.kind = Kind::Stall, .nth = 3}, {kAck, kAck, kStall, kAck, kAck}},
        {"two of them", {.kind = Kind::Stall, .nth = 2, .times = 2}, {kAck, kStall, kStall, kAck, kAck}},
        {"the second of its kind",
         {.kind = Kind::Stall, .bRequest = 0x22, .nth = 2},
         {kAck, kAck, kAck, kStall, kAck}},
        {"silent", {.kind = Kind::Silence, .bRequest = 2}, {kAck, kAck, kNak, kAck, kNak}},
        {"gone", {.kind = Kind::Vanish, .nth = 3}, {kAck, kAck, kNak, kNak, kNak}},
        {"on another pipe", {.kind = Kind::Stall, .pipe = Pipe::BulkIn}, {kAck, kAck, kAck, kAck, kAck}},
    };
    for (const Case& c : cases) {
        TestHost host(With(c.fault));
        const std::vector<Handshake> answers{host.Configure(), host.SetLines(3), host.SetAbstractState(2),
                                             host.SetLines(0), host.SetAbstractState(2)};
        EXPECT_EQ(answers, c.answers) << c.name;
        EXPECT_EQ(host.gps.Present(), c.fault.kind != Kind::Vanish);
    }
}

TEST(Faults, ASilentRequestIsLoggedOnceAndAnsweredWhenTheFaultIsGone)
{
    TestHost host(With(PacketFault{.kind = Kind::Silence}));
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(host.Configure(), kNak);
    EXPECT_EQ(host.gps.Look().control_count, 1U);
    host.gps.SetFaults({});
    EXPECT_TRUE(host.gps.NextEvent()) << "the bus is to ask again";
    EXPECT_EQ(host.Configure(), kAck);
}

TEST(Faults, ASilentEndpointStaysSilent)
{
    auto host =
        TestHost::WithReceiver(With(PacketFault{.kind = Kind::Silence, .pipe = Pipe::BulkIn, .nth = 3}));
    host->Open(); // echo and OK
    EXPECT_TRUE(host->RunUntil(host->now + 60 * kSecond).empty());
    host->gps.SetFaults({});
    EXPECT_EQ(host->Read().substr(0, 7), "$GPGGA,");
}

TEST(Faults, GarbledDataAreRandomAndTheSameForTheSameSeed)
{
    const auto second_packet = [](std::uint64_t seed) {
        GpsModuleOptions options = With(PacketFault{.kind = Kind::Garble, .pipe = Pipe::BulkIn, .nth = 2});
        options.faults.seed = seed;
        TestHost host(options);
        host.Configure();
        return host.Exchange("AT+CGMI\r").at(1);
    };
    EXPECT_EQ(second_packet(1).size(), std::string("\r\nNavox\r\n\r\nOK\r\n").size());
    EXPECT_NE(second_packet(1), "\r\nNavox\r\n\r\nOK\r\n");
    EXPECT_EQ(second_packet(1), second_packet(1));
    EXPECT_NE(second_packet(1), second_packet(2));
}

TEST(Faults, AnswersOfAtCommands)
{
    struct Case {
        const char* name;
        AnswerFault fault;
        std::vector<std::size_t> sizes; // of the transfers after the echo
        bool flows;
    };
    const Case cases[] = {
        {"error", {.kind = AnswerKind::Error}, {9}, false},
        {"nothing", {.kind = AnswerKind::Nothing}, {}, false},
        {"byte by byte", {.kind = AnswerKind::Split}, {1, 1, 1, 1, 1, 1}, true},
        {"in two", {.kind = AnswerKind::Split, .size = 4}, {4, 2}, true},
        {"junk in a packet before", {.kind = AnswerKind::JunkPacket, .size = 5}, {5, 6}, true},
        {"junk in the same packet", {.kind = AnswerKind::JunkPrefix, .size = 5}, {11}, true},
    };
    for (const Case& c : cases) {
        auto host = TestHost::WithReceiver(With(c.fault));
        host->gps.Advance(host->now);
        host->Configure();
        const Transfers answers = host->Exchange("AT*Q7GPSNPD\r\n");
        std::vector<std::size_t> sizes;
        for (const std::string& answer : answers)
            sizes.push_back(answer.size());
        ASSERT_FALSE(sizes.empty()) << c.name;
        sizes.erase(sizes.begin());
        EXPECT_EQ(sizes, c.sizes) << c.name;
        EXPECT_EQ(host->gps.Look().nmea_flowing, c.flows) << c.name;
        EXPECT_EQ(host->RunUntil(host->now + 3 * kSecond).empty(), !c.flows) << c.name;
        EXPECT_EQ(host->Exchange("AT*Q7GPSNPD\r\n").back(), "\r\nOK\r\n") << c.name << ", once only";
    }
}

TEST(Faults, AModuleVanishesAtItsTime)
{
    GpsModuleOptions options;
    options.faults.vanish_at = kTestStart + 5 * kSecond / 2;
    auto host = TestHost::WithReceiver(options);
    host->Open();
    EXPECT_EQ(host->RunUntil(host->now + 10 * kSecond).size(), 2U);
    EXPECT_FALSE(host->gps.Present());
    EXPECT_FALSE(host->gps.NextEvent());
    EXPECT_EQ(host->Configure(), kNak);
    EXPECT_EQ(host->Send("AT\r"), kNak);
}

TEST(Faults, WhatCannotHappenIsRefused)
{
    const Faults impossible[] = {
        {.packets = {{.nth = 0}}},
        {.packets = {{.times = 0}}},
        {.packets = {{.kind = Kind::Babble, .pipe = Pipe::BulkOut}}},
        {.answers = {{.nth = 0}}},
        {.answers = {{.kind = AnswerKind::Split, .size = 0}}},
    };
    for (const Faults& faults : impossible)
        EXPECT_THROW(GpsModule({.faults = faults}), std::invalid_argument);
}

} // namespace
} // namespace module
