// What the system asks of the driver: Plug and Play, power, WMI.
#include "windows/rig/program/rig_test.h"

#include <cstring>

namespace {

enum Pnp : unsigned char {
    kStart = 0,
    kQueryRemove = 1,
    kCancelRemove = 3,
    kStop = 4,
    kQueryStop = 5,
    kCancelStop = 6
};
enum Power : unsigned char { kSetPower = 2, kQueryPower = 3 };
enum Wmi : unsigned char { kQueryAllData = 0, kChangeSingleInstance = 2, kRegInfo = 8 };
constexpr unsigned kWorking = 1;   // PowerSystemWorking
constexpr unsigned kSleeping3 = 4; // PowerSystemSleeping3
constexpr unsigned kD0 = 1;        // PowerDeviceD0
constexpr long kSuccess = 0;
constexpr long kGuidNotFound = static_cast<long>(0xC0000295);

constexpr GUID kPortName = {0xa0ec11a8, 0xb16c, 0x11d1, {0xbd, 0x98, 0x00, 0xa0, 0xc9, 0x06, 0xbe, 0x2d}};

// A WNODE_ALL_DATA: where the first instance's data is, behind its header of 48 bytes.
struct AllData {
    unsigned header[12];
    unsigned data_offset;
    unsigned instances;
    unsigned names_offset;
    unsigned first_offset;
    unsigned first_length;
};

RigWmiAnswer Query(Rig& rig, const GUID& guid)
{
    RigWmiRequest request{};
    request.minor = kQueryAllData;
    std::memcpy(request.guid, &guid, sizeof guid);
    request.length = sizeof request.data;
    return rig.SendWmi(request);
}

} // namespace

SCENARIO(StaysAfterARemovalThatIsCalledOff)
{
    Rig rig;
    rig.Plug();
    CHECK_EQ(rig.SendPnp(kQueryRemove), kSuccess);
    CHECK(OpenPort("COM5") == INVALID_HANDLE_VALUE);
    CHECK_EQ(GetLastError(), ERROR_NO_SYSTEM_RESOURCES);
    CHECK_EQ(rig.SendPnp(kCancelRemove), kSuccess);
    Port port("COM5");
    rig.Feed("on");
    CHECK_EQ(port.ReadAll(kEmptySentence.size() + 2), kEmptySentence + "on");
}

SCENARIO(StopsAndStartsAgain)
{
    Rig rig;
    rig.Plug();
    CHECK_EQ(rig.SendPnp(kQueryStop), kSuccess);
    CHECK_EQ(rig.SendPnp(kStop), kSuccess);
    CHECK(OpenPort("COM5") == INVALID_HANDLE_VALUE);
    CHECK_EQ(rig.SendPnp(kStart), kSuccess);
    Port port("COM5");
    rig.Feed("on");
    CHECK_EQ(port.ReadAll(kEmptySentence.size() + 2), kEmptySentence + "on");
}

SCENARIO(SleepsAndWakes)
{
    Rig rig;
    rig.Plug();
    Port port("COM5");
    rig.Feed("before");
    CHECK_EQ(port.ReadAll(kEmptySentence.size() + 6), kEmptySentence + "before");
    CHECK_EQ(rig.SendPower(kQueryPower, true, kSleeping3), kSuccess);
    CHECK_EQ(rig.SendPower(kSetPower, true, kSleeping3), kSuccess);
    CHECK(rig.Counters().power != kD0);
    WaitUntil("the module is suspended", [&] { return rig.Counters().suspended != 0; });
    CHECK_EQ(rig.SendPower(kSetPower, true, kWorking), kSuccess);
    CHECK_EQ(rig.Counters().power, kD0);
    // The module is set up anew, and what it says meanwhile is taken for its answer.
    WaitUntil("the second AT command", [&] { return rig.Counters().at_commands == 2; });
    rig.Feed("after");
    CHECK_EQ(port.ReadAll(5), "after");
}

SCENARIO(AnswersWmi)
{
    Rig rig;
    rig.Plug();
    CHECK_EQ(rig.Counters().wmi_registered, 1);
    RigWmiRequest registration{};
    registration.minor = kRegInfo;
    registration.length = sizeof registration.data;
    CHECK_EQ(rig.SendWmi(registration).status, kSuccess);
    const RigWmiAnswer answer = Query(rig, kPortName);
    CHECK_EQ(answer.status, kSuccess);
    AllData all{};
    std::memcpy(&all, answer.data, sizeof all);
    CHECK_EQ(all.instances, 1);
    CHECK_EQ(all.first_length, 10);
    CHECK(std::memcmp(answer.data + all.first_offset,
                      L"\x0008"
                      L"COM5",
                      10) == 0);
    CHECK_EQ(Query(rig, GUID{}).status, kGuidNotFound);
}
