// Reads under the serial time-outs, their queue, their cancellation, and the ring behind them.
#include "rig.h"

namespace navox_test {
namespace {

using host::nt::Request;
using host::nt::Result;

// What the module sends, in milliseconds after its output was switched on.
struct Burst {
    int at;
    std::string text;
};

RigOptions Sending(const std::vector<Burst>& bursts)
{
    RigOptions options;
    options.source = [bursts] {
        ScriptedSource::Script script;
        for (const Burst& burst : bursts)
            script.bursts.emplace_back(burst.at * kMillisecond, burst.text);
        return std::make_unique<ScriptedSource>(std::move(script));
    };
    return options;
}

// "$000000\r\n$000009\r\n...": `size` bytes of which each run of nine says where it is.
std::string Numbered(std::size_t size, std::size_t from = 0)
{
    std::string text;
    for (std::size_t at = from / 9 * 9; text.size() < size + from % 9; at += 9) {
        char line[16];
        std::snprintf(line, sizeof(line), "$%06zu\r\n", at);
        text += line;
    }
    return text.substr(from % 9, size);
}

// A port whose module has just begun to send; its ring is empty unless the empty fix is left in it.
struct Listener {
    explicit Listener(const std::vector<Burst>& bursts, bool keep_empty_fix = false)
        : rig(Sending(bursts)), port(rig.OpenStreaming())
    {
        if (!keep_empty_fix) {
            EXPECT_EQ(port.Read(32).Text(), kEmptyFix);
        }
    }

