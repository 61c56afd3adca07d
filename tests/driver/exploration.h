// What the tests share that run one scenario many times: how often, what is said when a run fails, and how that run is
// played again.
#pragma once

#include "rig.h"

#include "ke/explorer.h"

#include <cerrno>
#include <cstdlib>
#include <set>
#include <string>

namespace navox_test {

// A number from the environment, such as NAVOX_SEEDS.
inline std::uint64_t Setting(const char* name, std::uint64_t usual)
{
    const char* text = std::getenv(name);
    return text != nullptr ? std::strtoull(text, nullptr, 10) : usual;
}

// The command that runs this test alone, with `settings` before it.
inline std::string ReplayCommand(const std::string& settings)
{
    const ::testing::TestInfo& test = *::testing::UnitTest::GetInstance()->current_test_info();
    return settings + ' ' + program_invocation_name + " --gtest_filter=" + test.test_suite_name() + '.' +
           test.name();
}

inline void ExpectNoFailure(const host::Exploration& exploration)
{
    EXPECT_FALSE(exploration.failure) << exploration.failure->Describe();
    ::testing::Test::RecordProperty("runs", static_cast<int>(exploration.runs));
    ::testing::Test::RecordProperty("every_schedule", exploration.exhausted ? 1 : 0);
}

// The scenario in every order with at most two pre-emptions, NAVOX_SCHEDULES orders at most. NAVOX_SCHEDULE names one of
// them: it alone is played, on this thread, and stops where the verifier finds something.
// NAVOX_PREEMPTIONS may be fewer. A meeting of few `actors` must have fewer orders than kMoreThanAll.
constexpr std::uint64_t kMoreThanAll = 100'000;
inline void ExpectGoodInEveryOrder(std::uint64_t usual, const host::Scenario& scenario,
                                   const std::set<std::string>& actors = {})
{
    if (const char* schedule = std::getenv("NAVOX_SCHEDULE")) {
        EXPECT_TRUE(scenario({.strategy = host::StrategyKind::Replay, .schedule = schedule}));
        return;
    }
    const host::KernelOptions options = {.replay_command = ReplayCommand("NAVOX_SCHEDULE='{schedule}'")};
    const std::uint64_t most = Setting("NAVOX_SCHEDULES", usual);
    const auto preemptions = static_cast<unsigned>(Setting("NAVOX_PREEMPTIONS", 2));
    const host::Exploration exploration =
        host::ExploreSchedules(options, preemptions, most, scenario, actors);
    ExpectNoFailure(exploration);
    EXPECT_TRUE(exploration.exhausted || actors.empty() || most < kMoreThanAll) << "there are more orders";
}

// The scenario in NAVOX_SEEDS orders by chance, from the seed NAVOX_FIRST_SEED on. Returns how many.
inline std::uint64_t ExpectGoodByChance(host::KernelOptions options, std::uint64_t usual,
                                        const host::Scenario& scenario)
{
    const std::uint64_t seeds = Setting("NAVOX_SEEDS", usual);
    options.seed = Setting("NAVOX_FIRST_SEED", 1);
    options.replay_command = ReplayCommand("NAVOX_FIRST_SEED={seed} NAVOX_SEEDS=1");
    ExpectNoFailure(host::ExploreSeeds(options, seeds, scenario));
    return seeds;
}

} // namespace navox_test
