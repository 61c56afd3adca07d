// Plug and Play: what a stack is sent, in which order, and what becomes of it.
#include "usb_bench.h"

#include "cm/text.h"
#include "io/device_interfaces.h"
#include "io/names.h"

#include <initguid.h>

namespace {

using host::PnpManager;
using host::PnpState;
using host::UsbBus;
using host_test::Complete;
using host_test::UsbBench;

// 4d36e978 is not an interface class of anybody.
constexpr GUID kClass = {0x11111111, 0x2222, 0x3333, {1, 2, 3, 4, 5, 6, 7, 8}};

std::vector<std::string> Minors(std::initializer_list<UCHAR> minors)
{
    std::vector<std::string> names;
    for (const UCHAR minor : minors)
        names.push_back(host::IopRequestName(IRP_MJ_PNP, minor));
    return names;
}

class Pnp : public testing::Test {
  protected:
    UsbBench bench;
};

TEST_F(Pnp, AStartedDeviceIsAskedInTheSystemsOrder)
{
    EXPECT_EQ(bench.script.seen,
              Minors({IRP_MN_FILTER_RESOURCE_REQUIREMENTS, IRP_MN_START_DEVICE, IRP_MN_QUERY_CAPABILITIES,
                      IRP_MN_QUERY_PNP_DEVICE_STATE, IRP_MN_QUERY_DEVICE_RELATIONS}));
    EXPECT_EQ(bench.Node()->capabilities.DeviceState[PowerSystemWorking], PowerDeviceD0);
}

struct StepCase {
    const char* name;
    std::vector<NTSTATUS (PnpManager::*)(const host::PnpNodePtr&)> steps;
    std::vector<std::string> seen;
    PnpState state = PnpState::Started;
};

TEST(PnpTables, RequestsMoveTheDeviceThroughItsStates)
{
    const auto stop_and_start =
        Minors({IRP_MN_QUERY_STOP_DEVICE, IRP_MN_STOP_DEVICE, IRP_MN_START_DEVICE, IRP_MN_QUERY_CAPABILITIES,
                IRP_MN_QUERY_PNP_DEVICE_STATE, IRP_MN_QUERY_DEVICE_RELATIONS});
    const StepCase cases[] = {
        {"stop and restart", {&PnpManager::QueryStop, &PnpManager::Stop, &PnpManager::Start}, stop_and_start},
        {"rebalanced", {&PnpManager::Rebalance}, stop_and_start},
        {"stop called off",
         {&PnpManager::QueryStop, &PnpManager::CancelStop},
         Minors({IRP_MN_QUERY_STOP_DEVICE, IRP_MN_CANCEL_STOP_DEVICE})},
        {"removal called off",
         {&PnpManager::QueryRemove, &PnpManager::CancelRemove},
         Minors({IRP_MN_QUERY_REMOVE_DEVICE, IRP_MN_CANCEL_REMOVE_DEVICE})},
        {"disabled and enabled",
         {&PnpManager::Disable, &PnpManager::Enable},
         Minors({IRP_MN_QUERY_REMOVE_DEVICE, IRP_MN_REMOVE_DEVICE, IRP_MN_FILTER_RESOURCE_REQUIREMENTS,
                 IRP_MN_START_DEVICE, IRP_MN_QUERY_CAPABILITIES, IRP_MN_QUERY_PNP_DEVICE_STATE,
                 IRP_MN_QUERY_DEVICE_RELATIONS})},
        {"disabled",
         {&PnpManager::Disable},
         Minors({IRP_MN_QUERY_REMOVE_DEVICE, IRP_MN_REMOVE_DEVICE}),
         PnpState::Reported},
    };
    for (const StepCase& item : cases) {
        SCOPED_TRACE(item.name);
        UsbBench bench;
        const host::PnpNodePtr node = bench.Node();
        bench.script.seen.clear();
        for (const auto step : item.steps)
            EXPECT_EQ((PnpManager::Current().*step)(node), STATUS_SUCCESS);
        EXPECT_EQ(node->state, item.state) << host::PnpStateName(node->state);
        EXPECT_EQ(bench.script.seen, item.seen);
    }
}

TEST_F(Pnp, RequestsComeOneAtATimeFromOneThreadAtPassiveLevel)
{
    int inside = 0;
    bench.OnRequest(IRP_MJ_PNP, [&](PDEVICE_OBJECT device, PIRP irp) {
        EXPECT_EQ(host::ActorName(), "PnP");
        EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
        EXPECT_EQ(++inside, 1);
        bench.kernel.RunFor(host::kMillisecond);
        --inside;
        return host_test::PassDown(device, irp);
    });
    const host::PnpNodePtr node = bench.Node();
    auto ask = [&] {
        DEVICE_CAPABILITIES capabilities{};
        EXPECT_EQ(PnpManager::Current().QueryCapabilities(node, &capabilities), STATUS_SUCCESS);
    };
    host::ThreadHandle one = bench.kernel.Spawn("one", ask);
    host::ThreadHandle two = bench.kernel.Spawn("two", ask);
    one.Join();
    two.Join();
    bench.OnRequest(IRP_MJ_PNP, nullptr);
}

TEST_F(Pnp, ARefusedQueryIsCalledOff)
{
    bench.OnRequest(IRP_MJ_PNP, [&](PDEVICE_OBJECT device, PIRP irp) {
        const UCHAR minor = IoGetCurrentIrpStackLocation(irp)->MinorFunction;
        if (minor == IRP_MN_QUERY_STOP_DEVICE || minor == IRP_MN_QUERY_REMOVE_DEVICE)
            return Complete(irp, STATUS_DEVICE_BUSY);
        return host_test::PassDown(device, irp);
    });
    bench.script.seen.clear();
    EXPECT_EQ(PnpManager::Current().Rebalance(bench.Node()), STATUS_DEVICE_BUSY);
    EXPECT_EQ(PnpManager::Current().Disable(bench.Node()), STATUS_DEVICE_BUSY);
    EXPECT_EQ(bench.Node()->state, PnpState::Started);
    EXPECT_EQ(bench.script.seen, Minors({IRP_MN_QUERY_STOP_DEVICE, IRP_MN_CANCEL_STOP_DEVICE,
                                         IRP_MN_QUERY_REMOVE_DEVICE, IRP_MN_CANCEL_REMOVE_DEVICE}));
    bench.OnRequest(IRP_MJ_PNP, nullptr);
}

TEST_F(Pnp, ARestartThatFailsTakesTheDeviceAway)
{
    PnpManager& pnp = PnpManager::Current();
    const host::PnpNodePtr node = bench.Node();
    EXPECT_EQ(pnp.QueryStop(node), STATUS_SUCCESS);
    EXPECT_EQ(pnp.Stop(node), STATUS_SUCCESS);
    bench.kernel.Faults().Arm(host::FaultPoint::LowerDriver,
                              {.detail = "IRP_MJ_PNP", .fault = {.status = STATUS_UNSUCCESSFUL}});
    bench.script.seen.clear();
    EXPECT_EQ(pnp.Start(node), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(bench.script.seen,
              Minors({IRP_MN_START_DEVICE, IRP_MN_SURPRISE_REMOVAL, IRP_MN_REMOVE_DEVICE}));
    EXPECT_EQ(node->state, PnpState::Reported);
}

TEST_F(Pnp, DevicesHaveKeys)
{
    const host::PnpNodePtr node = bench.Node();
    EXPECT_EQ(host::ToUtf8(node->HardwareKey()), "\\Registry\\Machine\\System\\CurrentControlSet\\Enum\\"
                                                 "USB\\VID_1234&PID_5678\\6&1\\Device Parameters");
    EXPECT_EQ(node->driver_number, "0000");
    HANDLE key = nullptr;
    EXPECT_EQ(IoOpenDeviceRegistryKey(bench.script.device, PLUGPLAY_REGKEY_DEVICE, 0, &key),
              STATUS_INVALID_DEVICE_REQUEST)
        << "only the bus's device has keys";
    // The same device gets the same driver key again, another one the next.
    auto second = std::make_shared<host_test::FakeDevice>();
    const host::UsbPortPtr other = UsbBench::Plug(second, {.instance_id = "6&2"});
    EXPECT_EQ(PnpManager::Current().NodeOf(other->DeviceObject())->driver_number, "0001");
    UsbBench::Unplug(bench.port);
    bench.port = UsbBench::Plug(bench.device);
    EXPECT_EQ(PnpManager::Current().NodeOf(bench.port->DeviceObject())->driver_number, "0000");
    UsbBus::Current().Unplug(other);
}

TEST_F(Pnp, InterfacesAppearAndDisappear)
{
    UNICODE_STRING name{};
    PDEVICE_OBJECT pdo = bench.Node()->pdo;
    EXPECT_EQ(IoRegisterDeviceInterface(bench.script.device, &kClass, nullptr, &name),
              STATUS_INVALID_DEVICE_REQUEST)
        << "only the bus's device has interfaces";
    ASSERT_EQ(IoRegisterDeviceInterface(pdo, &kClass, nullptr, &name), STATUS_SUCCESS);
    const std::string path = "\\\\?\\USB#VID_1234&PID_5678#6&1#{11111111-2222-3333-0102-030405060708}";
    EXPECT_EQ(IoSetDeviceInterfaceState(&name, FALSE), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(IoSetDeviceInterfaceState(&name, TRUE), STATUS_SUCCESS);
    EXPECT_EQ(IoSetDeviceInterfaceState(&name, TRUE), STATUS_OBJECT_NAME_EXISTS);
    EXPECT_EQ(host::nt::Interfaces(kClass), std::vector{path});
    bench.OnRequest(IRP_MJ_CREATE, [](PDEVICE_OBJECT, PIRP irp) { return Complete(irp, STATUS_SUCCESS); });
    host::nt::File file;
    EXPECT_EQ(host::nt::File::Open(path, &file), STATUS_SUCCESS);
    file.Close();
    // What a driver leaves enabled goes with its device.
    EXPECT_EQ(PnpManager::Current().Disable(bench.Node()), STATUS_SUCCESS);
    EXPECT_TRUE(host::nt::Interfaces(kClass).empty());
    EXPECT_EQ(host::nt::File::Open(path, &file), STATUS_OBJECT_NAME_NOT_FOUND);
    RtlFreeUnicodeString(&name);
}

} // namespace
