// Opening and closing the port: who is counted, what the module is told, and who is refused.
#include "rig.h"

#include "include/navox/gps_ioctl.h"

#include <algorithm>

namespace navox_test {
namespace {

using host::FaultAction;
using host::FaultPoint;
using host::PnpManager;
using module::PacketFault;
using module::Pipe;
using Strings = std::vector<std::string>;

const Strings kSetup = {"CLEAR_COMM_FEATURE",       "GET_COMM_FEATURE",    "SET_COMM_FEATURE(3)",
                        "GET_COMM_FEATURE",         "SET_COMM_FEATURE(2)", "reset 82",
                        "SET_CONTROL_LINE_STATE(3)"};
const Strings kRelease = {"SET_CONTROL_LINE_STATE(2)", "SET_CONTROL_LINE_STATE(0)", "SET_COMM_FEATURE(3)"};
const Strings kExchange = {"reset 02", "reset 82", "out 02 AT*Q7GPSNPD\r\n", "in 82", "in 82"};

Strings First(const Strings& log, std::size_t count)
{
    return {log.begin(), log.begin() + static_cast<std::ptrdiff_t>(std::min(count, log.size()))};
}

// Every value that OpenHandles was given since the last call.
std::vector<std::uint32_t> TakeCounts(Rig& rig)
{
    std::vector<std::uint32_t> counts;
    for (const host::CmWrite& write : rig.Registry().Writes())
        if (write.name == u"OpenHandles")
            counts.push_back(write.Dword().value_or(~0U));
    rig.Registry().ClearWrites();
    return counts;
}

ULONG ApplicationCount(const Port& port)
{
    return port.Get<ULONG>(IOCTL_GPS_GET_APPLICATION_COUNT);
}

// As one word in the hardware key.
TEST(OpenHandles, FollowsEveryOpenAndClose)
{
    Rig rig;
    EXPECT_EQ(TakeCounts(rig), (std::vector<std::uint32_t>{0})); // at the arrival
    Port one = rig.Open();
    Port two = rig.Open();
    Port three = rig.Open();
    EXPECT_EQ(ApplicationCount(two), 3U);
    host::nt::File again = two.Duplicate(); // of one open
    two.Close();
    EXPECT_EQ(ApplicationCount(one), 3U);
    again.Close();
    EXPECT_EQ(ApplicationCount(one), 2U);
    one.Close();
    three.Close();
    for (const host::CmWrite& write : rig.Registry().Writes()) {
        EXPECT_EQ(write.kind, host::CmWrite::Kind::SetValue);
        EXPECT_EQ(write.key, rig.Node()->HardwareKey());
        EXPECT_EQ(write.type, static_cast<std::uint32_t>(host::CmType::Dword));
    }
    EXPECT_EQ(TakeCounts(rig), (std::vector<std::uint32_t>{1, 2, 3, 2, 1, 0}));
}

// A registry that refuses the count refuses neither open nor close.
TEST(OpenHandles, IsNoConditionOfAnOpen)
{
    for (const char* routine : {"IoOpenDeviceRegistryKey", "ZwSetValueKey"}) {
        Rig rig;
        rig.kernel.Faults().Arm(FaultPoint::RegistryCall, {.detail = routine, .count = 2});
        rig.Open().Close();
        EXPECT_EQ(rig.kernel.Faults().Faults(FaultPoint::RegistryCall), 2U);
        EXPECT_EQ(rig.OpenHandles(), 0U);
        const Port port = rig.Open();
        EXPECT_EQ(rig.OpenHandles(), 1U);
    }
}

// The bus sees one set-up, one exchange and one release, whoever comes and goes between.
TEST(Line, IsConditionedByTheFirstOpenAndReleasedByTheLastClose)
{
    RigOptions options;
    options.source = nullptr;
    options.module.function.comm_interface = 4;
    options.module.function.data_interface = 5;
    Rig rig(options);
    rig.TakeBusLog();

    Port first = rig.Open();
    for (const host::UsbRequest& request : host::UsbBus::Current().Log())
        for (const module::SetupPacket& setup : request.setup)
            if (request.function == URB_FUNCTION_CLASS_INTERFACE) {
                EXPECT_EQ(setup.wIndex, 4) << request.number;
                EXPECT_EQ(setup.bmRequestType & 0x7F, 0x21) << request.number;
                EXPECT_EQ(setup.wValue, setup.bRequest == 0x22 ? 3 : 1) << request.number;
            }
    EXPECT_EQ(rig.TakeBusLog(), kSetup);
    EXPECT_TRUE(rig.module->Look().dtr && rig.module->Look().rts);
    EXPECT_EQ(rig.module->Look().abstract_state, 2);

    Port second = rig.Open();
    rig.RunFor(1'490 * kMillisecond);
    EXPECT_EQ(rig.TakeBusLog(), Strings{});
    rig.RunFor(30 * kMillisecond); // 1.5 s after the first open, at the next tick of the clock
    EXPECT_EQ(rig.TakeBusLog(), kExchange + Strings{"in 82"});

    first.Close();
    EXPECT_EQ(rig.TakeBusLog(), Strings{});
    second.Close();
    EXPECT_EQ(rig.TakeBusLog(), kRelease);
    EXPECT_FALSE(rig.module->Look().dtr || rig.module->Look().rts);
    EXPECT_EQ(rig.module->Look().abstract_state, 3);
    rig.RunFor(10 * kSecond);
    EXPECT_EQ(rig.TakeBusLog(), Strings{});
}

// Set-up by the open, then by the reader, because the close has asked for it.
TEST(Line, IsConditionedTwiceWhenThePortIsOpenedAgain)
{
    Rig rig;
    rig.OpenStreaming().Close();
    rig.TakeBusLog();
    const Port port = rig.OpenStreaming();
    EXPECT_EQ(First(rig.TakeBusLog(), 19), kSetup + kSetup + kExchange);
    EXPECT_EQ(port.Read(32).Text(), kEmptyFix); // and nothing older
}

TEST(Line, OfAVisitorWhoLeavesBeforeTheReaderStartsIsLeftAlone)
{
    Rig rig;
    rig.TakeBusLog();
    rig.Open().Close();
    EXPECT_EQ(rig.TakeBusLog(), kSetup + kRelease);
    rig.RunFor(5 * kSecond);
    EXPECT_EQ(rig.TakeBusLog(), Strings{});
}

// The nth request of this kind stalls, as the `seen`th one of the set-up or of the release.
struct Obstacle {
    std::uint8_t bRequest;
    unsigned nth;
    std::size_t seen;

    RigOptions Options() const
    {
        RigOptions options;
        options.module.faults.packets = {
            {.kind = PacketFault::Kind::Stall, .pipe = Pipe::Control, .bRequest = bRequest, .nth = nth}};
        return options;
    }
};

// The open succeeds all the same, what comes after the failing request is not sent, and the reader begins with
// the whole set-up.
TEST(Line, ThatIsNotConditionedByTheOpenIsConditionedByTheReader)
{
    for (const Obstacle& o : std::initializer_list<Obstacle>{
             {0x04, 1, 1}, {0x03, 1, 2}, {0x02, 1, 3}, {0x03, 2, 4}, {0x02, 2, 5}, {0x22, 1, 7}}) {
        SCOPED_TRACE(o.seen);
        Rig rig(o.Options());
        rig.TakeBusLog();
        const Port port = rig.Open();
        EXPECT_EQ(rig.TakeBusLog(), First(kSetup, o.seen));
        EXPECT_TRUE(rig.kernel.RunUntil([&] { return rig.module->Look().nmea_flowing; }, 2 * kSecond));
        EXPECT_EQ(First(rig.TakeBusLog(), 12), kSetup + kExchange);
    }
}

TEST(Line, IsConditionedAlthoughThePipeIsNotReset)
{
    Rig rig;
    rig.TakeBusLog();
    rig.kernel.Faults().Arm(FaultPoint::BusRequest,
                            {.detail = "SYNC_RESET_PIPE_AND_CLEAR_STALL", .count = 3});
    const Port port = rig.OpenStreaming();
    EXPECT_EQ(rig.kernel.Faults().Faults(FaultPoint::BusRequest), 3U);
    EXPECT_EQ(First(rig.TakeBusLog(), 12), kSetup + kExchange);
}

TEST(Line, ThatIsNotReleasedDoesNotHoldUpTheClose)
{
    for (const Obstacle& o : std::initializer_list<Obstacle>{{0x22, 2, 1}, {0x22, 3, 2}, {0x02, 3, 3}}) {
        SCOPED_TRACE(o.seen);
        Rig rig(o.Options());
        Port port = rig.OpenStreaming();
        rig.TakeBusLog();
        port.Close();
        EXPECT_EQ(rig.TakeBusLog(), First(kRelease, o.seen));
        EXPECT_EQ(rig.OpenHandles(), 0U);
        EXPECT_EQ(rig.OpenStreaming().Read(32).Text(), kEmptyFix);
    }
}

// A module that thinks about it holds up the application that opened first, and nobody else.
TEST(Line, OfASlowModuleHoldsUpTheFirstOpenOnly)
{
    Rig rig;
    rig.kernel.Faults().Arm(
        FaultPoint::BusRequest,
        {.detail = "CLASS_INTERFACE", .fault = {.action = FaultAction::Delay, .delay = kSecond}});
    Port first;
    host::ThreadHandle opener = rig.kernel.Spawn("opener", [&] { first = rig.Open(); });
    rig.RunFor(100 * kMillisecond);
    const host::Time before = rig.kernel.InterruptTime();
    Port second = rig.Open();
    EXPECT_EQ(rig.kernel.InterruptTime(), before);
    EXPECT_EQ(second.Read(32).Text(), kEmptyFix);
    EXPECT_FALSE(opener.Done());
    opener.Join();
    EXPECT_EQ(ApplicationCount(first), 2U);
}

// A module that never answers holds it up until it is pulled; the handle is then one of a device that is gone.
TEST(Line, OfAModuleThatNeverAnswersBlocksTheOpenUntilItIsPulled)
{
    Rig rig({.module = {.faults = {.packets = {{.kind = PacketFault::Kind::Silence,
                                                .pipe = Pipe::Control,
                                                .bRequest = std::uint8_t{0x04}}}}}});
    Port port;
    host::ThreadHandle opener = rig.kernel.Spawn("opener", [&] { port = rig.Open(); });
    rig.RunFor(60 * kSecond);
    EXPECT_FALSE(opener.Done());
    rig.Unplug();
    opener.Join();
    EXPECT_EQ(port.Read(32).status, STATUS_DELETE_PENDING);
    port.Close();
    PnpManager::Current().Settle();
    EXPECT_EQ(rig.Node(), nullptr);
}

TEST(Open, WithoutMemoryLeavesNoClient)
{
    for (const char* tag : {"NxCl", "NxRg"}) {
        Rig rig;
        rig.Registry().ClearWrites();
        rig.TakeBusLog();
        rig.kernel.Faults().Arm(FaultPoint::PoolAllocate, {.detail = tag});
        Port port;
        EXPECT_EQ(rig.TryOpen(&port), STATUS_INSUFFICIENT_RESOURCES) << tag;
        EXPECT_TRUE(TakeCounts(rig).empty());
        EXPECT_EQ(rig.TakeBusLog(), Strings{});
        EXPECT_EQ(ApplicationCount(rig.Open()), 1U);
    }
}

TEST(Close, CancelsWhatItsApplicationStillWaitsFor)
{
    Rig rig({.source = nullptr});
    Port port = rig.Open();
    const Port other = rig.Open();
    const host::nt::Request theirs = other.StartRead(100);
    std::vector<host::nt::Request> reads;
    for (int i = 0; i < 3; ++i)
        reads.push_back(port.StartRead(100)); // the first has the empty fix already
    port.Close();
    for (const host::nt::Request& read : reads) {
        ASSERT_TRUE(read.Done());
        EXPECT_EQ(read.Status(), STATUS_CANCELLED);
        EXPECT_EQ(read.Information(), 0U);
    }
    EXPECT_FALSE(theirs.Done());
    EXPECT_EQ(ApplicationCount(other), 1U);
    theirs.Cancel();
}

// Unplugging -------------------------------------------------------------------------------------------------

// A forgotten handle keeps the name; the module that comes back is no port before that handle is closed.
TEST(Unplug, OfAPortInUseKeepsItsNameFromTheNext)
{
    Rig rig;
    Port old = rig.Open();
    rig.Unplug();
    rig.Plug();
    EXPECT_EQ(rig.Node()->state, host::PnpState::Reported);
    old.Close();
    PnpManager::Current().Settle();
    EXPECT_EQ(PnpManager::Current().Enable(rig.Node()), STATUS_SUCCESS);
    EXPECT_EQ(rig.Open().Read(32).Text(), kEmptyFix);
}

} // namespace
} // namespace navox_test
