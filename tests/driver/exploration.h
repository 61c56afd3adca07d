// What the tests share that run one scenario many times: how often, and what is said when a run fails.
#pragma once

#include "rig.h"

#include "ke/explorer.h"

#include <cstdlib>
#include <string>

namespace navox_test {

// A number from the environment, such as NAVOX_SEEDS.
inline std::uint64_t Setting(const char* name, std::uint64_t usual)
{
    const char* text = std::getenv(name);
    return text != nullptr ? std::strtoull(text, nullptr, 10) : usual;
}

inline void ExpectNoFailure(const host::Exploration& exploration)
{
    EXPECT_FALSE(exploration.failure) << exploration.failure->Describe();
    ::testing::Test::RecordProperty("runs", static_cast<int>(exploration.runs));
    ::testing::Test::RecordProperty("every_schedule", exploration.exhausted ? 1 : 0);
}

} // namespace navox_test
