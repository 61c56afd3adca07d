// The private controls: what they take and give, who may send them, and when.
#include "control_bench.h"

#include "include/navox/gps_ioctl.h"
#include "io/io_manager.h"
#include "navox_utils.h"

#include <utility>

namespace navox_test {
namespace {

using host::nt::Access;
using host::nt::Result;

constexpr NTSTATUS kInvalid = STATUS_INVALID_PARAMETER;
constexpr NTSTATUS kSmall = STATUS_BUFFER_TOO_SMALL;

Bytes Text(std::string_view text, std::size_t length)
{
    Bytes bytes(length);
    std::copy(text.begin(), text.end(), reinterpret_cast<char*>(bytes.data()));
    return bytes;
}

Bytes Filled(std::size_t length)
{
    return Bytes(length, std::byte{0xAB});
}

struct PrivateCode {
    const char* name;
    ULONG code;
    bool served;
    ULONG input, output; // bytes that it takes
    ULONG access;        // FILE_READ_ACCESS, FILE_WRITE_ACCESS
};
constexpr PrivateCode kCodes[] = {
    {"GET_COMM_PORT", 0x08004008, true, 0, 4, FILE_READ_ACCESS},
    {"GET_APPLICATION_COUNT", 0x0800400C, true, 0, 4, FILE_READ_ACCESS},
    {"GET_NMEA_MODE", 0x08004010, true, 0, 4, FILE_READ_ACCESS},
    {"SET_NMEA_MODE", 0x08008014, true, 4, 0, FILE_WRITE_ACCESS},
    {"RESET_GPS", 0x08004018, true, 0, 0, FILE_READ_ACCESS},
    {"QUERY_VERSION", 0x08004024, true, 0, 20, FILE_READ_ACCESS},
    {"QUERY_SHORT_VERSION", 0x08004040, true, 0, 10, FILE_READ_ACCESS},
    {"QUERY_BUILD_DATE", 0x08004080, true, 0, 20, FILE_READ_ACCESS},
    {"WRITE_DEBUG_STRING", 0x0800801C, false, 0, 0, FILE_WRITE_ACCESS},
    {"READ_DEBUG_DATA", 0x08004020, false, 0, 0, FILE_READ_ACCESS},
    {"SET_DEBUG_LEVEL", 0x080080C0, false, 0, 0, FILE_WRITE_ACCESS},
    {"OPERATION", 0x0800C004, false, 0, 0, FILE_READ_ACCESS | FILE_WRITE_ACCESS},
};

// What the application sees, and what its driver above would see returned where that is something else.
TEST(GpsControls, TakeAndGive)
{
    struct Case {
        ULONG code;
        std::size_t input, output;
        NTSTATUS status;
        std::size_t information;
        bool hides = false; // returns STATUS_SUCCESS, whatever the request was completed with
        Bytes given{};
    };
    const Bytes version = Text("7.2.1.1", 20);
    const Bytes shortVersion = Text("7.2", 10);
    const Bytes buildDate = Text("Mar  1 2012", 20);
    const std::vector<Case> cases = {
        {IOCTL_GPS_GET_COMM_PORT, 0, 4, STATUS_SUCCESS, 4, false, Words({5})},
        {IOCTL_GPS_GET_COMM_PORT, 0, 100, STATUS_SUCCESS, 4, false, Words({5})},
        {IOCTL_GPS_GET_COMM_PORT, 1, 4, kInvalid, 0},
        {IOCTL_GPS_GET_COMM_PORT, 0, 3, kSmall, 4},
        {IOCTL_GPS_GET_APPLICATION_COUNT, 0, 4, STATUS_SUCCESS, 4, true, Words({1})},
        {IOCTL_GPS_GET_APPLICATION_COUNT, 1, 4, kInvalid, 0, true},
        {IOCTL_GPS_GET_APPLICATION_COUNT, 0, 3, kSmall, 0, true},
        {IOCTL_GPS_GET_NMEA_MODE, 0, 4, STATUS_SUCCESS, 4, true, Words({0})},
        {IOCTL_GPS_GET_NMEA_MODE, 4, 4, kInvalid, 0, true},
        {IOCTL_GPS_GET_NMEA_MODE, 0, 2, kSmall, 4, true},
        {IOCTL_GPS_SET_NMEA_MODE, 4, 1, kInvalid, 0, true},
        {IOCTL_GPS_SET_NMEA_MODE, 3, 0, kSmall, 4, true},
        {IOCTL_GPS_GET_NMEA_MODE, 0, 4, STATUS_SUCCESS, 4, true, Words({0})}, // none of these set it
        {IOCTL_GPS_SET_NMEA_MODE, 4, 0, STATUS_SUCCESS, 0, true},
        {IOCTL_GPS_GET_NMEA_MODE, 0, 8, STATUS_SUCCESS, 4, true, Words({0xABABABAB})},
        {IOCTL_GPS_RESET_GPS, 0, 0, STATUS_SUCCESS, 8, true},
        {IOCTL_GPS_RESET_GPS, 0, 7, STATUS_SUCCESS, 8, true},
        {IOCTL_GPS_RESET_GPS, 3, 100, STATUS_SUCCESS, 8, true},
        {IOCTL_GPS_QUERY_VERSION, 0, 20, STATUS_SUCCESS, 20, false, version},
        {IOCTL_GPS_QUERY_VERSION, 0, 19, kSmall, 1},
        {IOCTL_GPS_QUERY_VERSION, 1, 20, kInvalid, 0},
        {IOCTL_GPS_QUERY_SHORT_VERSION, 0, 10, STATUS_SUCCESS, 10, false, shortVersion},
        {IOCTL_GPS_QUERY_SHORT_VERSION, 0, 9, kSmall, 1},
        {IOCTL_GPS_QUERY_SHORT_VERSION, 1, 10, kInvalid, 0},
        {IOCTL_GPS_QUERY_BUILD_DATE, 0, 20, STATUS_SUCCESS, 20, false, buildDate},
        {IOCTL_GPS_QUERY_BUILD_DATE, 0, 19, kSmall, 1},
        {IOCTL_GPS_QUERY_BUILD_DATE, 1, 20, kInvalid, 0},
    };
    Rig rig;
    Port port = rig.Open();
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.code) + " with " + std::to_string(c.input) + ", " +
                     std::to_string(c.output) + " bytes");
        const Result result = port.Control(c.code, Filled(c.input), c.output);
        EXPECT_EQ(result.status, c.status);
        EXPECT_EQ(result.information, c.information);
        if (!c.given.empty())
            EXPECT_EQ(Hex(result.data), Hex(c.given));
        const DirectResult direct = SendDirect(rig, c.code, Filled(c.input), c.output);
        EXPECT_EQ(direct.status, c.status);
        EXPECT_EQ(direct.information, c.information);
        EXPECT_EQ(direct.returned, c.hides ? STATUS_SUCCESS : c.status);
    }
}

