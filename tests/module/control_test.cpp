#include "module/test_host.h"

namespace module {
namespace {

constexpr Handshake kAck = Handshake::Ack;
constexpr Handshake kStall = Handshake::Stall;

struct Step {
    const char* name;
    SetupPacket setup;
    Bytes out;
    Handshake answer;
    Bytes data{};
};

void Play(GpsModule& gps, std::initializer_list<Step> steps)
{
    for (const Step& step : steps) {
        const Packet packet = gps.Control(step.setup, step.out);
        EXPECT_EQ(packet.handshake, step.answer) << step.name;
        EXPECT_EQ(packet.data, step.data) << step.name;
    }
}

TEST(Control, StandardRequests)
{
    TestHost host;
    Play(host.gps, {
                       {"not configured yet", {0x80, 8, 0, 0, 1}, {}, kAck, {0}},
                       {"no endpoints yet", {0x82, 0, 0, 0x82, 2}, {}, kStall},
                       {"no interfaces yet", {0x81, 0, 0, 0, 2}, {}, kStall},
                       {"no class requests yet", {0x21, 0x22, 3, 0, 0}, {}, kStall},
                       {"address", {0x00, 5, 12, 0, 0}, {}, kAck},
                       {"address too high", {0x00, 5, 128, 0, 0}, {}, kStall},
                       {"no such configuration", {0x00, 9, 2, 0, 0}, {}, kStall},
                       {"configure", {0x00, 9, 1, 0, 0}, {}, kAck},
                       {"configured", {0x80, 8, 0, 0, 1}, {}, kAck, {1}},
                       {"device status", {0x80, 0, 0, 0, 2}, {}, kAck, {0, 0}},
                       {"arm remote wake-up", {0x00, 3, 1, 0, 0}, {}, kAck},
                       {"device status, armed", {0x80, 0, 0, 0, 2}, {}, kAck, {2, 0}},
                       {"disarm remote wake-up", {0x00, 1, 1, 0, 0}, {}, kAck},
                       {"device status, disarmed", {0x80, 0, 0, 0, 2}, {}, kAck, {0, 0}},
                       {"test mode", {0x00, 3, 2, 0, 0}, {}, kStall},
                       {"interface status", {0x81, 0, 0, 1, 2}, {}, kAck, {0, 0}},
                       {"no such interface", {0x81, 0, 0, 2, 2}, {}, kStall},
                       {"alternate", {0x81, 10, 0, 1, 1}, {}, kAck, {0}},
                       {"set alternate 0", {0x01, 11, 0, 1, 0}, {}, kAck},
                       {"set alternate 1", {0x01, 11, 1, 1, 0}, {}, kStall},
                       {"control endpoint", {0x82, 0, 0, 0, 2}, {}, kAck, {0, 0}},
                       {"no such endpoint", {0x82, 0, 0, 0x83, 2}, {}, kStall},
                       {"no such endpoint feature", {0x02, 3, 1, 0x82, 0}, {}, kStall},
                       {"set descriptor", {0x00, 7, 0x0200, 0, 9}, Bytes(9), kStall},
                       {"synch frame", {0x82, 12, 0, 0x82, 2}, {}, kStall},
                       {"vendor request", {0xC0, 6, 0, 0, 2}, {}, kStall},
                       {"short answer wanted", {0x80, 6, 0x0100, 0, 2}, {}, kAck, {18, 1}},
                   });
}

TEST(Control, ClassRequests)
{
    const Bytes coding{0x80, 0x25, 0, 0, 0, 0, 8};
    TestHost host({.function = {.comm_interface = 4, .data_interface = 5}});
    host.Configure();
    Play(host.gps, {
                       {"state at first", {0xA1, 3, 1, 4, 2}, {}, kAck, {0, 0}},
                       {"set state", {0x21, 2, 1, 4, 2}, {3, 0}, kAck},
                       {"state", {0xA1, 3, 1, 4, 2}, {}, kAck, {3, 0}},
                       {"clear state", {0x21, 4, 1, 4, 0}, {}, kAck},
                       {"state after", {0xA1, 3, 1, 4, 2}, {}, kAck, {0, 0}},
                       {"country setting", {0xA1, 3, 2, 4, 2}, {}, kStall},
                       {"state without data", {0x21, 2, 1, 4, 2}, {}, kStall},
                       {"state of one byte", {0x21, 2, 1, 4, 1}, {3}, kStall},
                       {"at the data interface", {0x21, 4, 1, 5, 0}, {}, kStall},
                       {"lines", {0x21, 0x22, 1, 4, 0}, {}, kAck},
                       {"set coding", {0x21, 0x20, 0, 4, 7}, coding, kAck},
                       {"coding", {0xA1, 0x21, 0, 4, 7}, {}, kAck, coding},
                       {"nine data bits", {0x21, 0x20, 0, 4, 7}, {0, 0, 0, 0, 0, 0, 9}, kStall},
                       {"break", {0x21, 0x23, 100, 4, 0}, {}, kAck},
                       {"encapsulated command", {0x21, 0, 0, 4, 2}, {'A', 'T'}, kStall},
                   });
    const ModuleStatus status = host.gps.Look();
    EXPECT_TRUE(status.dtr);
    EXPECT_FALSE(status.rts);
    ASSERT_EQ(status.control_count, 16U);
    EXPECT_EQ(status.control[2].setup.bRequest, 2);
    EXPECT_EQ(status.control[2].out, (Bytes{3, 0}));
    EXPECT_EQ(status.control[6].answer, Handshake::Stall);
}

TEST(Control, AHaltedEndpointStallsUntilItIsCleared)
{
    using Clearing = std::tuple<const char*, SetupPacket, bool, bool>;
    const Clearing clearings[] = {
        {"CLEAR_FEATURE of another endpoint", {0x02, 1, 0, 0x03, 0}, false, false},
        {"SET_INTERFACE of the data interface", {0x01, 11, 0, 1, 0}, true, false},
        {"SET_INTERFACE of the communication interface", {0x01, 11, 0, 0, 0}, false, true},
        {"SET_CONFIGURATION", {0x00, 9, 1, 0, 0}, true, true},
    };
    for (const auto& [name, setup, clears_data, clears_interrupt] : clearings) {
        TestHost host;
        host.Configure();
        for (const std::uint8_t endpoint : {0x81, 0x82, 0x02}) {
            EXPECT_EQ(host.Request(0x02, 3, 0, endpoint, 0).handshake, kAck);
            EXPECT_EQ(host.Request(0x82, 0, 0, endpoint, 2).data, (Bytes{1, 0}));
        }
        host.gps.Control(setup, {});
        EXPECT_EQ(host.Send("AT\r"), clears_data ? kAck : kStall) << name;
        EXPECT_EQ(host.gps.In(0x82).handshake, clears_data ? kAck : kStall) << name;
        EXPECT_EQ(host.gps.In(0x81).handshake, clears_interrupt ? Handshake::Nak : kStall) << name;
    }
    TestHost host;
    host.Configure();
    host.Request(0x02, 3, 0, 0x82, 0);
    EXPECT_EQ(host.ClearHalt(0x82), kAck);
    EXPECT_EQ(host.gps.In(0x82).handshake, Handshake::Nak);
}

TEST(Control, SerialStateFollowsDtr)
{
    TestHost host;
    host.Configure();
    EXPECT_EQ(host.Read(0x81), "");
    host.SetLines(3);
    EXPECT_EQ(host.Read(0x81), std::string("\xA1\x20\0\0\0\0\2\0\3\0", 10));
    host.SetLines(2);
    EXPECT_EQ(host.Read(0x81), std::string("\xA1\x20\0\0\0\0\2\0\0\0", 10));
    host.SetLines(0); // DTR was down already
    EXPECT_EQ(host.Read(0x81), "");
}

TEST(Control, SuspendedAModuleWakesOnlyWhenArmed)
{
    for (const bool armed : {false, true}) {
        TestHost host;
        host.Open();
        host.Request(0x00, armed ? 3 : 1, 1, 0, 0);
        host.gps.Suspend();
        host.gps.WakeAt(host.now + 10 * kSecond);
        EXPECT_EQ(host.Configure(), Handshake::Nak) << "asleep";
        host.RunUntil(host.now + 10 * kSecond);
        EXPECT_EQ(host.gps.WantsResume(), armed);
    }
}

TEST(Control, ABusResetIsAPowerUp)
{
    auto host = TestHost::WithReceiver();
    host->Open();
    host->SetAbstractState(3);
    host->Request(0x02, 3, 0, 0x82, 0);
    host->gps.BusReset();
    const ModuleStatus status = host->gps.Look();
    EXPECT_FALSE(status.configuration != 0 || status.dtr || status.rts || status.nmea_flowing);
    EXPECT_EQ(status.abstract_state, 0);
    EXPECT_GT(status.control_count, 0U);
    host->Open();
    EXPECT_EQ(host->RunUntil(host->now + 3 * kSecond).size(), 3U);
}

} // namespace
} // namespace module
