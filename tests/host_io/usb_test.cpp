// The USB bus: packets and endpoints.
#include "usb_bench.h"

namespace {

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

TEST_F(Usb, OutTransfersGoInPackets)
{
    bench.Configure();
    for (const char* data : {"123456789", ""})
        EXPECT_EQ(bench.Land(bench.StartOut(data)).status, STATUS_SUCCESS);
    ASSERT_EQ(bench.device->out.size(), 3U);
    EXPECT_EQ(bench.device->out[0].size(), 8U);
    EXPECT_EQ(bench.device->out[1].size(), 1U);
    EXPECT_EQ(bench.device->out[2].size(), 0U) << "a packet of no bytes";
}

TEST_F(Usb, AStallHaltsThePipeUntilItIsReset)
{
    bench.Configure();
    bench.device->stalled[0x81] = true;
    const auto first = bench.StartIn(8);
    const auto behind = bench.StartIn(8);
    EXPECT_EQ(bench.Land(first).usbd, USBD_STATUS_STALL_PID);
    EXPECT_EQ(bench.Land(behind).usbd, USBD_STATUS_ENDPOINT_HALTED);
    EXPECT_EQ(bench.PipeRequest(URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL, bench.bulk_in).status,
              STATUS_SUCCESS);
    bench.device->Send(0x81, "ok");
    EXPECT_EQ(bench.Land(bench.StartIn(8)).length, 2U);
    // Not with a transfer under way.
    const auto waiting = bench.StartIn(8);
    EXPECT_EQ(bench.PipeRequest(URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL, bench.bulk_in).usbd,
              USBD_STATUS_ERROR_BUSY);
    EXPECT_EQ(bench.PipeRequest(URB_FUNCTION_ABORT_PIPE, bench.bulk_in).status, STATUS_SUCCESS);
    EXPECT_EQ(bench.Land(waiting).usbd, USBD_STATUS_CANCELED);
}

} // namespace