// RESET_GPS counts bytes that it has not written. What comes out is the caller's own input, and zeros.
TEST(GpsControls, ShowNoMemoryOfOthers)
{
    const struct {
        std::size_t input, output;
        Bytes given;
    } cases[] = {
        {0, 8, Zeros(8)},
        {3, 8, BytesFrom({0xAB, 0xAB, 0xAB, 0, 0, 0, 0, 0})},
        {64, 64, Filled(8)},
        {0, 100, Zeros(8)},
    };
    Rig rig;
    Port port = rig.Open();
    host::IoManager::Current().SetSystemBufferFill(std::byte{0x5A});
    for (const auto& c : cases)
        EXPECT_EQ(Hex(port.Control(IOCTL_GPS_RESET_GPS, Filled(c.input), c.output).data), Hex(c.given));
    // A buffer shorter than the count is left alone.
    EXPECT_EQ(Hex(SendDirect(rig, IOCTL_GPS_RESET_GPS, {}, 7).output), Hex(Zeros(7)));
}

TEST(GpsControls, NeedTheAccessThatTheirCodesSay)
{
    static constexpr std::pair<Access, ULONG> kHandles[] = {
        {Access::None, 0},
        {Access::Read, FILE_READ_ACCESS},
        {Access::Write, FILE_WRITE_ACCESS},
        {Access::ReadWrite, FILE_READ_ACCESS | FILE_WRITE_ACCESS},
    };
    Rig rig;
    for (const auto& [access, rights] : kHandles) {
        Port port;
        ASSERT_EQ(rig.TryOpen(&port, {.access = access}), STATUS_SUCCESS);
        for (const PrivateCode& code : kCodes) {
            SCOPED_TRACE(std::string(code.name) + ", rights " + std::to_string(rights));
            const NTSTATUS allowed = code.served ? STATUS_SUCCESS : STATUS_INVALID_DEVICE_REQUEST;
            EXPECT_EQ(port.Control(code.code, Zeros(code.input), code.output).status,
                      (code.access & ~rights) == 0 ? allowed : STATUS_ACCESS_DENIED);
        }
    }
}

