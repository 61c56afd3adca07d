// The driver under real threads for two seconds; ThreadSanitizer runs this.
#include "rig.h"

#include <algorithm>
#include <atomic>

namespace navox_test {
namespace {

constexpr int kLines = 250; // fit into a ring: however late a client is served, it misses nothing
constexpr std::size_t kEnough = 100;

std::string Line(int number)
{
    return "$GPTXT," + std::to_string(100'000 + number) + "\r\n";
}

// The module speaks every other millisecond from the moment it agreed to, 1.5 s after the first open.
RigOptions Live()
{
    RigOptions options;
    options.kernel.mode = host::Mode::Live;
    options.source = [] {
        ScriptedSource::Script script;
        for (int i = 0; i < kLines; ++i)
            script.bursts.emplace_back(kMillisecond * 2 * i, Line(i));
        return std::make_unique<ScriptedSource>(std::move(script));
    };
    return options;
}

struct Timeouts {
    ULONG interval, multiplier, constant;
};

// What a client reads until the module is gone. `lines` is how many it has.
std::string ReadToTheEnd(Rig& rig, const Port& port, const Timeouts& timeouts, std::size_t length,
                         std::atomic<std::size_t>& lines)
{
    EXPECT_EQ(port.SetTimeouts(timeouts.interval, timeouts.multiplier, timeouts.constant), STATUS_SUCCESS);
    std::string text;
    for (;;) {
        const host::nt::Result result = port.Read(length);
        if (result.status != STATUS_SUCCESS && result.status != STATUS_TIMEOUT)
            return text;
        text += result.Text();
        lines = text.size() / Line(0).size();
        if (result.information == 0)
            rig.RunFor(kMillisecond);
    }
}

// Waits for events while another thread changes the mask; both until the module is gone.
void CountEvents(Rig& rig, const Port& port, std::atomic<int>& events)
{
    const host::ThreadHandle changer = rig.kernel.Spawn("changer", [&] {
        while (NT_SUCCESS(port.SetWaitMask(SERIAL_EV_RXCHAR)))
            rig.RunFor(5 * kMillisecond);
    });
    for (;;) {
        const host::nt::Result result = port.StartWait().Wait();
        if (result.status == STATUS_CANCELLED || result.status == STATUS_DELETE_PENDING)
            return;
        if (result.status == STATUS_SUCCESS && result.data.at(0) != std::byte{0})
            ++events;
    }
}

void OpenAndClose(Rig& rig)
{
    Port port;
    for (int i = 0; NT_SUCCESS(rig.TryOpen(&port)); ++i) {
        const host::nt::Request read = port.StartRead(200);
        const host::nt::Request next = port.StartRead(200);
        rig.RunFor(i % 3 * kMillisecond);
        if (i % 2 == 0)
            (void)read.Cancel();
        port.Close();
        EXPECT_NE(next.Wait().status, STATUS_PENDING);
    }
}

TEST(Live, ClientsReadWaitOpenAndCloseUntilTheModuleIsPulled)
{
    std::string stream(kEmptyFix);
    for (int i = 0; i < kLines; ++i)
        stream += Line(i);
    Rig rig(Live());
    constexpr Timeouts timeouts[] = {{0, 0, 20}, {0xFFFFFFFF, 0, 0}, {1, 0, 50}};
    std::string texts[3];
    std::atomic<std::size_t> lines[3] = {};
    std::atomic<int> events = 0;
    const auto has_enough = [](const std::atomic<std::size_t>& count) { return count > kEnough; };
    {
        const Port ports[] = {rig.Open(), rig.Open(), rig.Open(), rig.Open()};
        std::vector<host::ThreadHandle> threads;
        for (std::size_t i = 0; i < 3; ++i)
            threads.push_back(rig.kernel.Spawn("reader " + std::to_string(i), [&, i] {
                texts[i] = ReadToTheEnd(rig, ports[i], timeouts[i], 50 + 100 * i, lines[i]);
            }));
        threads.push_back(rig.kernel.Spawn("waiter", [&] { CountEvents(rig, ports[3], events); }));
        threads.push_back(rig.kernel.Spawn("visitor", [&] { OpenAndClose(rig); }));
        EXPECT_TRUE(rig.kernel.RunUntil([&] { return events > 10 && std::ranges::all_of(lines, has_enough); },
                                        20 * kSecond));
        rig.Unplug();
    }
    for (const std::string& text : texts)
        EXPECT_EQ(text, stream.substr(0, text.size())); // whole, and in order
}

} // namespace
} // namespace navox_test
