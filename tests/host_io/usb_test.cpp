// The USB bus: URBs, packets, endpoints, what goes wrong, and the pulling of plugs.
#include "usb_bench.h"

namespace {

using host::FaultAction;
using host::Rule;
using host::UsbBus;
using host_test::FakeDevice;
using host_test::UsbBench;

TEST(UsbTables, ADeviceThatDoesNotAnswerIsNotTaken)
{
    class Mute : public FakeDevice {
        module::Packet Control(const module::SetupPacket&, std::span<const std::uint8_t>) override
        {
            return {};
        }
    };
    UsbBench bench;
    EXPECT_EQ(UsbBus::Current().Plug(std::make_shared<Mute>()), nullptr);
}

class Usb : public testing::Test {
  protected:
    UsbBench bench;
};

TEST_F(Usb, DescriptorsComeAsTheDeviceHasThem)
{
    const UsbBench::Sent device = bench.Descriptor(USB_DEVICE_DESCRIPTOR_TYPE, 18);
    EXPECT_EQ(device.status, STATUS_SUCCESS);
    EXPECT_EQ(device.data, FakeDevice::DeviceDescriptor());
    const UsbBench::Sent whole = bench.Descriptor(USB_CONFIGURATION_DESCRIPTOR_TYPE, 255);
    EXPECT_EQ(whole.length, 55U);
    const auto log = UsbBus::Current().Log();
    ASSERT_EQ(log.size(), 2U);
    EXPECT_EQ(log[1].setup.at(0).wValue, 0x200);
    EXPECT_EQ(log[1].length, 255U);
    EXPECT_EQ(log[1].actual, 55U);
}

struct ParseCase {
    LONG number, alternate, interface_class, subclass, protocol;
    int found; // bInterfaceNumber, -1: none
};

TEST(UsbTables, InterfacesAreFoundByWhatTheyAre)
{
    const ParseCase cases[] = {
        {-1, 0, 10, 0, 0, 1},  {-1, 0, 2, 2, 1, 0},  {-1, -1, -1, -1, -1, 0}, {1, -1, -1, -1, -1, 1},
        {-1, 1, 10, 0, 0, -1}, {-1, 0, 2, 2, 2, -1}, {0, 0, 10, 0, 0, -1},
    };
    std::vector<UCHAR> bytes = FakeDevice::ConfigurationDescriptor();
    auto* configuration = reinterpret_cast<PUSB_CONFIGURATION_DESCRIPTOR>(bytes.data());
    for (const ParseCase& item : cases) {
        const auto* found =
            USBD_ParseConfigurationDescriptorEx(configuration, configuration, item.number, item.alternate,
                                                item.interface_class, item.subclass, item.protocol);
        EXPECT_EQ(found == nullptr ? -1 : found->bInterfaceNumber, item.found);
    }
    // A descriptor of no length ends the walk, whatever follows.
    bytes[9] = 0;
    EXPECT_EQ(USBD_ParseConfigurationDescriptorEx(configuration, configuration, -1, -1, -1, -1, -1), nullptr);
}

TEST_F(Usb, TheConfigurationIsSetOnceAndItsInterfacesStayOpen)
{
    std::vector<UCHAR> bytes = FakeDevice::ConfigurationDescriptor();
    auto* configuration = reinterpret_cast<PUSB_CONFIGURATION_DESCRIPTOR>(bytes.data());
    std::vector<USBD_PIPE_INFORMATION> data;
    std::vector<USBD_PIPE_INFORMATION> communications;
    bench.device->control.clear();
    EXPECT_EQ(bench.Select(configuration, 1, &data).status, STATUS_SUCCESS);
    EXPECT_EQ(bench.Select(configuration, 0, &communications).status, STATUS_SUCCESS);
    ASSERT_EQ(bench.device->control.size(), 1U);
    EXPECT_EQ(bench.device->control[0].setup.bRequest, USB_REQUEST_SET_CONFIGURATION);
    EXPECT_EQ(bench.device->control[0].setup.wValue, 1);
    EXPECT_EQ(data[1].EndpointAddress, 0x81);
    EXPECT_EQ(data[1].PipeType, UsbdPipeTypeBulk);
    EXPECT_EQ(data[1].MaximumPacketSize, 8);
    EXPECT_EQ(communications[0].PipeType, UsbdPipeTypeInterrupt);
    // The pipes of the first choice are still good; chosen again, they are new ones.
    bench.bulk_out = data[0].PipeHandle;
    EXPECT_EQ(bench.Land(bench.StartOut("x")).status, STATUS_SUCCESS);
    std::vector<USBD_PIPE_INFORMATION> again;
    EXPECT_EQ(bench.Select(configuration, 1, &again).status, STATUS_SUCCESS);
    EXPECT_EQ(bench.Land(bench.StartOut("x")).usbd, USBD_STATUS_INVALID_PIPE_HANDLE);
    EXPECT_EQ(bench.Broken(), std::vector{Rule::UrbPipeStale});
}

struct InCase {
    std::vector<std::string> packets;
    std::size_t room;
    ULONG flags;
    USBD_STATUS usbd;
    std::string data;
};

TEST(UsbTables, PacketsMakeUpTransfers)
{
    constexpr ULONG kShortOk = USBD_SHORT_TRANSFER_OK;
    const InCase cases[] = {
        {{"12345678", "1234"}, 64, kShortOk, USBD_STATUS_SUCCESS, "123456781234"},
        {{"12345678", ""}, 64, kShortOk, USBD_STATUS_SUCCESS, "12345678"},
        {{""}, 64, kShortOk, USBD_STATUS_SUCCESS, ""},
        {{"12345678", "abcdefgh", "x"}, 16, 0, USBD_STATUS_SUCCESS, "12345678abcdefgh"},
        {{"1234"}, 8, 0, USBD_STATUS_ERROR_SHORT_TRANSFER, "1234"},
        {{"12345678"}, 4, kShortOk, USBD_STATUS_DATA_OVERRUN, ""},
        {{"123456789"}, 64, kShortOk, USBD_STATUS_BABBLE_DETECTED, ""},
    };
    for (const InCase& item : cases) {
        UsbBench bench;
        bench.Configure();
        for (const std::string& packet : item.packets)
            bench.device->Send(0x81, packet);
        const auto flight = bench.StartIn(item.room, item.flags);
        EXPECT_EQ(flight->returned, STATUS_PENDING);
        const UsbBench::Sent sent = bench.Land(flight);
        EXPECT_EQ(sent.usbd, item.usbd);
        EXPECT_EQ(sent.status, item.usbd == USBD_STATUS_SUCCESS ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL);
        EXPECT_EQ(std::string(sent.data.begin(), sent.data.begin() + sent.length), item.data);
        EXPECT_EQ(flight->completed_at, DISPATCH_LEVEL);
    }
}

TEST_F(Usb, ATransferWaitsForTheDevice)
{
    bench.Configure();
    bench.device->SendAt(bench.kernel.Now() + 3 * host::kSecond, 0x81, "late");
    const host::Time before = bench.kernel.InterruptTime();
    const auto first = bench.StartIn(64);
    const auto second = bench.StartIn(64);
    bench.port->Poke();
    EXPECT_EQ(bench.Land(first).length, 4U);
    EXPECT_GE(bench.kernel.InterruptTime() - before, 3 * host::kSecond);
    EXPECT_FALSE(second->Done());
    bench.Tell([](FakeDevice& device) { device.Send(0x81, "next"); });
    EXPECT_EQ(bench.Land(second).length, 4U);
}

TEST_F(Usb, OutTransfersGoInPackets)
{
    bench.Configure();
    bench.device->nak_out = true;
    const auto flight = bench.StartOut("123456789");
    bench.kernel.RunFor(host::kSecond);
    EXPECT_FALSE(flight->Done());
    bench.Tell([](FakeDevice& device) { device.nak_out = false; });
    const UsbBench::Sent sent = bench.Land(flight);
    EXPECT_EQ(sent.status, STATUS_SUCCESS);
    ASSERT_EQ(bench.device->out.size(), 2U);
    EXPECT_EQ(bench.device->out[0].size(), 8U);
    EXPECT_EQ(bench.device->out[1].size(), 1U);
    EXPECT_EQ(bench.Land(bench.StartOut("")).status, STATUS_SUCCESS);
    EXPECT_EQ(bench.device->out.size(), 3U) << "a packet of no bytes";
}

TEST_F(Usb, AStallHaltsThePipeUntilItIsReset)
{
    bench.Configure();
    bench.device->stalled[0x81] = true;
    const auto first = bench.StartIn(8);
    const auto behind = bench.StartIn(8);
    EXPECT_EQ(bench.Land(first).usbd, USBD_STATUS_STALL_PID);
    const UsbBench::Sent sent = bench.Land(behind);
    EXPECT_EQ(sent.usbd, USBD_STATUS_ENDPOINT_HALTED);
    EXPECT_EQ(sent.status, STATUS_UNSUCCESSFUL);
    EXPECT_EQ(bench.PipeRequest(URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL, bench.bulk_in).status,
              STATUS_SUCCESS);
    ASSERT_EQ(bench.device->control.size(), 1U);
    EXPECT_EQ(bench.device->control[0].setup.bRequest, USB_REQUEST_CLEAR_FEATURE);
    EXPECT_EQ(bench.device->control[0].setup.wIndex, 0x81);
    bench.device->Send(0x81, "ok");
    EXPECT_EQ(bench.Land(bench.StartIn(8)).length, 2U);
    // Not with a transfer under way.
    const auto waiting = bench.StartIn(8);
    EXPECT_EQ(bench.PipeRequest(URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL, bench.bulk_in).usbd,
              USBD_STATUS_ERROR_BUSY);
    EXPECT_EQ(bench.PipeRequest(URB_FUNCTION_ABORT_PIPE, bench.bulk_in).status, STATUS_SUCCESS);
    const UsbBench::Sent aborted = bench.Land(waiting);
    EXPECT_EQ(aborted.usbd, USBD_STATUS_CANCELED);
    EXPECT_EQ(aborted.status, STATUS_CANCELLED);
}

TEST_F(Usb, ClassRequestsReachTheDevice)
{
    bench.Configure();
    EXPECT_EQ(bench.ClassRequest(0x02, false, 1, {3, 0}).status, STATUS_SUCCESS);
    const UsbBench::Sent read = bench.ClassRequest(0x03, true, 1, {0, 0});
    EXPECT_EQ(read.data, (std::vector<UCHAR>{0xAA, 0xBB}));
    bench.device->stalls_request = 0x22;
    const UsbBench::Sent stalled = bench.ClassRequest(0x22, false, 3, {});
    EXPECT_EQ(stalled.usbd, USBD_STATUS_STALL_PID);
    EXPECT_EQ(stalled.status, STATUS_UNSUCCESSFUL);
    const auto log = UsbBus::Current().Log();
    ASSERT_EQ(log.size(), 3U);
    EXPECT_EQ(log[0].setup.at(0).bmRequestType, 0x21);
    EXPECT_EQ(log[0].setup.at(0).wLength, 2);
    EXPECT_EQ(log[0].data, (std::vector<std::uint8_t>{3, 0}));
    EXPECT_EQ(log[1].setup.at(0).bmRequestType, 0xA1);
    EXPECT_EQ(log[2].usbd_status, USBD_STATUS_STALL_PID);
    EXPECT_EQ(bench.device->control.at(0).out, (host_test::Octets{3, 0}));
    // A stall of the control pipe is over with the request.
    EXPECT_EQ(bench.ClassRequest(0x02, false, 1, {3, 0}).status, STATUS_SUCCESS);
    bench.device->babble_control = true;
    EXPECT_EQ(bench.ClassRequest(0x03, true, 1, {0, 0}).usbd, USBD_STATUS_DATA_OVERRUN);
}

TEST(UsbTables, CancelRacingDataEndsTheTransferOnce)
{
    for (std::uint64_t seed = 1; seed <= 150; ++seed) {
        host::KernelOptions options = UsbBench::Recording();
        options.strategy = host::StrategyKind::Random;
        options.seed = seed;
        UsbBench bench(options);
        bench.Configure();
        const auto flight = bench.StartIn(8);
        host::ThreadHandle canceller = bench.kernel.Spawn("canceller", [&] { IoCancelIrp(flight->irp); });
        bench.Tell([](FakeDevice& device) { device.Send(0x81, "now"); });
        canceller.Join();
        const UsbBench::Sent sent = bench.Land(flight);
        EXPECT_TRUE(sent.status == STATUS_SUCCESS || sent.status == STATUS_CANCELLED);
        EXPECT_EQ(sent.usbd, sent.status == STATUS_SUCCESS ? USBD_STATUS_SUCCESS : USBD_STATUS_CANCELED);
        EXPECT_EQ(flight->completed_at, DISPATCH_LEVEL);
        EXPECT_TRUE(bench.Broken().empty()) << "seed " << seed;
    }
}

using FaultCase = std::tuple<FaultAction, NTSTATUS>;

TEST(UsbTables, TheNthRequestCanBeMadeToFail)
{
    const FaultCase cases[] = {
        {FaultAction::Fail, STATUS_IO_DEVICE_ERROR},
        {FaultAction::Delay, STATUS_SUCCESS},
        {FaultAction::Hang, STATUS_CANCELLED},
    };
    for (const auto& [action, status] : cases) {
        UsbBench bench;
        bench.Configure();
        bench.kernel.Faults().Arm(host::FaultPoint::BusRequest,
                                  {.detail = "BULK_OR_INTERRUPT_TRANSFER",
                                   .nth = 2,
                                   .fault = {action, STATUS_IO_DEVICE_ERROR, 2 * host::kSecond}});
        for (int i = 0; i < 2; ++i)
            bench.device->Send(0x81, "data");
        EXPECT_EQ(bench.Land(bench.StartIn(8)).status, STATUS_SUCCESS);
        const auto flight = bench.StartIn(8);
        bench.kernel.RunFor(host::kSecond);
        EXPECT_EQ(flight->Done(), action == FaultAction::Fail);
        bench.kernel.RunFor(2 * host::kSecond);
        EXPECT_EQ(flight->Done(), action != FaultAction::Hang);
        if (!flight->Done())
            EXPECT_TRUE(IoCancelIrp(flight->irp));
        EXPECT_EQ(bench.Land(flight).status, status);
    }
}

TEST_F(Usb, PullingThePlugFailsWhatIsUnderWay)
{
    bench.Configure();
    const auto flight = bench.StartIn(8);
    bench.script.seen.clear();
    bench.Tell([](FakeDevice& device) { device.present = false; });
    const UsbBench::Sent sent = bench.Land(flight);
    EXPECT_EQ(sent.status, STATUS_DEVICE_NOT_CONNECTED);
    EXPECT_EQ(sent.usbd, USBD_STATUS_DEVICE_GONE);
    bench.kernel.RunUntilIdle();
    host::PnpManager::Current().Settle();
    EXPECT_EQ(bench.script.seen, (std::vector<std::string>{"IRP_MJ_PNP/IRP_MN_SURPRISE_REMOVAL",
                                                           "IRP_MJ_PNP/IRP_MN_REMOVE_DEVICE"}));
    EXPECT_EQ(bench.Node(), nullptr);
    EXPECT_TRUE(UsbBus::Current().Ports().empty());
}

} // namespace
