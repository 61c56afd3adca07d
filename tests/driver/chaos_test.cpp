// Days in the life of a machine, under one seed: eight programs that use the port as the known libraries do, somebody
// who sends it controls at random, a Plug and Play script and a power script; and hours in which nobody does anything.
// NAVOX_SEED chooses another life, NAVOX_HOURS its length.
#include "exploration.h"

#include "po/power_manager.h"
#include "tests/personalities/libraries.h"
#include "usbd/usb_port.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <random>

namespace navox_test {
namespace {

constexpr host::Time kHour = 3'600 * kSecond;
constexpr std::size_t kPrograms = 8;

class Machine {
  public:
    explicit Machine(std::uint64_t seed) : random_(seed), rig_(Options(seed)) {}

    // Some busy seconds, and then nothing for most of an hour.
    void LiveAnHour()
    {
        const host::Time end = rig_.kernel.Now() + kHour;
        BeBusy(kSecond * static_cast<host::Time>(6 + random_() % 60));
        if (rig_.usb_port == nullptr) {
            ASSERT_TRUE(rig_.kernel.RunUntil([this] { return rig_.Node() == nullptr; }, 60 * kSecond));
            rig_.Plug();
        }
        Port port;
        ASSERT_EQ(rig_.TryOpen(&port), STATUS_SUCCESS);
        EXPECT_EQ(port.SetTimeouts(0, 0, 20'000), STATUS_SUCCESS);
        EXPECT_EQ(port.Read(kEmptyFix.size()).Text(), kEmptyFix);
        const std::string text = port.Read(400).Text();
        EXPECT_NE(text.find("$GPGGA"), std::string::npos) << "the port says: " << text;
        port.Close();
        BeQuiet(end - rig_.kernel.Now());
    }

    unsigned changes = 0;

  private:
    static RigOptions Options(std::uint64_t seed)
    {
        RigOptions options;
        options.kernel.strategy = host::StrategyKind::Random;
        options.kernel.seed = seed;
        options.kernel.replay_command = "NAVOX_SEED={seed} driver_chaos_test";
        options.kernel.max_steps = UINT64_MAX;
        options.kernel.keep_events = false;
        options.kernel.guard_pages = false; // too slow for so many reads
        options.kernel.excuses = {
            {.rule = host::Rule::UrbNotInD0, .reason = "opens and last closes are not held back by a sleep"}};
        options.settings = {{"EnableSelectiveSuspend", 1}, {"EnableFR", seed % 2}};
        return options;
    }

    host::Time UpTo(host::Time most)
    {
        return static_cast<host::Time>(random_() % static_cast<std::uint64_t>(most));
    }

    void BeBusy(host::Time time)
    {
        std::vector<std::unique_ptr<personalities::Session>> sessions;
        busy_until_ = rig_.kernel.Now() + time;
        host::ThreadHandle scripts[] = {rig_.kernel.Spawn("pnp", [this] { ChangeDevice(); }),
                                        rig_.kernel.Spawn("power", [this] { ChangePower(); })};
        std::vector<host::ThreadHandle> programs;
        std::vector<personalities::Personality> chosen;
        std::sample(std::begin(personalities::kPersonalities), std::end(personalities::kPersonalities),
                    std::back_inserter(chosen), kPrograms, random_);
        for (const personalities::Personality& personality : chosen) {
            personalities::Session& session =
                *sessions.emplace_back(std::make_unique<personalities::Session>("COM5"));
            programs.push_back(host::nt::SpawnClient(personality.name, [this, &session, personality] {
                rig_.RunFor(UpTo(5 * kSecond));
                Use(personality, session);
            }));
        }
        programs.push_back(host::nt::SpawnClient("controls", [this] { SendControls(); }));
        rig_.RunFor(time);
        for (const auto& session : sessions)
            session->Stop();
        programs.clear(); // a query waits for their requests
    }

    bool Busy() { return rig_.kernel.Now() < busy_until_; }

    static void Use(const personalities::Personality& personality, personalities::Session& session)
    {
        const std::unique_ptr<personalities::Library> library = personality.make(session);
        try {
            library->Open();
            library->Run();
            library->Close();
        } catch (const personalities::CallFailed&) {
            // The port went away, or the program does not take it at all.
        }
    }

    // The system takes no other step with a device while it goes to sleep or wakes.
    bool TakeTurn()
    {
        while (turn_taken_ && Busy())
            rig_.RunFor(50 * kMillisecond);
        return Busy() && !std::exchange(turn_taken_, true);
    }

    void ChangeDevice()
    {
        host::PnpManager& pnp = host::PnpManager::Current();
        for (rig_.RunFor(UpTo(4 * kSecond)); TakeTurn(); rig_.RunFor(UpTo(4 * kSecond))) {
            const host::PnpNodePtr node = rig_.Node();
            switch (random_() % 5) {
            case 0: EXPECT_EQ(pnp.Rebalance(node), STATUS_SUCCESS); break;
            case 1:
                EXPECT_EQ(pnp.QueryStop(node), STATUS_SUCCESS);
                EXPECT_EQ(pnp.CancelStop(node), STATUS_SUCCESS);
                break;
            case 2:
                EXPECT_EQ(pnp.QueryRemove(node), STATUS_SUCCESS);
                EXPECT_EQ(pnp.CancelRemove(node), STATUS_SUCCESS);
                break;
            case 3:
                if (pnp.Disable(node) == STATUS_SUCCESS)
                    EXPECT_EQ(pnp.Enable(node), STATUS_SUCCESS);
                break;
            default: rig_.Unplug(); break;
            }
            ++changes;
            turn_taken_ = false;
            if (rig_.usb_port == nullptr)
                return; // there may be programs that do not notice: it comes back in the next hour
        }
    }

    void ChangePower()
    {
        host::PowerManager& power = host::PowerManager::Current();
        for (rig_.RunFor(UpTo(6 * kSecond)); TakeTurn(); rig_.RunFor(UpTo(6 * kSecond))) {
            const auto state = static_cast<SYSTEM_POWER_STATE>(PowerSystemSleeping1 + random_() % 4);
            const NTSTATUS slept = random_() % 3 == 0 ? power.CriticalSleep(state) : power.Sleep(state);
            rig_.RunFor(UpTo(2 * kSecond));
            const NTSTATUS woke = power.Wake();
            // A module that was pulled fails these requests for as long as a handle is open.
            EXPECT_TRUE((NT_SUCCESS(slept) && NT_SUCCESS(woke)) || rig_.usb_port == nullptr)
                << std::hex << slept << ", " << woke;
            ++changes;
            turn_taken_ = false;
        }
    }

    void SendControls()
    {
        while (Busy()) {
            Port port;
            if (!NT_SUCCESS(rig_.TryOpen(&port)))
                rig_.RunFor(UpTo(kSecond));
            for (int i = 0; port.IsOpen() && i < 30 && Busy(); ++i) {
                std::array<std::uint8_t, 64> input{};
                std::generate(input.begin(), input.end(), [this] {
                    return static_cast<std::uint8_t>(random_() % 4 == 0 ? random_() : 0);
                });
                const ULONG function = 1 + random_() % 40;
                const ULONG code = random_() % 4 != 0
                                       ? FILE_DEVICE_SERIAL_PORT << 16 | function << 2
                                       : 0x0800'0000U | (random_() % 2 + 1) << 14 | function << 2;
                (void)port.StartControl(code, std::as_bytes(std::span(input).first(random_() % 65)),
                                        random_() % 100);
                rig_.RunFor(UpTo(200 * kMillisecond));
            }
        }
    }

    // The machine is left alone, sleeps, or is without its module.
    void BeQuiet(host::Time time)
    {
        host::PowerManager& power = host::PowerManager::Current();
        const std::uint64_t how = random_() % 3;
        if (how == 0)
            rig_.Unplug();
        else if (how == 1)
            EXPECT_EQ(power.Sleep(PowerSystemSleeping3), STATUS_SUCCESS);
        rig_.RunFor(time);
        if (how == 0)
            rig_.Plug();
        else if (how == 1)
            EXPECT_EQ(power.Wake(), STATUS_SUCCESS);
    }

    std::mt19937_64 random_;
    Rig rig_;
    host::Time busy_until_ = 0;
    bool turn_taken_ = false;
};

TEST(Chaos, DaysOfEverythingAtOnce)
{
    const std::uint64_t seed = Setting("NAVOX_SEED", 1);
    const std::uint64_t hours = Setting("NAVOX_HOURS", 72);
    SCOPED_TRACE("NAVOX_SEED=" + std::to_string(seed));
    Machine machine(seed);
    for (std::uint64_t hour = 0; hour < hours && !HasFailure(); ++hour)
        machine.LiveAnHour();
    EXPECT_GT(machine.changes, hours);
    RecordProperty("changes", static_cast<int>(machine.changes));
}

} // namespace
} // namespace navox_test
