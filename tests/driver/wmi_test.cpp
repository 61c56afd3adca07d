// WMI: the four blocks of a serial port, and how long they are there.
#include "lifecycle.h"

#include "io/device.h"
#include "io/irp.h"
#include "wmi/wmi_manager.h"

#include <cstring>
#include <wmistr.h>

namespace navox_test {
namespace {

using host::WmiAnswer;
using host::WmiManager;

using Bytes = std::vector<std::byte>;

const GUID kName = {0xa0ec11a8, 0xb16c, 0x11d1, {0xbd, 0x98, 0x00, 0xa0, 0xc9, 0x06, 0xbe, 0x2d}};
const GUID kComm = {0xedb16a62, 0xb16c, 0x11d1, {0xbd, 0x98, 0x00, 0xa0, 0xc9, 0x06, 0xbe, 0x2d}};
const GUID kProperties = {0x8209ec2a, 0x2d6b, 0x11d2, {0xba, 0x49, 0x00, 0xa0, 0xc9, 0x06, 0x29, 0x10}};
const GUID kPerformance = {0x56415acc, 0xb16d, 0x11d1, {0xbd, 0x98, 0x00, 0xa0, 0xc9, 0x06, 0xbe, 0x2d}};
const GUID kNoBlock = {0x12345678, 0, 0, {}};

struct Block {
    int index;
    const GUID& guid;
    std::size_t size; // for COM5
};
const Block kBlocks[] = {{0, kName, 10}, {1, kComm, 64}, {2, kProperties, 68}, {3, kPerformance, 24}};

Bytes BytesOfText(std::string_view text)
{
    const auto* begin = reinterpret_cast<const std::byte*>(text.data());
    return {begin, begin + text.size()};
}

// The answer of the one device that there is.
WmiAnswer AskAll(const GUID& guid, std::size_t room = 4096)
{
    const auto answers = WmiManager::Current().QueryAllData(guid, static_cast<ULONG>(room));
    EXPECT_EQ(answers.size(), 1U);
    return answers.empty() ? WmiAnswer() : answers[0];
}

// What one query gives; empty when it fails.
Bytes Ask(const GUID& guid)
{
    const WmiAnswer answer = AskAll(guid);
    EXPECT_EQ(answer.status, STATUS_SUCCESS);
    return answer.instances.size() == 1 ? answer.instances[0] : Bytes();
}

ULONG Word(const Bytes& block, std::size_t offset)
{
    ULONG value = 0;
    EXPECT_LE(offset + sizeof(value), block.size());
    std::memcpy(&value, block.data() + offset, sizeof(value));
    return value;
}

TEST(Wmi, TheFourBlocksAreRegisteredAtTheFirstStart)
{
    const std::unique_ptr<Machine> machine = MachineIn(STATE_NEVER_STARTED);
    EXPECT_TRUE(WmiManager::Current().Blocks().empty());
    EXPECT_EQ(SendPnp(machine->rig, IRP_MN_START_DEVICE), STATUS_SUCCESS);
    const std::vector<host::WmiBlock> blocks = WmiManager::Current().Blocks();
    ASSERT_EQ(blocks.size(), std::size(kBlocks));
    for (const Block& block : kBlocks) {
        SCOPED_TRACE(block.index);
        const host::WmiBlock& registered = blocks[static_cast<std::size_t>(block.index)];
        EXPECT_TRUE(registered.guid == block.guid);
        EXPECT_EQ(registered.instances, 1U);
        EXPECT_EQ(registered.base_name, machine->rig.Node()->Path());
    }
    EXPECT_TRUE(Inside(machine->rig).WmiRegInfoGiven);
}

// The system finds the driver's event sources by this.
TEST(Wmi, TheRegistrationNamesTheDriversKey)
{
    Rig rig;
    const PDEVICE_OBJECT device = host::IopTopOf(rig.Node()->pdo);
    Bytes buffer(1024);
    const IO_STATUS_BLOCK result =
        host::IopSendAndWait(device, IRP_MJ_SYSTEM_CONTROL, IRP_MN_REGINFO, STATUS_NOT_SUPPORTED,
                             [&](PIRP, PIO_STACK_LOCATION location) {
                                 location->Parameters.WMI.ProviderId = reinterpret_cast<ULONG_PTR>(device);
                                 location->Parameters.WMI.BufferSize = static_cast<ULONG>(buffer.size());
                                 location->Parameters.WMI.Buffer = buffer.data();
                             });
    ASSERT_EQ(result.Status, STATUS_SUCCESS);
    const ULONG path = Word(buffer, offsetof(WMIREGINFOW, RegistryPath));
    USHORT length = 0;
    std::memcpy(&length, buffer.data() + path, sizeof(length));
    std::string text;
    for (USHORT i = 0; i < length; i += sizeof(WCHAR))
        text += static_cast<char>(buffer[path + sizeof(length) + i]);
    EXPECT_EQ(text, "\\Registry\\Machine\\System\\CurrentControlSet\\Services\\navox");
    // Each block came with a reference for the system to drop.
    for (std::size_t i = 0; i < std::size(kBlocks); ++i)
        host::IopDereferenceDevice(rig.Node()->pdo);
}

TEST(Wmi, PortName)
{
    Rig rig;
    EXPECT_EQ(Ask(kName), BytesOfText(std::string_view("\x08\0C\0O\0M\0005\0", 10)));
}

TEST(Wmi, CommunicationSettings)
{
    Rig rig;
    const Bytes block = Ask(kComm);
    ASSERT_EQ(block.size(), 64U);
    struct {
        std::size_t offset;
        ULONG value;
    } const words[] = {{0, 9600},        {4, 8},           {8, 0},           {12, 1},
                       {16, 1},          {20, 0x13},       {24, 16},         {28, 0x11},
                       {32, 16},         {36, 9600},       {40, 0xFFFFFFFF}, {44, 0xFFFFFFFF},
                       {48, 0x01010100}, {52, 0x01010101}, {56, 0x01010101}, {60, 0}};
    for (const auto& word : words)
        EXPECT_EQ(Word(block, word.offset), word.value) << "at " << word.offset;
}

TEST(Wmi, PropertiesAreASizeAndCountersStayZero)
{
    Rig rig;
    Port port = rig.OpenStreaming();
    port.Read(2000);
    EXPECT_EQ(Ask(kProperties), Bytes(68));
    EXPECT_EQ(Ask(kPerformance), Bytes(24));
    EXPECT_EQ(port.Control(IOCTL_SERIAL_GET_STATS, {}, 24).data, Bytes(24));
    EXPECT_EQ(port.Get<ULONG>(IOCTL_SERIAL_GET_DTRRTS), 0U); // although the module's lines are up
}

// The smallest buffer that a query succeeds with is the one that a smaller one is told of.
TEST(Wmi, BuffersThatAreTooSmall)
{
    Rig rig;
    constexpr std::size_t kHead = 72; // in front of the data of one instance
    for (const Block& block : kBlocks) {
        const std::size_t needed = kHead + block.size;
        for (std::size_t size = sizeof(WNODE_TOO_SMALL); size < needed + 2; ++size) {
            SCOPED_TRACE("block " + std::to_string(block.index) + ", " + std::to_string(size) + " bytes");
            const WmiAnswer answer = AskAll(block.guid, size);
            EXPECT_EQ(answer.status, STATUS_SUCCESS);
            EXPECT_EQ(answer.too_small, size < needed);
            EXPECT_EQ(answer.instances.size(), answer.too_small ? 0U : 1U);
            if (answer.too_small)
                EXPECT_EQ(answer.needed, needed);
        }
    }
}

TEST(Wmi, SingleInstances)
{
    Rig rig;
    for (const Block& block : kBlocks) {
        SCOPED_TRACE(block.index);
        const WmiAnswer answer = WmiManager::Current().QuerySingleInstance(block.guid, 0);
        ASSERT_EQ(answer.instances.size(), 1U);
        EXPECT_EQ(answer.instances[0], Ask(block.guid));
        EXPECT_EQ(WmiManager::Current().QuerySingleInstance(block.guid, 1).status,
                  STATUS_WMI_INSTANCE_NOT_FOUND);
    }
}

TEST(Wmi, NothingCanBeSet)
{
    Rig rig;
    const Bytes data(64, std::byte{0xFF});
    for (const Block& block : kBlocks) {
        SCOPED_TRACE(block.index);
        const Bytes before = Ask(block.guid);
        WmiManager& wmi = WmiManager::Current();
        EXPECT_EQ(wmi.SetSingleInstance(block.guid, 0, data), STATUS_INVALID_DEVICE_REQUEST);
        EXPECT_EQ(wmi.SetSingleItem(block.guid, 0, 1, data), STATUS_WMI_READ_ONLY);
        EXPECT_EQ(wmi.Send(host::IopTopOf(rig.Node()->pdo), IRP_MN_EXECUTE_METHOD, block.guid),
                  STATUS_INVALID_DEVICE_REQUEST);
        EXPECT_EQ(Ask(block.guid), before);
        EXPECT_EQ(PendingIn(rig), 0U);
    }
}

TEST(Wmi, BlocksThatAreNotThere)
{
    Rig rig;
    const PDEVICE_OBJECT device = host::IopTopOf(rig.Node()->pdo);
    WmiManager& wmi = WmiManager::Current();
    const UCHAR minors[] = {IRP_MN_QUERY_ALL_DATA, IRP_MN_QUERY_SINGLE_INSTANCE,
                            IRP_MN_CHANGE_SINGLE_INSTANCE};
    for (const UCHAR minor : minors)
        EXPECT_EQ(wmi.Send(device, minor, kNoBlock), STATUS_WMI_GUID_NOT_FOUND);
    // An index that the driver does not know, as a table that has grown would bring it.
    std::vector<GUID> guids(8, kNoBlock);
    std::vector<WMIGUIDREGINFO> table;
    for (std::size_t i = 0; i < guids.size(); ++i) {
        guids[i].Data2 = static_cast<USHORT>(i);
        table.push_back({&guids[i], 1, 0});
    }
    WMILIB_CONTEXT& library = Inside(rig).WmiLibInfo;
    const WMILIB_CONTEXT before = library;
    library.GuidCount = static_cast<ULONG>(table.size());
    library.GuidList = table.data();
    for (const UCHAR minor : minors)
        EXPECT_EQ(wmi.Send(device, minor, guids[7]), STATUS_WMI_GUID_NOT_FOUND);
    library = before;
}

// Without its name the block cannot be given; it can be asked for its size.
TEST(Wmi, APortWithoutItsName)
{
    Rig rig;
    UNICODE_STRING& name = Inside(rig).PortNameCopy;
    const UNICODE_STRING before = name;
    name.Buffer = nullptr;
    EXPECT_EQ(AskAll(kName).status, STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_TRUE(AskAll(kName, 80).too_small);
    name = before;
}

TEST(Wmi, RequestsForSomebodyElsePassDown)
{
    Rig rig;
    const PDEVICE_OBJECT device = host::IopTopOf(rig.Node()->pdo);
    for (const UCHAR minor : {IRP_MN_QUERY_ALL_DATA, IRP_MN_REGINFO, 0x0A, 0x20}) {
        SCOPED_TRACE(minor);
        const IO_STATUS_BLOCK result =
            host::IopSendAndWait(device, IRP_MJ_SYSTEM_CONTROL, minor, STATUS_NOT_SUPPORTED,
                                 [&](PIRP, PIO_STACK_LOCATION location) {
                                     location->Parameters.WMI.ProviderId =
                                         reinterpret_cast<ULONG_PTR>(device->DriverObject);
                                 });
        EXPECT_EQ(result.Status, STATUS_NOT_SUPPORTED);
        EXPECT_EQ(PendingIn(rig), 0U);
    }
}

// No state is looked at; the registration ends with the removal alone.
TEST(Wmi, TheBlocksAreThereUntilTheRemoval)
{
    Machine machine;
    Rig& rig = machine.rig;
    Port port = rig.Open();
    for (const UCHAR minor : {IRP_MN_QUERY_STOP_DEVICE, IRP_MN_STOP_DEVICE, IRP_MN_SURPRISE_REMOVAL}) {
        EXPECT_EQ(SendPnp(rig, minor), STATUS_SUCCESS);
        EXPECT_EQ(Ask(kName).size(), 10U) << StateText(StateOf(rig));
    }
    port.Close();
    rig.Unplug();
    EXPECT_TRUE(WmiManager::Current().QueryAllData(kName).empty());
    EXPECT_TRUE(WmiManager::Current().Blocks().empty());
}

} // namespace
} // namespace navox_test