    Rig rig;
    Port port;
};

// Time-outs ------------------------------------------------------------------------------------------------

constexpr ULONG kMax = 0xFFFFFFFF;
constexpr int kNever = -1;

struct Timing {
    ULONG interval, multiplier, constant; // ms
    std::size_t length;
    bool empty_fix; // is in the ring
    std::vector<Burst> bursts;
    NTSTATUS status;
    std::string text;
    int ends; // ms after the read was sent; a few ticks of the clock (15.6 ms each) may come on top
};

void ExpectKept(const Timing& c)
{
    SCOPED_TRACE(std::to_string(c.interval) + ", " + std::to_string(c.multiplier) + ", " +
                 std::to_string(c.constant) + ", length " + std::to_string(c.length));
    Listener listener(c.bursts, c.empty_fix);
    ASSERT_EQ(listener.port.SetTimeouts(c.interval, c.multiplier, c.constant), STATUS_SUCCESS);
    const host::Time sent = listener.rig.kernel.InterruptTime();
    const Request read = listener.port.StartRead(c.length);
    if (c.ends == kNever) {
        EXPECT_FALSE(read.WaitFor(60 * kSecond));
        EXPECT_TRUE(read.Cancel());
        EXPECT_EQ(read.Wait().status, STATUS_CANCELLED);
        return;
    }
    const Result result = read.Wait();
    const host::Time took = listener.rig.kernel.InterruptTime() - sent;
    EXPECT_EQ(result.status, c.status);
    EXPECT_EQ(result.Text(), c.text);
    EXPECT_GE(took, (c.ends - 2) * kMillisecond);
    EXPECT_LE(took, (c.ends == 0 ? 0 : c.ends + 50) * kMillisecond);
}

const std::string kFix(kEmptyFix);

const Timing kTimings[] = {
    // No time-outs: until the buffer is full.
    {0, 0, 0, 10, false, {{1000, "abcd"}, {3000, "efghij"}}, STATUS_SUCCESS, "abcdefghij", 3000},
    {0, 0, 0, 33, true, {{5000, "x"}}, STATUS_SUCCESS, kFix + "x", 5000},
    {0, 0, 0, 100, false, {{1000, "abcd"}}, 0, "", kNever},
    {0, 0, 0, 32, true, {}, STATUS_SUCCESS, kFix, 0},
    // Total time-outs.
    {0, 3, 50, 100, false, {}, STATUS_TIMEOUT, "", 350},
    {0, 3, 0, 100, false, {{100, "abcd"}}, STATUS_TIMEOUT, "abcd", 300},
    {0, 0, 2000, 100, false, {{1000, "abcd"}}, STATUS_TIMEOUT, "abcd", 2000},
    {0, 1000, 0, 4096, false, {}, STATUS_TIMEOUT, "", 4'096'000}, // the length counts
    // With what is there, at once.
    {kMax, 0, 0, 100, false, {{1000, "abcd"}}, STATUS_SUCCESS, "", 0},
    {kMax, 0, 0, 100, true, {}, STATUS_SUCCESS, kFix, 0},
    // With what is there, or else with the first byte.
    {kMax, kMax, 1000, 100, true, {}, STATUS_SUCCESS, kFix, 0},
    {kMax, kMax, 1000, 100, false, {{500, "abcd"}}, STATUS_SUCCESS, "a", 500},
    {kMax, kMax, 1000, 100, false, {}, STATUS_TIMEOUT, "", 1000},
    {kMax, kMax, 0, 100, false, {}, STATUS_TIMEOUT, "", 0}, // due at once
    // With what is there, or else until the buffer is full.
    {kMax, 0, 1000, 100, true, {}, STATUS_SUCCESS, kFix, 0},
    {kMax, 0, 1000, 100, false, {{500, "abcd"}}, STATUS_TIMEOUT, "abcd", 1000},
    {kMax, 0, 1000, 4, false, {{500, "abcd"}}, STATUS_SUCCESS, "abcd", 500},
    // The constant at its largest: no time-out, whatever the multiplier.
    {kMax, kMax - 1, kMax, 40, true, {{3000, "12345678"}}, STATUS_SUCCESS, kFix + "12345678", 3000},
    {kMax, 2, kMax, 100, false, {}, 0, "", kNever},
    // The clock of the interval starts with the first byte.
    {100, 0, 0, 100, false, {}, 0, "", kNever},
    {100, 0, 0, 100, false, {{1000, "abcd"}}, STATUS_TIMEOUT, "abcd", 1100},
    {100, 0, 0, 4, false, {{1000, "abcd"}}, STATUS_SUCCESS, "abcd", 1000},
    // With bytes from the ring it starts at once.
    {100, 0, 0, 100, true, {}, STATUS_TIMEOUT, kFix, 100},
    {100, 0, 0, 100, true, {{80, "ab"}, {160, "cd"}}, STATUS_TIMEOUT, kFix + "abcd", 260},
    // Every byte starts it anew.
    {100, 0, 0, 100, false, {{1000, "a"}, {1080, "b"}, {1400, "c"}}, STATUS_TIMEOUT, "ab", 1180},
    // The total goes on beside it; whichever ends first.
    {100, 0, 200, 100, false, {{50, "a"}, {100, "b"}, {150, "c"}, {230, "d"}}, STATUS_TIMEOUT, "abc", 200},
    {100, 0, 5000, 100, false, {{1000, "abcd"}}, STATUS_TIMEOUT, "abcd", 1100},
    // Below 20 s the pause is looked at with every tick, from 20 s on once a second: the first byte is seen at
    // 2 s, and 20 s after that have passed at 22 s.
    {19'999, 0, 0, 100, false, {{1500, "abcd"}}, STATUS_TIMEOUT, "abcd", 21'499},
    {20'000, 0, 0, 100, false, {{1500, "abcd"}}, STATUS_TIMEOUT, "abcd", 22'000},
    {20'001, 0, 0, 100, false, {{1500, "abcd"}}, STATUS_TIMEOUT, "abcd", 23'000},
    {20'000, 0, 0, 100, true, {}, STATUS_TIMEOUT, kFix, 20'000},
    // From 0x80000000 on it is negative: it has passed at the first look that finds no new byte.
    {0x80000000, 0, 0, 100, false, {{1000, "abcd"}}, STATUS_TIMEOUT, "abcd", 1015},
    {0x80000000, 0, 0, 100, true, {}, STATUS_TIMEOUT, kFix, 15},
    {0x80000000, 0, 0, 100, false, {}, 0, "", kNever},
};

TEST(Read, KeepsItsTimeouts)
{
    for (const Timing& timing : kTimings)
        ExpectKept(timing);
}

TEST(Read, OfNothingSucceedsAtOnceEvenBehindAWaitingRead)
{
    Listener listener({});
    const Request waiting = listener.port.StartRead(10);
    const Request nothing = listener.port.StartRead(0);
    ASSERT_TRUE(nothing.Done());
    EXPECT_EQ(nothing.Status(), STATUS_SUCCESS);
    EXPECT_EQ(nothing.Information(), 0U);
    EXPECT_FALSE(waiting.Done());
    waiting.Cancel();
}

// Time-outs are copied when a read begins to be served: new ones are for the next.
TEST(Read, KeepsTheTimeoutsItBeganWith)
{
    Listener listener({});
    listener.port.SetTimeouts(0, 0, 1000);
    const Request current = listener.port.StartRead(10);
    const Request queued = listener.port.StartRead(10);
    listener.port.SetTimeouts(0, 0, 300);
    const host::Time start = listener.rig.kernel.InterruptTime();
    EXPECT_EQ(current.Wait().status, STATUS_TIMEOUT);
    EXPECT_GE(listener.rig.kernel.InterruptTime() - start, 1000 * kMillisecond);
    EXPECT_EQ(queued.Wait().status, STATUS_TIMEOUT);
    EXPECT_LE(listener.rig.kernel.InterruptTime() - start, 1350 * kMillisecond);
}

// Queue and direct fill --------------------------------------------------------------------------------------

TEST(ReadQueue, IsServedInOrder)
{
    Listener listener({{1000, "abc"}, {2000, "defgh"}, {3000, "ij"}});
    std::string order;
    std::vector<Request> reads;
    for (int i = 0; i < 4; ++i)
        reads.push_back(listener.port.StartRead(3, [&order, i] { order += static_cast<char>('1' + i); }));
    listener.rig.RunFor(4 * kSecond);
    EXPECT_EQ(order, "123");
    EXPECT_EQ(reads[0].Wait().Text(), "abc");
    EXPECT_EQ(reads[1].Wait().Text(), "def");
    EXPECT_EQ(reads[2].Wait().Text(), "ghi");
    EXPECT_TRUE(reads[3].Cancel()); // has the j
    EXPECT_EQ(reads[3].Wait().status, STATUS_CANCELLED);
}

// One transfer fills the waiting read, the rest of it is in the ring, and nothing is lost between.
TEST(DirectFill, EndsInTheMiddleOfATransfer)
{
    Listener listener({{1000, Numbered(300)}});
    const Request first = listener.port.StartRead(100);
    EXPECT_EQ(first.Wait().Text(), Numbered(100));
    EXPECT_EQ(listener.port.InQueue(), 200U);
    EXPECT_EQ(listener.port.Read(200).Text(), Numbered(200, 100));
}

TEST(Ring, ThatIsFullKeepsTheOldest)
{
    std::vector<Burst> bursts;
    for (int i = 0; i < 12; ++i)
        bursts.push_back({1000 + 100 * i, Numbered(500, 500 * static_cast<std::size_t>(i))});
    bursts.push_back({5000, "after the gap"});
    Listener listener(bursts, true);
    listener.rig.RunFor(4 * kSecond);
    EXPECT_EQ(listener.port.InQueue(), 4096U);
    EXPECT_EQ(listener.port.Read(4096).Text(), kFix + Numbered(4096 - 32));
    EXPECT_EQ(listener.port.Read(13).Text(), "after the gap");
}

// Cancelling -------------------------------------------------------------------------------------------------

// What a cancelled read had is lost to its application; the next read goes on behind it.
TEST(Cancel, OfAHalfFilledReadGivesNothing)
{
    Listener listener({{1000, "abcdef"}, {3000, "ghi"}});
    listener.port.SetTimeouts(50'000, 0, 60'000); // both timers run
    const Request read = listener.port.StartRead(100);
    const Request next = listener.port.StartRead(3);
    listener.rig.RunFor(2 * kSecond);
    EXPECT_TRUE(read.Cancel());
    ASSERT_TRUE(read.Done());
    const Result result = read.Wait();
    EXPECT_EQ(result.status, STATUS_CANCELLED);
    EXPECT_EQ(result.information, 0U);
    EXPECT_EQ(next.Wait().Text(), "ghi");
}

TEST(Cancel, OfOneHandleLeavesTheOther)
{
    Listener listener({{1000, "abc"}});
    const Port other = listener.rig.Open();
    EXPECT_EQ(other.Read(32).Text(), kEmptyFix);
    const std::vector<Request> mine = {listener.port.StartRead(3), listener.port.StartRead(3)};
    const Request theirs = other.StartRead(3);
    EXPECT_TRUE(listener.port.CancelIoEx());
    for (const Request& read : mine)
        EXPECT_EQ(read.Wait().status, STATUS_CANCELLED);
    EXPECT_EQ(theirs.Wait().Text(), "abc");
    EXPECT_FALSE(listener.port.CancelIoEx());
    EXPECT_EQ(listener.port.Read(3).Text(), "abc"); // its ring had taken over
}

// From the front, and out of the middle; one transfer serves the two that are left.
TEST(Cancel, OfQueuedReadsLeavesTheOthers)
{
    Listener listener({{5000, "abcdef"}});
    std::vector<Request> reads;
    for (int i = 0; i < 20; ++i)
        reads.push_back(listener.port.StartRead(3));
    for (std::size_t i = 0; i < reads.size(); ++i) {
        if (i == 10 || i == 19)
            continue;
        EXPECT_TRUE(reads[i].Cancel()) << i;
        ASSERT_TRUE(reads[i].Done());
        EXPECT_EQ(reads[i].Wait().status, STATUS_CANCELLED) << i;
    }
    EXPECT_EQ(reads[10].Wait().Text(), "abc");
    EXPECT_EQ(reads[19].Wait().Text(), "def");
    EXPECT_FALSE(reads[19].Cancel());
}

} // namespace
} // namespace navox_test
