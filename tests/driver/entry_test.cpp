// Loading the driver, the arrival of a module, the names it gets, and what is left when a step fails.
#include "rig.h"

#include "cm/configuration_manager.h"
#include "include/navox/gps_ioctl.h"
#include "io/device.h"
#include "io/driver.h"
#include "io/io_manager.h"
#include "navox.h"
#include "usbd/usb_port.h"

#include <algorithm>

namespace navox_test {
namespace {

using host::CmType;
using host::FaultPlan;
using host::FaultPoint;
using host::PnpManager;

constexpr const char16_t* kSerialComm = u"\\Registry\\Machine\\Hardware\\DeviceMap\\SERIALCOMM";

std::string Narrow(std::u16string_view text)
{
    return {text.begin(), text.end()};
}

struct Value {
    std::u16string name;
    CmType type;
    std::vector<std::byte> data;
};

Value Text(std::u16string name, std::u16string_view text)
{
    return {std::move(name), CmType::String, host::CmStringData(text)};
}

Value Raw(std::u16string name, CmType type, std::initializer_list<int> bytes)
{
    Value value{std::move(name), type, {}};
    for (const int byte : bytes)
        value.data.push_back(static_cast<std::byte>(byte));
    return value;
}

// What the installer of the ports class leaves for one module.
struct Installation {
    std::vector<Value> hardware{Text(u"PortName", u"COM5")};
    std::vector<Value> driver{};
};

// A machine on which modules arrive one by one and nothing is done by itself.
class Machine {
  public:
    explicit Machine(host::KernelOptions kernel = {}) : rig({.kernel = std::move(kernel), .plug = false})
    {
        PnpManager::Current().SetAutomatic(false);
        PnpManager::Current().SetInstaller([this](host::PnpNode& node) {
            Write(node.HardwareKey(), installation_.hardware);
            Write(node.DriverKey(), installation_.driver);
        });
    }
    ~Machine()
    {
        for (const host::UsbPortPtr& port : ports_)
            host::UsbBus::Current().Unplug(port);
        PnpManager::Current().Settle();
    }
    Machine(const Machine&) = delete;
    Machine& operator=(const Machine&) = delete;

    // A module is connected; no driver is called yet.
    host::PnpNodePtr Arrive(Installation installation = {})
    {
        installation_ = std::move(installation);
        host::UsbPortOptions options;
        options.instance_id = "6&" + std::to_string(ports_.size() + 1);
        ports_.push_back(host::UsbBus::Current().Plug(std::make_shared<module::GpsModule>(), options));
        PnpManager::Current().Settle();
        return PnpManager::Current().Nodes().back();
    }

    static NTSTATUS Add(const host::PnpNodePtr& node) { return PnpManager::Current().AddDevice(node); }

    host::PnpNodePtr ArriveAndStart(Installation installation = {})
    {
        host::PnpNodePtr node = Arrive(std::move(installation));
        EXPECT_EQ(Add(node), STATUS_SUCCESS);
        EXPECT_EQ(PnpManager::Current().Start(node), STATUS_SUCCESS);
        return node;
    }

    static std::string NameOf(const host::PnpNodePtr& node)
    {
        return Narrow(host::IoManager::Current().Names().NameOf(host::IopTopOf(node->pdo)));
    }

    // "COM5 -> \Device\quorlex0" for every link to a port.
    static std::vector<std::string> Links()
    {
        std::vector<std::string> links;
        for (const auto& link : host::IoManager::Current().Names().Links())
            if (link.target.starts_with(u"\\Device\\quorlex"))
                links.push_back(Narrow(link.name) + " -> " + Narrow(link.target));
        return links;
    }

    // "\Device\quorlex0 = COM5" for every entry of the map.
    std::vector<std::string> SerialComm()
    {
        std::vector<std::string> entries;
        const host::CmKeyPtr key = rig.Registry().Open(kSerialComm);
        if (key != nullptr)
            for (const host::CmValue& value : rig.Registry().Values(key))
                entries.push_back(Narrow(value.name) + " = " + Narrow(host::CmStringText(value.data)));
        return entries;
    }

    Rig rig;

  private:
    void Write(const std::u16string& path, const std::vector<Value>& values)
    {
        const host::CmKeyPtr key = rig.Registry().Open(path);
        for (const Value& value : values)
            rig.Registry().SetValue(key, value.name, static_cast<std::uint32_t>(value.type), value.data);
    }