TEST(GpsControls, AndWritesAreServedInEveryState)
{
    for (const DeviceState& state : DeviceStates()) {
        SCOPED_TRACE(state.name);
        Rig rig;
        Port port = rig.Open();
        Port second = rig.Open();
        EXPECT_EQ(port.Set(IOCTL_GPS_SET_NMEA_MODE, ULONG{3}), STATUS_SUCCESS);
        state.enter(rig);
        EXPECT_EQ(port.Get<ULONG>(IOCTL_GPS_GET_COMM_PORT), 5u);
        EXPECT_EQ(port.Get<ULONG>(IOCTL_GPS_GET_APPLICATION_COUNT), 2u);
        EXPECT_EQ(port.Get<ULONG>(IOCTL_GPS_GET_NMEA_MODE), 3u);
        EXPECT_EQ(port.Control(IOCTL_GPS_RESET_GPS).information, 8u);
        const Result written = port.Write(Zeros(7));
        EXPECT_EQ(written.status, STATUS_SUCCESS);
        EXPECT_EQ(written.information, 7u);
        for (const PrivateCode& code : kCodes) {
            const NTSTATUS refusal = state.admits ? STATUS_INVALID_DEVICE_REQUEST : STATUS_DELETE_PENDING;
            EXPECT_EQ(port.Control(code.code, Zeros(code.input), code.output).status,
                      code.served ? STATUS_SUCCESS : refusal)
                << code.name;
        }
        EXPECT_TRUE(IsNothingPending(&ExtensionOf(rig)));
        state.leave(rig);
    }
}

// Nobody can have it open yet, but a driver above can ask.
TEST(GpsControls, AreServedBeforeTheFirstStart)
{
    Rig rig({.plug = false});
    host::PnpManager::Current().SetAutomatic(false);
    rig.Plug();
    ASSERT_EQ(host::PnpManager::Current().AddDevice(rig.Node()), STATUS_SUCCESS);
    EXPECT_EQ(Hex(SendDirect(rig, IOCTL_GPS_GET_COMM_PORT, {}, 4).output), Hex(Words({5})));
    EXPECT_EQ(Hex(SendDirect(rig, IOCTL_GPS_GET_APPLICATION_COUNT, {}, 4).output), Hex(Words({0})));
    EXPECT_EQ(Hex(SendDirect(rig, IOCTL_GPS_QUERY_SHORT_VERSION, {}, 10).output), Hex(Text("7.2", 10)));
    // The first start leaves the mode as it was set.
    EXPECT_EQ(SendDirect(rig, IOCTL_GPS_SET_NMEA_MODE, Words({9}), 0).status, STATUS_SUCCESS);
    EXPECT_EQ(host::PnpManager::Current().Start(rig.Node()), STATUS_SUCCESS);
    EXPECT_EQ(rig.Open().Get<ULONG>(IOCTL_GPS_GET_NMEA_MODE), 9u);
}

} // namespace
} // namespace navox_test
