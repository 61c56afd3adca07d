// The start of the device: descriptors, configuration, pipes, and the URBs that the bus is given.
#include "lifecycle.h"

#include <algorithm>

namespace navox_test {
namespace {

using host::FaultPoint;
using host::PnpManager;
using module::Lie;
using Strings = std::vector<std::string>;

RigOptions ByHand(RigOptions options = {})
{
    options.plug = false;
    return options;
}

// A module that has arrived and has its driver, but is not started.
struct Arrived {
    explicit Arrived(RigOptions options = {}) : rig(ByHand(std::move(options)))
    {
        PnpManager::Current().SetAutomatic(false);
        rig.Plug();
        EXPECT_EQ(PnpManager::Current().AddDevice(rig.Node()), STATUS_SUCCESS);
        rig.TakeBusLog();
    }
    NTSTATUS Start() { return PnpManager::Current().Start(rig.Node()); }

    Rig rig;
};

const Strings kReads(3, "GET_DESCRIPTOR_FROM_DEVICE");
const Strings kSelections(2, "SELECT_CONFIGURATION");

TEST(Start, ReadsThreeDescriptorsAndSelectsTwice)
{
    Arrived arrived;
    ASSERT_EQ(arrived.Start(), STATUS_SUCCESS);
    const auto log = host::UsbBus::Current().Log();
    EXPECT_EQ(arrived.rig.TakeBusLog(), kReads + kSelections);
    const std::uint16_t total = log[2].setup.at(0).wLength;
    struct {
        std::uint16_t wValue, wLength;
    } const reads[] = {{0x0100, 18}, {0x0200, 9}, {0x0200, total}};
    for (std::size_t i = 0; i < 3; ++i) {
        const module::SetupPacket& setup = log[i].setup.at(0);
        EXPECT_EQ(setup.bmRequestType, 0x80) << i;
        EXPECT_EQ(setup.bRequest, 6) << i;
        EXPECT_EQ(setup.wValue, reads[i].wValue) << i;
        EXPECT_EQ(setup.wIndex, 0) << i;
        EXPECT_EQ(setup.wLength, reads[i].wLength) << i;
    }
    EXPECT_EQ(log[1].data.at(2) | log[1].data.at(3) << 8, total);
    EXPECT_EQ(arrived.rig.module->Look().configuration, 1);
    EXPECT_TRUE(std::ranges::all_of(log, [](const host::UsbRequest& request) { return request.done; }));
}

// Descriptors ------------------------------------------------------------------------------------------------

// The start fails with the status, after so many selections that the bus sees, or the port works.
void ExpectSeenThrough(Lie lie, NTSTATUS status, std::ptrdiff_t selections)
{
    SCOPED_TRACE(module::Name(lie));
    Arrived arrived({.module = {.faults = {.lie = lie}}});
    EXPECT_EQ(arrived.Start(), status);
    EXPECT_EQ(std::ranges::count(arrived.rig.TakeBusLog(), kSelections[0]), selections);
    Port port;
    if (NT_SUCCESS(status)) {
        EXPECT_EQ(arrived.rig.OpenStreaming().Read(32).Text(), kEmptyFix);
    } else {
        EXPECT_EQ(arrived.rig.TryOpen(&port), STATUS_INSUFFICIENT_RESOURCES);
        EXPECT_TRUE(host::nt::Interfaces(GUID_DEVINTERFACE_COMPORT).empty());
    }
}

TEST(Lie, IsSeenThrough)
{
    using enum Lie;
    for (const Lie lie : {None, TotalLengthTooLong})
        ExpectSeenThrough(lie, STATUS_SUCCESS, 2);
    // A missing interface counts as a lack of memory.
    for (const Lie lie : {TotalLengthTooShort, TotalLengthTiny, TotalLengthZero, ConfigurationTruncated,
                          ZeroLengthDescriptor, NoDataInterface, NoInterfaces})
        ExpectSeenThrough(lie, STATUS_INSUFFICIENT_RESOURCES, 0);
    ExpectSeenThrough(NoCommInterface, STATUS_INSUFFICIENT_RESOURCES, 1);
    // The number of an interface's pipes is checked before its selection, their kind after it. An overlong
    // descriptor takes the last endpoint with it.
    for (const Lie lie : {OverlongDescriptor, DataInAlternateOnly, ExtraDataEndpoint, MissingDataEndpoint})
        ExpectSeenThrough(lie, STATUS_DEVICE_CONFIGURATION_ERROR, 0);
    for (const Lie lie :
         {TwoBulkIn, TwoBulkOut, BulkIsInterrupt, BulkIsIsochronous, ExtraCommEndpoint, MissingCommEndpoint})
        ExpectSeenThrough(lie, STATUS_DEVICE_CONFIGURATION_ERROR, 1);
    for (const Lie lie : {InterruptIsBulk, InterruptIsOut})
        ExpectSeenThrough(lie, STATUS_DEVICE_CONFIGURATION_ERROR, 2);
}

// Endpoints that are not there cannot be used, however many are promised. The bus has the last word.
TEST(Lie, AboutTheNumberOfEndpointsFailsTheStart)
{
    Arrived arrived({.module = {.faults = {.lie = Lie::EndpointCountTooHigh}}});
    EXPECT_FALSE(NT_SUCCESS(arrived.Start()));
}

// A pipe without room for a byte brings one empty answer after the other, until the module is pulled.
TEST(Lie, AboutThePacketSizeLeavesAPortWithoutAStream)
{
    Arrived arrived({.module = {.faults = {.lie = Lie::ZeroMaxPacket}}});
    ASSERT_EQ(arrived.Start(), STATUS_SUCCESS);
    arrived.rig.kernel.Faults().Arm(
        FaultPoint::BusRequest,
        {.count = UINT64_MAX, .fault = {.action = host::FaultAction::Delay, .delay = 10 * kMillisecond}});
    const Port port = arrived.rig.Open();
    arrived.rig.RunFor(3 * kSecond);
    EXPECT_EQ(port.InQueue(), kEmptyFix.size());
    arrived.rig.Unplug();
    arrived.rig.TakeBusLog();
    arrived.rig.RunFor(3 * kSecond);
    EXPECT_TRUE(arrived.rig.TakeBusLog().empty());
}

// Pipes ------------------------------------------------------------------------------------------------------

// Whatever the module's numbers and the order of its endpoints, the three pipes are found and used.
void ExpectPipesUsed(const module::FunctionOptions& function)
{
    Rig rig({.module = {.function = function}});
    const DEVICE_EXTENSION& inside = Inside(rig);
    EXPECT_EQ(inside.BulkInPipe.EndpointAddress, function.bulk_in);
    EXPECT_EQ(inside.BulkOutPipe.EndpointAddress, function.bulk_out);
    EXPECT_EQ(inside.InterruptPipe.EndpointAddress, function.interrupt_in);
    EXPECT_EQ(inside.BulkInPipe.MaximumPacketSize, module::BulkPacketSize(function.speed));
    EXPECT_EQ(inside.InterruptPipe.MaximumPacketSize, module::kInterruptPacketSize);
    EXPECT_EQ(inside.CommunicationInterface.InterfaceNumber, function.comm_interface);
    EXPECT_EQ(inside.DataInterface.InterfaceNumber, function.data_interface);
    EXPECT_EQ(inside.RemoteWakeupCapable, function.remote_wakeup ? TRUE : FALSE);

    const Port port = rig.OpenStreaming();
    rig.RunFor(3 * kSecond);
    EXPECT_GT(port.InQueue(), 32U);
    for (const host::UsbRequest& request : host::UsbBus::Current().Log()) {
        const bool bulk = request.function == URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER;
        if (bulk && request.endpoint == function.bulk_in && request.length != kReadBufferSize) {
            EXPECT_EQ(request.length, module::BulkPacketSize(function.speed)); // an answer: one packet
        }
    }
}

TEST(Pipes, AreUsedAsTheyDescribeThemselves)
{
    ExpectPipesUsed({});
    ExpectPipesUsed({.bulk_out_first = true});
    ExpectPipesUsed({.speed = module::Speed::Full});
    ExpectPipesUsed({.speed = module::Speed::Full, .remote_wakeup = false, .bulk_out_first = true});
    ExpectPipesUsed(
        {.comm_interface = 7, .data_interface = 3, .interrupt_in = 0x8F, .bulk_in = 0x81, .bulk_out = 0x0E});
}

// URBs -------------------------------------------------------------------------------------------------------

// A machine whose bus is overheard, from the start on.
struct Overheard : Machine {
    Overheard(LowerFilter::UrbHook hook, RigOptions options = {}) : Machine(ByHand(std::move(options)))
    {
        filter.SetUrbHook(std::move(hook));
        rig.Plug();
    }
};

bool IsTransferOf(const URB& urb, ULONG length)
{
    return urb.UrbHeader.Function == URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER &&
           urb.UrbBulkOrInterruptTransfer.TransferBufferLength == length;
}

NTSTATUS Give(URB& urb, std::string_view data)
{
    std::memcpy(urb.UrbBulkOrInterruptTransfer.TransferBuffer, data.data(), data.size());
    urb.UrbBulkOrInterruptTransfer.TransferBufferLength = static_cast<ULONG>(data.size());
    return STATUS_SUCCESS;
}

// From the start to the last close. Their lengths are looked at by the bus.
TEST(Urbs, HaveTheFieldsOfTheirKind)
{
    std::map<USHORT, int> seen;
    Overheard machine([&](URB& urb) -> std::optional<NTSTATUS> {
        ++seen[urb.UrbHeader.Function];
        const auto& request = urb.UrbControlVendorClassRequest;
        const auto& interface = urb.UrbSelectConfiguration.Interface;
        switch (urb.UrbHeader.Function) {
        case URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER:
            EXPECT_EQ(urb.UrbBulkOrInterruptTransfer.TransferFlags, 2U);
            break;
        case URB_FUNCTION_CLASS_INTERFACE:
            EXPECT_EQ(request.TransferFlags, request.Request == 3 ? 3U : 2U); // it alone brings data in
            EXPECT_NE(request.TransferBuffer, nullptr);                       // also where none go out
            break;
        case URB_FUNCTION_SELECT_CONFIGURATION:
            for (ULONG i = 0; i < interface.NumberOfPipes; ++i)
                EXPECT_EQ(interface.Pipes[i].MaximumTransferSize, 0xFFFFFFFFU) << i;
            break;
        default: break;
        }
        return {};
    });
    machine.rig.OpenStreaming().Close();
    EXPECT_EQ(seen.size(), 5U); // the three above, descriptors, and resets
}

// A bus driver may complete what it is given before it returns.
TEST(Urbs, MayBeAnsweredAtOnce)
{
    RigOptions options;
    options.source = nullptr;
    options.module.ignores_idle = true;
    int transfers = 0;
    Overheard machine(
        [&](URB& urb) -> std::optional<NTSTATUS> {
            if (urb.UrbHeader.Function == URB_FUNCTION_CLASS_INTERFACE)
                return STATUS_SUCCESS;
            if (!IsTransferOf(urb, kReadBufferSize) || ++transfers > 3)
                return {};
            return Give(urb, "inline");
        },
        std::move(options));
    EXPECT_EQ(machine.rig.Open().Read(50).Text(), std::string(kEmptyFix) + "inlineinlineinline");
}

// What the bus reports as damaged is thrown away although the request has succeeded, and the next transfer follows.
TEST(Urbs, ThatSucceedWithDamagedDataAreThrownAway)
{
    RigOptions options;
    options.source = nullptr;
    int transfers = 0;
    Overheard machine(
        [&](URB& urb) -> std::optional<NTSTATUS> {
            if (!IsTransferOf(urb, kReadBufferSize) || ++transfers > 2)
                return {};
            urb.UrbHeader.Status = transfers == 1 ? USBD_STATUS_CRC : USBD_STATUS_SUCCESS;
            return Give(urb, "good");
        },
        std::move(options));
    const Port port = machine.rig.Open();
    EXPECT_EQ(port.Read(36).Text(), std::string(kEmptyFix) + "good");
    machine.rig.RunFor(5 * kSecond);
    EXPECT_EQ(port.InQueue(), 0U);
    EXPECT_EQ(transfers, 3);
}

// A bus that claims to have brought more than there was room for is not believed.
TEST(Urbs, ThatClaimTooMuchAreCut)
{
    int transfers = 0;
    Overheard machine([&](URB& urb) -> std::optional<NTSTATUS> {
        if ((!IsTransferOf(urb, 512) && !IsTransferOf(urb, kReadBufferSize)) || ++transfers > 2)
            return {};
        auto& transfer = urb.UrbBulkOrInterruptTransfer;
        std::memset(transfer.TransferBuffer, '$', transfer.TransferBufferLength);
        transfer.TransferBufferLength = 0x7FFFFFFF;
        return STATUS_SUCCESS;
    });
    const Port port = machine.rig.OpenStreaming();
    machine.rig.RunFor(5 * kSecond);
    EXPECT_GT(port.InQueue(), 32U);
    EXPECT_GT(transfers, 2);
}

} // namespace
} // namespace navox_test