    Installation installation_;
    std::vector<host::UsbPortPtr> ports_;
};

using Strings = std::vector<std::string>;

TEST(Load, FailsAloudWhenThePathCannotBeKept)
{
    Rig rig({.load = false});
    rig.kernel.Faults().Arm(FaultPoint::PoolAllocate, {.detail = "NxRp"});
    EXPECT_EQ(rig.Load(), STATUS_INSUFFICIENT_RESOURCES);
    const Strings prints = rig.kernel.DebugPrints();
    EXPECT_TRUE(std::ranges::any_of(prints, [](const std::string& line) {
        return line.find("GPS NAVOX DriverEntry - Failed to allocate memory.") != line.npos;
    }));

    rig.kernel.Faults().DisarmAll();
    ASSERT_EQ(rig.Load(), STATUS_SUCCESS);
    rig.Plug();
    EXPECT_EQ(rig.Open().Read(32).Text(), kEmptyFix);
}

TEST(Load, UnloadsOnlyWithoutDevicesAndCountsFromZeroAgain)
{
    Rig rig;
    EXPECT_EQ(Machine::NameOf(rig.Node()), "\\Device\\quorlex0");
    EXPECT_EQ(host::IoUnloadDriver("navox"), STATUS_DEVICE_BUSY);
    rig.Unplug();
    rig.Plug();
    EXPECT_EQ(Machine::NameOf(rig.Node()), "\\Device\\quorlex1"); // no number twice
    rig.Unplug();
    ASSERT_EQ(rig.Unload(), STATUS_SUCCESS);
    ASSERT_EQ(rig.Load(), STATUS_SUCCESS);
    rig.Plug();
    EXPECT_EQ(Machine::NameOf(rig.Node()), "\\Device\\quorlex0");
}

TEST(Arrival, MakesASerialPortThatIsReadyWhenItReturns)
{
    Machine machine;
    const host::PnpNodePtr node = machine.Arrive();
    ASSERT_EQ(Machine::Add(node), STATUS_SUCCESS);
    const PDEVICE_OBJECT device = host::IopTopOf(node->pdo);
    EXPECT_EQ(device->DeviceType, ULONG{FILE_DEVICE_SERIAL_PORT});
    EXPECT_EQ(device->Characteristics & 0x102, ULONG{0x102});
    EXPECT_EQ(device->Flags & (DO_BUFFERED_IO | DO_POWER_PAGABLE | DO_DEVICE_INITIALIZING | DO_EXCLUSIVE),
              ULONG{DO_BUFFERED_IO | DO_POWER_PAGABLE});
    EXPECT_EQ(machine.rig.OpenHandles(), 0U);
    EXPECT_TRUE(host::nt::Interfaces(GUID_DEVINTERFACE_COMPORT).empty()); // not before the start
    ASSERT_EQ(PnpManager::Current().Start(node), STATUS_SUCCESS);
    EXPECT_EQ(host::nt::Interfaces(GUID_DEVINTERFACE_COMPORT).size(), 1U);
}

TEST(Arrival, OfNothingIsRefused)
{
    const Rig rig;
    const PDRIVER_OBJECT driver = host::IoDriverByName("navox");
    EXPECT_EQ(driver->DriverExtension->AddDevice(driver, nullptr), STATUS_NO_MORE_ENTRIES);
}

TEST(Arrival, TwoModulesAreTwoPorts)
{
    Machine machine;
    const auto first = machine.ArriveAndStart();
    const auto second = machine.ArriveAndStart({.hardware = {Text(u"PortName", u"COM12")}});
    EXPECT_EQ(Machine::Links(), (Strings{"\\DosDevices\\COM12 -> \\Device\\quorlex1",
                                         "\\DosDevices\\COM5 -> \\Device\\quorlex0"}));
    EXPECT_EQ(machine.SerialComm(), (Strings{"\\Device\\quorlex0 = COM5", "\\Device\\quorlex1 = COM12"}));
    const Port port = machine.rig.Open();
    EXPECT_EQ(machine.rig.Registry().Dword(first->HardwareKey(), u"OpenHandles"), 1U);
    EXPECT_EQ(machine.rig.Registry().Dword(second->HardwareKey(), u"OpenHandles"), 0U);
}

// The second port of the name is not made, and the first one stays.
TEST(Arrival, APortNameIsTakenOnce)
{
    Machine machine;
    machine.ArriveAndStart();
    const auto second = machine.Arrive();
    EXPECT_EQ(Machine::Add(second), STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(Machine::Links(), (Strings{"\\DosDevices\\COM5 -> \\Device\\quorlex0"}));
    EXPECT_EQ(machine.SerialComm(), (Strings{"\\Device\\quorlex0 = COM5"}));
    EXPECT_EQ(machine.rig.Open().Read(32).Text(), kEmptyFix);
    const auto third = machine.ArriveAndStart({.hardware = {Text(u"PortName", u"COM6")}});
    EXPECT_EQ(Machine::NameOf(third), "\\Device\\quorlex2");
}

// The link that goes is the one that the registry names then.
TEST(Departure, OfARenamedPortLeavesItsFirstLink)
{
    Rig rig(
        {.kernel = {.excuses = {{.rule = host::Rule::SymbolicLinkLeak, .reason = "the port was renamed"}}}});
    rig.Registry().SetString(rig.Node()->HardwareKey(), u"PortName", u"COM6");
    rig.Unplug();
    EXPECT_EQ(Machine::Links(), (Strings{"\\DosDevices\\COM5 -> \\Device\\quorlex0"}));
    EXPECT_TRUE(rig.Registry().Values(rig.Registry().Open(kSerialComm)).empty());
}

// Port names ------------------------------------------------------------------------------------------------

const std::u16string k33 = u"COM" + std::u16string(29, u'0') + u"4";
const std::u16string k34 = u"COM" + std::u16string(30, u'0') + u"4";
const std::u16string k243 = u"COM8" + std::u16string(239, u'y'); // 255 characters with "\DosDevices\"
const std::u16string k244 = u"COM8" + std::u16string(240, u'y');
const std::u16string k255 = u"COM9" + std::u16string(251, u'z'); // 512 bytes with its terminator
const std::u16string k300 = u"COM9" + std::u16string(296, u'z'); // more than the query has room for

struct Named {
    std::u16string link; // behind \DosDevices\ .
    std::u16string kept; // in SERIALCOMM
    ULONG number;        // of the port
};

// A device of these values in its hardware key; nothing expected: it is refused with the status.
void ExpectNamed(const std::vector<Value>& values, const std::optional<Named>& expected,
                 NTSTATUS status = STATUS_SUCCESS)
{
    SCOPED_TRACE(values.empty() ? "no value" : Narrow(host::CmStringText(values[0].data)));
    Machine machine;
    const auto node = machine.Arrive({.hardware = values});
    ASSERT_EQ(Machine::Add(node), status);
    if (!expected) {
        EXPECT_TRUE(Machine::Links().empty());
        EXPECT_TRUE(machine.SerialComm().empty());
        return;
    }
    EXPECT_EQ(Machine::Links(),
              Strings{"\\DosDevices\\" + Narrow(expected->link) + " -> \\Device\\quorlex0"});
    EXPECT_EQ(machine.SerialComm(), Strings{"\\Device\\quorlex0 = " + Narrow(expected->kept)});
    ASSERT_EQ(PnpManager::Current().Start(node), STATUS_SUCCESS);
    host::nt::File file;
    ASSERT_EQ(host::nt::File::Open("\\Device\\quorlex0", &file), STATUS_SUCCESS);
    const Port port(std::move(file));
    EXPECT_EQ(port.Get<ULONG>(IOCTL_GPS_GET_COMM_PORT), expected->number);
    EXPECT_EQ(port.Control(IOCTL_GPS_RESET_GPS).information, expected->kept.size() * sizeof(char16_t));
}

TEST(PortName, FollowsTheHardwareKey)
{
    const auto named = [](const std::u16string& name, ULONG number) {
        ExpectNamed({Text(u"PortName", name)}, Named{name, name, number});
    };
    named(u"COM5", 5);
    named(u"COM12", 12);
    named(u"COM256", 256);
    named(u"GPS7", 7);
    named(u"1234", 4);
    named(u"COM", 0);
    named(u"AB", 0);
    named(u"COMx", 0);
    ExpectNamed({Text(u"Identifier", u"COM3")}, Named{u"COM3", u"COM3", 3});
    ExpectNamed({Text(u"PortName", u"COM1"), Text(u"Identifier", u"COM2")}, Named{u"COM1", u"COM1", 1});
    ExpectNamed({}, {}, STATUS_OBJECT_NAME_NOT_FOUND);
    // The kept name has room for 33 characters; the link is not cut.
    named(k33, 4);
    ExpectNamed({Text(u"PortName", k34)}, Named{k34, u"", 4});
    ExpectNamed({Text(u"PortName", k243)}, Named{k243, u"", 8});
    ExpectNamed({Text(u"PortName", k244)}, {}, STATUS_BUFFER_TOO_SMALL);
    // Data of 511 bytes and more is found, but not copied; where the query has no room for it, the other
    // value is asked.
    ExpectNamed({Text(u"PortName", k255)}, Named{u"", u"", 0});
    ExpectNamed({Text(u"PortName", k300)}, {}, STATUS_OBJECT_NAME_NOT_FOUND);
    ExpectNamed({Text(u"PortName", k300), Text(u"Identifier", u"COM7")}, Named{u"COM7", u"COM7", 7});
    // Whatever the type, the bytes are the name; a missing terminator is not missed.
    ExpectNamed({Raw(u"PortName", CmType::Binary, {'C', 0, 'O', 0, 'M', 0, '8', 0})},
                Named{u"COM8", u"COM8", 8});
}

// Settings --------------------------------------------------------------------------------------------------

ULONG FastResumeOf(const host::PnpNodePtr& node)
{
    return GetExtension(host::IopTopOf(node->pdo))->EnableFR;
}

TEST(Setting, OfAnyTypeIsTakenAsItIs)
{
    struct {
        std::vector<Value> values; // of the driver key
        ULONG expected;
    } const rows[] = {
        {{}, 0},
        {{Raw(u"EnableFR", CmType::Dword, {1, 0, 0, 0})}, 1},
        {{Raw(u"EnableFR", CmType::Binary, {0x78, 0x56, 0x34})}, 0x345678},
        {{Raw(u"EnableFR", CmType::Binary, {})}, 0},
        {{Text(u"EnableFR", u"1")}, u'1'},                                         // 31 00 00 00
        {{Raw(u"EnableFR", CmType::Qword, {1, 2, 3, 4, 5, 6, 7, 8})}, 0x04030201}, // cut
        {{Raw(u"EnableFR", CmType::Binary, {1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1})}, 0},
    };
    for (const auto& row : rows) {
        Machine machine;
        const auto node = machine.Arrive({.driver = row.values});
        ASSERT_EQ(Machine::Add(node), STATUS_SUCCESS);
        EXPECT_EQ(FastResumeOf(node), row.expected);
    }
}

TEST(Setting, OfSelectiveSuspendLetsAnIdleModuleSleep)
{
    for (const std::uint32_t setting : {0U, 1U, 0x80000000U}) {
        Rig rig({.settings = {{"EnableSelectiveSuspend", setting}}});
        rig.usb_port->AllowIdle(false); // what follows is the hub's affair
        rig.RunFor(6 * kSecond);
        EXPECT_EQ(rig.usb_port->IdleRequested(), setting != 0) << setting;
    }
}

// Systems before 6.0 have no fast resume.
TEST(Setting, OfFastResumeIsReadFromVersionSixOn)
{
    struct {
        bool has_routine;
        host::OsVersion os;
        bool read;
    } const rows[] = {{true, {10, 0, 19045}, true},  {true, {6, 0, 6002}, true},
                      {true, {5, 2, 3790}, false},   {false, {6, 0, 6000}, true},
                      {false, {10, 0, 19045}, true}, {false, {5, 2, 3790}, false},
                      {false, {5, 255, 9999}, false}};
    for (const auto& row : rows) {
        host::KernelOptions kernel;
        kernel.os = row.os;
        if (!row.has_routine)
            kernel.hidden_routines = {"RtlIsNtDdiVersionAvailable"};
        Machine machine(kernel);
        const auto node = machine.Arrive({.driver = {Raw(u"EnableFR", CmType::Dword, {1, 0, 0, 0})}});
        ASSERT_EQ(Machine::Add(node), STATUS_SUCCESS);
        EXPECT_EQ(FastResumeOf(node), row.read ? 1U : 0U) << row.os.major << "." << row.os.minor;
    }
}

// Failing steps ---------------------------------------------------------------------------------------------

FaultPlan Nth(const char* detail, std::uint64_t nth = 1, NTSTATUS status = STATUS_ACCESS_DENIED,
              std::uint64_t count = 1)
{
    return {.detail = detail, .nth = nth, .count = count, .fault = {.status = status}};
}

void ExpectThatItIsMadeAfterAll(Machine& machine, const host::PnpNodePtr& node, int index)
{
    ASSERT_EQ(Machine::Add(node), STATUS_SUCCESS);
    EXPECT_EQ(Machine::NameOf(node), "\\Device\\quorlex" + std::to_string(index));
    ASSERT_EQ(PnpManager::Current().Start(node), STATUS_SUCCESS);
    EXPECT_EQ(machine.rig.Open().Read(32).Text(), kEmptyFix);
}

// The fault's status comes back, nothing stays, the number is used up, and the next attempt succeeds.
void ExpectNothingLeft(FaultPoint point, const FaultPlan& plan, NTSTATUS status, int next_index = 1)
{
    SCOPED_TRACE(plan.detail);
    Machine machine;
    const auto node = machine.Arrive();
    machine.rig.kernel.Faults().Arm(point, plan);
    EXPECT_EQ(Machine::Add(node), status);
    EXPECT_GE(machine.rig.kernel.Faults().Faults(point), 1U);
    machine.rig.kernel.Faults().DisarmAll();
    EXPECT_EQ(host::IopTopOf(node->pdo), node->pdo); // nothing attached
    EXPECT_TRUE(Machine::Links().empty());
    EXPECT_TRUE(machine.SerialComm().empty());
    ExpectThatItIsMadeAfterAll(machine, node, next_index);
}

TEST(FailedArrival, LeavesNothing)
{
    using enum FaultPoint;
    // The name, for which a number is taken once it has memory.
    ExpectNothingLeft(PoolAllocate, {.detail = "NxDn"}, STATUS_INSUFFICIENT_RESOURCES, 0);
    // The port's name, and the buffers of reader and drain.
    for (const char* tag : {"NxWn", "NxQn", "NxLn", "NxPc", "NxPn", "NxRb", "NxAu", "NxAb"})
        ExpectNothingLeft(PoolAllocate, {.detail = tag}, STATUS_INSUFFICIENT_RESOURCES);
    ExpectNothingLeft(DeviceCreate, Nth(""), STATUS_ACCESS_DENIED);
    // OpenHandles.
    ExpectNothingLeft(RegistryCall, Nth("IoOpenDeviceRegistryKey"), STATUS_ACCESS_DENIED);
    ExpectNothingLeft(RegistryCall, Nth("ZwSetValueKey"), STATUS_ACCESS_DENIED);
    // The port's name.
    ExpectNothingLeft(RegistryCall, Nth("IoOpenDeviceRegistryKey", 2, STATUS_NO_SUCH_DEVICE),
                      STATUS_NO_SUCH_DEVICE);
    ExpectNothingLeft(RegistryCall, Nth("ZwQueryValueKey"), STATUS_OBJECT_NAME_NOT_FOUND);
    ExpectNothingLeft(RegistryCall, Nth("ZwQueryValueKey", 1, STATUS_ACCESS_DENIED, 2), STATUS_ACCESS_DENIED);
    ExpectNothingLeft(SymbolicLink, Nth("IoCreateSymbolicLink"), STATUS_ACCESS_DENIED);
    ExpectNothingLeft(RegistryCall, Nth("RtlWriteRegistryValue"), STATUS_ACCESS_DENIED);
    ExpectNothingLeft(DeviceInterface, Nth("IoRegisterDeviceInterface"), STATUS_ACCESS_DENIED);
}

// A stack that takes nobody on top counts as a lack of memory.
TEST(FailedArrival, OnAStackThatCannotBeAttachedTo)
{
    Machine machine;
    const auto node = machine.Arrive();
    node->pdo->Flags |= DO_DEVICE_INITIALIZING;
    EXPECT_EQ(Machine::Add(node), STATUS_INSUFFICIENT_RESOURCES);
    node->pdo->Flags &= ~DO_DEVICE_INITIALIZING;
    ExpectThatItIsMadeAfterAll(machine, node, 1);
}

// Settings that cannot be read count as 0, and the device is made.
TEST(Setting, ThatCannotBeReadIsZero)
{
    const FaultPlan plans[] = {Nth("IoOpenDeviceRegistryKey", 3, STATUS_ACCESS_DENIED, 2),
                               Nth("ZwQueryValueKey", 2, STATUS_ACCESS_DENIED, 2)};
    for (const FaultPlan& plan : plans) {
        Machine machine;
        const auto node = machine.Arrive({.driver = {Raw(u"EnableFR", CmType::Dword, {1, 0, 0, 0})}});
        machine.rig.kernel.Faults().Arm(FaultPoint::RegistryCall, plan);
        EXPECT_EQ(Machine::Add(node), STATUS_SUCCESS);
        EXPECT_EQ(machine.rig.kernel.Faults().Faults(FaultPoint::RegistryCall), 2U);
        EXPECT_EQ(FastResumeOf(node), 0U);
    }
}

} // namespace
} // namespace navox_test
