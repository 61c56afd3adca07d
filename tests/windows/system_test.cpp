// What the system asks of the driver: Plug and Play, power, WMI.
#include "windows/rig/program/rig_test.h"

#include <cstring>
#include <iterator>
#include <utility>
#include <vector>

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
constexpr unsigned kD3 = 4;        // what the bus has for Sleeping3
constexpr long kSuccess = 0;
constexpr long kGuidNotFound = static_cast<long>(0xC0000295);
constexpr long kInvalidRequest = static_cast<long>(0xC0000010);

std::string Words(std::initializer_list<unsigned> words)
{
    return {reinterpret_cast<const char*>(std::data(words)), words.size() * sizeof(unsigned)};
}

// What MSSerial_CommInfo shows.
std::string CommInfo(unsigned bits, unsigned parity, unsigned stop_bits)
{
    return Words({9600, bits, parity, 1, stop_bits, 0x13, 16, 0x11, 16, 9600, 0xFFFFFFFF, 0xFFFFFFFF,
                  0x01010100, 0x01010101, 0x01010101, 0});
}

struct Block {
    GUID guid;
    std::string data;
};

// In the order of their registration.
const Block kBlocks[] = {
    {{0xa0ec11a8, 0xb16c, 0x11d1, {0xbd, 0x98, 0x00, 0xa0, 0xc9, 0x06, 0xbe, 0x2d}},
     std::string("\x08\0C\0O\0M\0005\0", 10)},
    {{0xedb16a62, 0xb16c, 0x11d1, {0xbd, 0x98, 0x00, 0xa0, 0xc9, 0x06, 0xbe, 0x2d}}, CommInfo(8, 0, 1)},
    {{0x8209ec2a, 0x2d6b, 0x11d2, {0xba, 0x49, 0x00, 0xa0, 0xc9, 0x06, 0x29, 0x10}}, std::string(68, '\0')},
    {{0x56415acc, 0xb16d, 0x11d1, {0xbd, 0x98, 0x00, 0xa0, 0xc9, 0x06, 0xbe, 0x2d}}, std::string(24, '\0')},
};

// A WNODE_ALL_DATA: where the first instance's data is, behind its header of 48 bytes.
struct AllData {
    unsigned header[12];
    unsigned data_offset;
    unsigned instances;
    unsigned names_offset;
    unsigned first_offset;
    unsigned first_length;
};

constexpr unsigned kAllDataHead = 72; // before the data of one instance
constexpr unsigned kTooSmall = 0x20;  // WNODE_FLAG_TOO_SMALL

// A part of a WMIREGINFOW.
struct Registration {
    unsigned size, next, registry_path, mof, count;
    struct {
        GUID guid;
        unsigned flags, instances;
        unsigned long long pdo;
    } guids[4];
};
constexpr unsigned kPdoNames = 0x20; // WMIREG_FLAG_INSTANCE_PDO

RigWmiAnswer Ask(Rig& rig, Wmi minor, const GUID& guid, unsigned room = sizeof(RigWmiRequest::data))
{
    RigWmiRequest request{};
    request.minor = minor;
    std::memcpy(request.guid, &guid, sizeof guid);
    request.length = room;
    return rig.SendWmi(request);
}

std::string DataOf(Rig& rig, const GUID& guid)
{
    const RigWmiAnswer answer = Ask(rig, kQueryAllData, guid);
    CHECK_EQ(answer.status, kSuccess);
    AllData all{};
    std::memcpy(&all, answer.data, sizeof all);
    CHECK_EQ(all.instances, 1);
    CHECK_EQ(answer.length, all.first_offset + all.first_length);
    return {reinterpret_cast<const char*>(answer.data) + all.first_offset, all.first_length};
}

} // namespace

SCENARIO(WorksAfterWhatIsCalledOffAndAfterARestart)
{
    const std::pair<Pnp, std::vector<Pnp>> kinds[] = {
        {kQueryRemove, {kCancelRemove}}, {kQueryStop, {kCancelStop}}, {kQueryStop, {kStop, kStart}}};
    Rig rig;
    rig.Plug();
    for (const auto& [query, rest] : kinds) {
        CHECK_EQ(rig.SendPnp(query), kSuccess);
        CHECK(OpenPort("COM5") == INVALID_HANDLE_VALUE);
        CHECK_EQ(GetLastError(), ERROR_NO_SYSTEM_RESOURCES);
        for (const Pnp minor : rest)
            CHECK_EQ(rig.SendPnp(minor), kSuccess);
        Port port("COM5");
        rig.Feed("on");
        CHECK_EQ(port.ReadAll(kEmptySentence.size() + 2), kEmptySentence + "on");
        port.Close();
        WaitUntil("the driver closes the file", [&] { return rig.Counters().open_files == 0; });
    }
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
    CHECK_EQ(rig.Counters().power, kD3);
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
    const RigWmiAnswer answer = Ask(rig, kRegInfo, GUID{});
    CHECK_EQ(answer.status, kSuccess);
    Registration registration{};
    std::memcpy(&registration, answer.data, sizeof registration);
    CHECK_EQ(registration.count, std::size(kBlocks));
    for (std::size_t i = 0; i < std::size(kBlocks); ++i) {
        const auto& [guid, data] = kBlocks[i];
        CHECK(registration.guids[i].guid == guid);
        CHECK_EQ(registration.guids[i].flags, kPdoNames);
        CHECK_EQ(registration.guids[i].instances, 1);
        CHECK(DataOf(rig, guid) == data);
        const auto whole = static_cast<unsigned>(kAllDataHead + data.size());
        const RigWmiAnswer small = Ask(rig, kQueryAllData, guid, whole - 1);
        unsigned node[13]; // a WNODE_TOO_SMALL
        std::memcpy(node, small.data, sizeof node);
        CHECK_EQ(small.status, kSuccess);
        CHECK((node[11] & kTooSmall) != 0);
        CHECK_EQ(node[12], whole);
        CHECK_EQ(Ask(rig, kChangeSingleInstance, guid).status, kInvalidRequest);
    }
    CHECK_EQ(Ask(rig, kQueryAllData, GUID{}).status, kGuidNotFound);
}

SCENARIO(ShowsTheLineToWmi)
{
    Rig rig;
    rig.Plug();
    const Port port("COM5");
    constexpr DWORD set_line_control = 0x1B000C;
    unsigned char line[] = {2, EVENPARITY, 7};
    DWORD moved = 0;
    CHECK(DeviceIoControl(port.handle(), set_line_control, line, sizeof line, nullptr, 0, &moved, nullptr));
    CHECK(DataOf(rig, kBlocks[1].guid) == CommInfo(7, 2, 2));
}
