#include "tests/personalities/compatibility_table.h"

#include "apps/system.h"
#include "module/nmea_sentence.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <set>

using namespace personalities;

namespace personalities {

static void PrintTo(const Personality& personality, std::ostream* out)
{
    *out << personality.name;
}

} // namespace personalities

namespace {

constexpr const char* kDocument = NAVOX_DOCS "/compatibility.md";

const Table& Documented()
{
    static const Table table = [] {
        std::ifstream file(kDocument);
        return ParseTable(std::string(std::istreambuf_iterator<char>(file), {}));
    }();
    return table;
}

struct Schedule {
    const char* name;
    host::StrategyKind strategy;
    std::uint64_t seed;
};
constexpr Schedule kSchedules[] = {
    {"fifo", host::StrategyKind::Fifo, 1},
    {"random", host::StrategyKind::Random, 7},
    {"pct", host::StrategyKind::Pct, 11},
};

host::KernelOptions Options(const Schedule& schedule)
{
    host::KernelOptions options;
    options.strategy = schedule.strategy;
    options.seed = schedule.seed;
    options.clock_tick = 156'250; // 15.625 ms: PuTTY and Boost.Asio have the port look at every tick
    options.guard_pages = false;  // too slow for a thousand reads a minute
    options.keep_events = false;
    options.max_steps = 50'000'000;
    return options;
}

class Personalities : public testing::TestWithParam<Personality> {};

std::string TestName(const testing::TestParamInfo<Personality>& info)
{
    std::string name = info.param.name;
    std::erase_if(name, [](unsigned char c) { return std::isalnum(c) == 0; });
    return name;
}

TEST_P(Personalities, DoAsTheTableSays)
{
    const auto row = Documented().find(GetParam().name);
    ASSERT_NE(row, Documented().end()) << GetParam().name << " has no row in " << kDocument;
    for (const Schedule& schedule : kSchedules) {
        const Outcome outcome = Try(GetParam(), Options(schedule));
        EXPECT_EQ(Disagreement(row->second, outcome), "") << GetParam().name << ", " << schedule.name;
    }
}

INSTANTIATE_TEST_SUITE_P(All, Personalities, testing::ValuesIn(kPersonalities), TestName);

TEST(CompatibilityTable, HasNoRowThatNothingHolds)
{
    std::set<std::string> names;
    for (const Personality& personality : kPersonalities)
        names.insert(personality.name);
    for (const auto& [name, row] : Documented())
        EXPECT_TRUE(names.contains(name)) << name;
}

TEST(CompatibilityTable, IsFoundWrong)
{
    Outcome outcome;
    outcome.end = Failure{"x", ERROR_ACCESS_DENIED};
    const TableRow agreed{"works", "-", "`x` fails with ERROR_ACCESS_DENIED", "-"};
    EXPECT_EQ(Disagreement(agreed, outcome), "");
    outcome.notices = {"odd"};
    EXPECT_NE(Disagreement(agreed, outcome), "");
    const TableRow unadvised{"works with an oddity", "odd", agreed.unplugged, "-"};
    EXPECT_EQ(Disagreement(unadvised, outcome), "its user is not told what to do\n");
}

TEST(Stream, IsWholeOrItIsSaidWhereItIsNot)
{
    const std::string empty = "$GPGGA,,,,,,0,00,0.5,,M,,,,*00\r\n";
    const auto gga = [](const char* time) {
        return module::NmeaSentence("GPGGA," + std::string(time) + ",,,,,1");
    };
    const std::string one = gga("120000.00");
    const std::string two = gga("120001.00");
    struct Case {
        std::string stream;
        const char* damage;
    } const cases[] = {
        {empty + one + two, ""},
        {empty + one + two + "$GPG", ""}, // cut off by the end of the run
        {one + two, "it does not begin with the empty sentence"},
        {empty + one, "only 1 fixes"},
        {empty + one + "$GPGGA,120001.00,,,,,0*00\r\n" + two, "damaged: $GPGGA,120001.00,,,,,0*00"},
        {empty + one + gga("120002.00"), "fixes are missing before "},
        {empty + one + one, "fixes are missing before "},
    };
    for (const Case& c : cases) {
        const std::string damage = StreamDamage(c.stream, 6 * host::kSecond);
        EXPECT_TRUE(*c.damage != '\0' ? damage.starts_with(c.damage) : damage.empty()) << damage;
    }
}

// Asking a silent port for its state again and again is nothing that the module would learn of.
TEST(LivenessProbe, CausesNoTrafficOnTheBus)
{
    app::System system({.kernel = Options(kSchedules[0])});
    system.Plug();
    Session session(system.PortName());
    {
        host::ThreadHandle program = system.Kernel().Spawn("go", [&session] {
            const auto go = std::ranges::find(kPersonalities, kGoSerialWithoutLimits, &Personality::name);
            const std::unique_ptr<Library> library = go->make(session);
            library->Open();
            library->Run();
            library->Close();
        });
        system.Kernel().RunFor(10 * host::kSecond);
        host::UsbBus::Current().ClearLog();
        const unsigned before = session.empty_reads;
        system.Kernel().RunFor(60 * host::kSecond);
        EXPECT_GE(session.empty_reads, before + 59);
        EXPECT_EQ(host::UsbBus::Current().Log().size(), 0u);
        session.Stop();
    }
    system.Unplug();
    EXPECT_TRUE(system.Unload());
}

} // namespace
