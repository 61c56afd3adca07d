// The order of things, left to chance and to exhaustion: clients that read, open and close while the module is pulled,
// and a read that is cancelled at every point of its life.
#include "exploration.h"

#include <random>

namespace navox_test {
namespace {

// A machine whose order of things is as usual until the scenario asks for another.
RigOptions InUsualOrder(const host::KernelOptions& kernel)
{
    RigOptions options;
    options.kernel = kernel;
    options.kernel.in_focus = false;
    return options;
}

// The same, and what its module says.
RigOptions InUsualOrder(const host::KernelOptions& kernel, ScriptedSource::Script script)
{
    RigOptions options = InUsualOrder(kernel);
    options.source = [script = std::move(script)] { return std::make_unique<ScriptedSource>(script); };
    return options;
}

struct Timeouts {
    ULONG interval, multiplier, constant;
};

// Reads until the port is gone. What it got must be a stretch of the stream: whole, in order.
void ReadToTheEnd(Rig& rig, const Timeouts& timeouts, ULONG length)
{
    Port port;
    if (!NT_SUCCESS(rig.TryOpen(&port)))
        return;
    (void)port.SetTimeouts(timeouts.interval, timeouts.multiplier, timeouts.constant);
    for (int i = 0; i < 200; ++i) {
        const host::nt::Result result = port.Read(length);
        if (result.status != STATUS_SUCCESS && result.status != STATUS_TIMEOUT)
            return;
        EXPECT_LE(result.information, length);
        if (result.information == 0)
            rig.kernel.RunFor(100 * kMillisecond);
    }
}

void OpenAndClose(Rig& rig, std::uint32_t seed)
{
    std::mt19937 random(seed);
    for (int i = 0; i < 8; ++i) {
        Port port;
        if (!NT_SUCCESS(rig.TryOpen(&port)))
            return;
        const host::nt::Request read = port.StartRead(1 + random() % 400);
        rig.kernel.RunFor(random() % (kSecond / 2));
        if (random() % 2 == 0)
            (void)read.Cancel();
    }
}

bool UnpluggedAtARandomMoment(const host::KernelOptions& kernel)
{
    Rig rig(InUsualOrder(kernel));
    rig.kernel.SetFocus(true);
    std::mt19937_64 random(kernel.seed);
    {
        host::ThreadHandle threads[] = {
            rig.kernel.Spawn("client 1",
                             [&] {
                                 ReadToTheEnd(rig, {0, 0, 700}, 256);
                             }),
            rig.kernel.Spawn("client 2",
                             [&] {
                                 ReadToTheEnd(rig, {0xFFFFFFFF, 0, 0}, 4'096);
                             }),
            rig.kernel.Spawn("client 3",
                             [&] {
                                 ReadToTheEnd(rig, {20, 0, 1'500}, 1'000);
                             }),
            rig.kernel.Spawn("client 4", [&] { OpenAndClose(rig, static_cast<std::uint32_t>(kernel.seed)); }),
        };
        rig.RunFor(static_cast<host::Time>(random() % (6 * kSecond)));
        rig.Unplug();
        for (host::ThreadHandle& thread : threads)
            thread.Join();
    }
    return !::testing::Test::HasFailure();
}

TEST(Exploration, ClientsReadOpenAndCloseWhileTheModuleIsPulled)
{
    ExpectGoodByChance({}, 200, UnpluggedAtARandomMoment);
}

// The burst fills the read, its time runs out, and it is cancelled, all at one moment.
bool ReadEndsThreeWaysAtOnce(const host::KernelOptions& kernel)
{
    Rig rig(InUsualOrder(kernel, {{{kSecond, "$GPTXT,a\r\n"}}}));
    Port port = rig.OpenStreaming();
    EXPECT_EQ(port.Read(kEmptyFix.size()).Text(), kEmptyFix);
    EXPECT_EQ(port.SetTimeouts(0, 0, 1'000), STATUS_SUCCESS);
    const host::nt::Request read = port.StartRead(10);
    rig.RunFor(kSecond - kMillisecond);

    rig.kernel.SetFocus(true);
    host::ThreadHandle canceller = rig.kernel.Spawn("canceller", [&] { (void)read.Cancel(); });
    const host::nt::Result result = read.Wait();
    canceller.Join();
    rig.kernel.SetFocus(false);

    const bool filled = result.status == STATUS_SUCCESS && result.information == 10;
    const bool timed_out = result.status == STATUS_TIMEOUT && result.information <= 10;
    const bool cancelled = result.status == STATUS_CANCELLED && result.information == 0;
    EXPECT_TRUE(filled || timed_out || cancelled) << std::hex << result.status << ", " << result.information;
    port.Close();
    return filled || timed_out || cancelled;
}

TEST(Exploration, AReadIsCancelledAtEveryPointOfItsCompletion)
{
    ExpectGoodInEveryOrder(400, ReadEndsThreeWaysAtOnce);
}

// One handle reads and is cancelled while a second read waits behind the first.
bool OneOfTwoReadsIsCancelled(const host::KernelOptions& kernel)
{
    Rig rig(InUsualOrder(kernel, {{{kSecond, "$GPTXT,1\r\n"}, {2 * kSecond, "$GPTXT,2\r\n"}}}));
    Port port = rig.OpenStreaming();
    EXPECT_EQ(port.Read(kEmptyFix.size()).Text(), kEmptyFix);
    const host::nt::Request first = port.StartRead(10);
    const host::nt::Request second = port.StartRead(10);

    rig.kernel.SetFocus(true);
    host::ThreadHandle canceller = rig.kernel.Spawn("canceller", [&] { (void)first.Cancel(); });
    rig.RunFor(kSecond + 500 * kMillisecond);
    canceller.Join();
    rig.kernel.SetFocus(false);

    const host::nt::Result one = first.Wait();
    const host::nt::Result two = second.Wait();
    // Whoever is first gets the first sentence; nothing is lost between the two.
    const bool good = one.status == STATUS_CANCELLED
                          ? two.Text() == "$GPTXT,1\r\n"
                          : one.Text() == "$GPTXT,1\r\n" && two.Text() == "$GPTXT,2\r\n";
    EXPECT_TRUE(good) << std::hex << one.status << " [" << one.Text() << "] " << two.status << " ["
                      << two.Text() << "]";
    return good;
}

TEST(Exploration, ACancelledReadLosesNothingForTheOneBehindIt)
{
    ExpectGoodInEveryOrder(300, OneOfTwoReadsIsCancelled);
}

// The last handle is closed while the transfer it waits for arrives.
bool LastCloseMeetsATransfer(const host::KernelOptions& kernel)
{
    Rig rig(InUsualOrder(kernel, {{{kSecond, "$GPTXT,a\r\n"}}}));
    Port port = rig.OpenStreaming();
    rig.RunFor(kSecond - kMillisecond);
    rig.kernel.SetFocus(true);
    host::ThreadHandle closer = rig.kernel.Spawn("closer", [&] {
        rig.kernel.RunFor(kMillisecond);
        port.Close();
    });
    closer.Join();
    rig.kernel.SetFocus(false);
    EXPECT_EQ(rig.OpenHandles(), 0u);
    Port again = rig.Open();
    EXPECT_EQ(again.Read(kEmptyFix.size()).Text(), kEmptyFix);
    return !::testing::Test::HasFailure();
}

TEST(Exploration, TheLastCloseMeetsATransfer)
{
    ExpectGoodInEveryOrder(300, LastCloseMeetsATransfer);
}

} // namespace
} // namespace navox_test
