// Serial events: the mask, the history of what it lets through, the wait for it, and what ends a wait.
// And what happens at once: events, reads, cancels, closes.
#include "exploration.h"
#include "scripted_module.h"

#include <cstring>

namespace navox_test {
namespace {

using host::nt::Request;
using host::nt::Result;
using std::string_literals::operator""s;

// A port whose module has agreed to talk and says nothing yet.
struct Bench {
    explicit Bench(RigOptions options = {}) : module({{"\r\nOK\r\n"}}, std::move(options)), port(rig().Open())
    {
        rig().RunFor(2 * kSecond);
    }
    Rig& rig() { return module.rig; }

    Conversation module;
    Port port;
    Request wait; // the last one
    Request read;
    bool cancelled = false; // there was something to cancel
};

// Whether the wait succeeded with these events.
bool Gave(const Request& wait, ULONG events)
{
    const Result result = wait.Wait();
    ULONG word = ~events;
    if (result.data.size() == sizeof(word))
        std::memcpy(&word, result.data.data(), sizeof(word));
    return result.status == STATUS_SUCCESS && result.information == sizeof(word) && word == events;
}

bool WasCancelled(const Request& wait)
{
    const Result result = wait.Wait();
    return result.status == STATUS_CANCELLED && result.information == 0;
}

// Scripts ----------------------------------------------------------------------------------------------------

using Step = std::function<void(Bench&)>;

Step Mask(ULONG mask)
{
    return [=](Bench& bench) {
        EXPECT_EQ(bench.port.SetWaitMask(mask), STATUS_SUCCESS);
        EXPECT_EQ(bench.port.Get<ULONG>(IOCTL_SERIAL_GET_WAIT_MASK), mask);
    };
}

Step Say(const std::string& packet)
{
    return [=](Bench& bench) {
        bench.module.Send(packet);
        bench.rig().RunFor(kMillisecond);
    };
}

const Step kWait = [](Bench& bench) { bench.wait = bench.port.StartWait(); };
const Step kWaits = [](Bench& bench) { EXPECT_FALSE(bench.wait.WaitFor(60 * kSecond)); };
const Step kCancel = [](Bench& bench) {
    EXPECT_TRUE(bench.wait.Cancel());
    EXPECT_TRUE(WasCancelled(bench.wait));
};
const Step kSecondWait = [](Bench& bench) {
    EXPECT_EQ(bench.port.StartWait().Status(), STATUS_INVALID_PARAMETER);
};
const Step kRefused = [](Bench& bench) { EXPECT_EQ(bench.wait.Status(), STATUS_INVALID_PARAMETER); };
const Step kOtherSettings = [](Bench& bench) {
    EXPECT_EQ(bench.port.SetTimeouts(1, 2, 3), STATUS_SUCCESS);
    const ULONG everything = 0xF;
    EXPECT_EQ(bench.port.Set(IOCTL_SERIAL_PURGE, everything), STATUS_SUCCESS);
    EXPECT_EQ(bench.port.Read(32).Text(), kEmptyFix);
};
const Step kFillTheRing = [](Bench& bench) {
    for (int i = 0; i < 8; ++i)
        Say(std::string(512, '$'))(bench);
    EXPECT_EQ(bench.port.InQueue(), 4096U);
};

Step Gives(ULONG events)
{
    return [=](Bench& bench) {
        ASSERT_TRUE(bench.wait.Done());
        EXPECT_TRUE(Gave(bench.wait, events));
    };
}

constexpr ULONG kChar = SERIAL_EV_RXCHAR;
constexpr ULONG kFlag = SERIAL_EV_RXFLAG;
constexpr ULONG kAll = 0x1FFF;

// What still waits at the end is cancelled by the close.
TEST(Mask, ReportsWhatItLetsThrough)
{
    const std::vector<Step> scripts[] = {
        {Mask(kChar), kWait, kWaits, Say("$GP"), Gives(kChar)},
        {Mask(kChar), Say("$GP"), kWait, Gives(kChar)},
        // Reported once; many transfers are one event.
        {Mask(kChar), Say("$1"), Say("$2"), kWait, Gives(kChar), kWait, kWaits, Say("$3"), Gives(kChar)},
        {Mask(kChar), kWait, Say("$1"), Gives(kChar), kWait, kWaits},
        // The bytes need not be there any more, nor have had room.
        {Mask(kChar), kOtherSettings, Say("$"), [](Bench& b) { b.port.Read(1); }, kWait, Gives(kChar)},
        {kFillTheRing, Mask(kChar), kWait, Say("dropped"), Gives(kChar)},
        // Other events never happen, and the event character is 0 and looked for in the first place only.
        {Mask(kAll), kWait, Say("$GP"), Gives(kChar)},
        {Mask(kAll & ~(kChar | kFlag)), kWait, Say("$GP"), Say("\0"s), kWaits},
        {Mask(kFlag), kWait, Say("$GP\0"s), kWaits, Say("\0$GP"s), Gives(kFlag)},
        {Mask(kAll), kWait, Say(""), Gives(kChar | kFlag)}, // a transfer of nothing
        {Mask(kAll), Say("$"), Say("\0"s), kWait, Gives(kChar | kFlag)},
        // A new mask ends the wait without an event, also when it is the old one.
        {Mask(kChar), kWait, Mask(kFlag), Gives(0)},
        {Mask(kChar), kWait, Mask(kChar), Gives(0), kWait, kWaits, Say("$"), Gives(kChar)},
        {Mask(kChar), kWait, Mask(0), Gives(0), kWait, kRefused},
        // It keeps what has happened as far as it lets it through.
        {Mask(kChar), Say("$"), Mask(kChar), kWait, Gives(kChar)},
        {Mask(kAll), Say("\0"s), Mask(kFlag), kWait, Gives(kFlag)},
        {Mask(kChar), Say("$"), Mask(kFlag), Mask(kChar), kWait, kWaits},
        {Mask(kChar), Say("$"), Mask(0), Mask(kChar), kWait, kWaits},
        {Say("$"), Mask(kChar), kWait, kWaits},
        // One wait at a time, and none for nothing.
        {kWait, kRefused, Mask(kChar), kWait, kSecondWait, kWaits, Say("$"), Gives(kChar)},
        // Cancelled, and the next one has what comes meanwhile.
        {Mask(kChar), kWait, kCancel, kWait, kWaits, Say("$"), Gives(kChar)},
        {Mask(kChar), kWait, kCancel, Say("$"), kWait, Gives(kChar)},
        // Nothing else ends it.
        {Mask(kChar), kWait, kOtherSettings, kWaits, Say("$"), Gives(kChar)},
    };
    for (const std::vector<Step>& script : scripts) {
        SCOPED_TRACE("script " + std::to_string(&script - scripts + 1));
        Bench bench;
        for (const Step& step : script)
            step(bench);
        const bool waits = bench.wait.Valid() && !bench.wait.Done();
        bench.port.Close();
        if (waits) {
            ASSERT_TRUE(bench.wait.Done());
            EXPECT_TRUE(WasCancelled(bench.wait));
        }
    }
}

TEST(Wait, OfOneHandleIsNothingToAnother)
{
    Bench bench;
    Port other = bench.rig().Open();
    Mask(kChar)(bench);
    EXPECT_EQ(other.Get<ULONG>(IOCTL_SERIAL_GET_WAIT_MASK), 0U);
    EXPECT_EQ(other.SetWaitMask(kFlag), STATUS_SUCCESS);
    kWait(bench);
    const Request theirs = other.StartWait();
    EXPECT_EQ(other.SetWaitMask(kAll), STATUS_SUCCESS);
    EXPECT_TRUE(Gave(theirs, 0));
    EXPECT_FALSE(bench.wait.Done());
    other.Close();
    Say("$")(bench);
    Gives(kChar)(bench);
}

// A read that waits and a wait for its bytes end with the same transfer.
TEST(Wait, AndAReadAreServedByOneTransfer)
{
    Bench bench;
    Mask(kChar)(bench);
    kWait(bench);
    const Request read = bench.port.StartRead(42);
    Say("$GPTXT,1\r\n")(bench);
    Gives(kChar)(bench);
    EXPECT_EQ(read.Wait().Text(), std::string(kEmptyFix) + "$GPTXT,1\r\n");
}

// Races ------------------------------------------------------------------------------------------------------

// Things that are done at once, in the orders of their steps that two preemptions give, one after the other, and in
// orders from all over by chance. `good` judges what came out.
struct Race {
    const char* name;
    std::vector<Step> before, at_once;
    std::function<bool(Bench&)> good;
};
void PrintTo(const Race& race, std::ostream* out)
{
    *out << race.name;
}

const Step kSend = [](Bench& bench) { bench.module.Send("$GPTXT,1\r\n"); };
const Step kTryCancel = [](Bench& bench) { (void)bench.wait.Cancel(); };
const Step kClose = [](Bench& bench) { bench.port.Close(); };
const Step kSetMask = [](Bench& bench) { (void)bench.port.SetWaitMask(kChar); };
const Step kCancelAll = [](Bench& bench) { bench.cancelled = bench.port.CancelIoEx(); };
const Step kReadOn = [](Bench& bench) { bench.read = bench.port.StartRead(42); };

// After whatever became of the last one, a wait begins and ends with the next transfer.
bool IsFreeForTheNext(Bench& bench)
{
    const Request next = bench.port.StartWait();
    const bool begun = !next.Done();
    kSend(bench);
    return begun && Gave(next, kChar);
}

// The event is in the wait, or else was kept for the next one; never both, never lost.
bool IsReportedOnce(Bench& bench)
{
    return Gave(bench.wait, kChar) ? IsFreeForTheNext(bench) : Gave(bench.port.StartWait(), kChar);
}

bool EndedOrCancelled(Bench& bench, ULONG events)
{
    return Gave(bench.wait, events) || WasCancelled(bench.wait);
}

const Race kRaces[] = {
    {"CancelAndTransfer",
     {Mask(kChar), kWait},
     {kTryCancel, kSend},
     [](Bench& b) { return EndedOrCancelled(b, kChar) && IsReportedOnce(b); }},
    {"CancelAndMask",
     {Mask(kChar), kWait},
     {kTryCancel, kSetMask},
     [](Bench& b) { return EndedOrCancelled(b, 0) && IsFreeForTheNext(b); }},
    {"MaskAndTransfer",
     {Mask(kChar), kWait},
     {kSetMask, kSend},
     [](Bench& b) { return (Gave(b.wait, 0) || Gave(b.wait, kChar)) && IsReportedOnce(b); }},
    {"CloseAndTransfer",
     {Mask(kChar), kWait, kReadOn},
     {kClose, kSend},
     [](Bench& b) {
         const Result read = b.read.Wait();
         const bool read_ended = read.status == STATUS_CANCELLED || read.information == 42;
         return EndedOrCancelled(b, kChar) && read_ended;
     }},
    {"CloseAndCancel",
     {Mask(kChar), kWait},
     {kClose, kTryCancel},
     [](Bench& b) { return WasCancelled(b.wait); }},
    // A wait that comes while the mask is being set is queued behind it, and may be cancelled there.
    {"MaskWaitAndTransfer",
     {},
     {kSetMask, kWait, kSend},
     [](Bench& b) {
         if (b.wait.Status() == STATUS_INVALID_PARAMETER)
             kWait(b);
         if (!b.wait.Done())
             kSend(b);
         return Gave(b.wait, kChar);
     }},
    {"MaskMaskAndWait",
     {Mask(kChar)},
     {kSetMask, kSetMask, kWait},
     [](Bench& b) { return b.wait.Done() ? Gave(b.wait, 0) && IsFreeForTheNext(b) : b.wait.Cancel(); }},
    // Cancelled while it is on its way in.
    {"WaitAndCancel",
     {Mask(kChar)},
     {kWait, kCancelAll},
     [](Bench& b) { return b.cancelled ? WasCancelled(b.wait) && IsFreeForTheNext(b) : b.wait.Cancel(); }},
    {"ReadAndCancel",
     {},
     {kReadOn, kCancelAll},
     [](Bench& b) { return b.cancelled ? WasCancelled(b.read) : b.read.Cancel(); }},
    // Bytes that come while a read looks for them.
    {"ReadAndTransfer",
     {},
     {kReadOn, kSend},
     [](Bench& b) {
         return b.read.Wait().Text() == std::string(kEmptyFix) + "$GPTXT,1\r\n" && b.port.InQueue() == 0;
     }},
};

class Races : public ::testing::TestWithParam<Race> {};

TEST_P(Races, LoseNothing)
{
    const Race& race = GetParam();
    const auto play = [&race](const host::KernelOptions& options) {
        RigOptions rig;
        rig.kernel = options;
        rig.kernel.in_focus = false;
        Bench bench(std::move(rig));
        for (const Step& step : race.before)
            step(bench);
        bench.rig().kernel.SetFocus(true);
        {
            std::vector<host::ThreadHandle> threads;
            for (const Step& step : race.at_once)
                threads.push_back(bench.rig().kernel.Spawn("actor " + std::to_string(threads.size()),
                                                           [&] { step(bench); }));
        }
        bench.rig().RunFor(kMillisecond);
        bench.rig().kernel.SetFocus(false);
        const bool good = race.good(bench);
        EXPECT_TRUE(good);
        bench.port.Close();
        return good;
    };
    ExpectGoodInEveryOrder(60, play);
    ExpectGoodByChance({.pct_length = 100}, 60, play);
}

INSTANTIATE_TEST_SUITE_P(Table, Races, ::testing::ValuesIn(kRaces),
                         [](const auto& info) { return std::string(info.param.name); });

} // namespace
} // namespace navox_test
