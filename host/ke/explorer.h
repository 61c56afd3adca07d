// Many runs of one scenario: every schedule within a bound, or many seeds.
#pragma once

#include "ke/kernel.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace host {

// Constructs a Kernel from the options, plays in it and destroys it; false when it was not content. Each run must do
// the same but for what the scheduler decides.
using Scenario = std::function<bool(const KernelOptions& options)>;

struct FailedRun {
    KernelOptions options; // replay this
    std::string schedule;
    std::string description;       // how to run it again
    std::vector<Finding> findings; // none when the scenario itself was not content
    std::string Describe() const;
};

struct Exploration {
    std::uint64_t runs = 0;
    bool exhausted = false; // every schedule within the bound was run
    std::optional<FailedRun> failure;
};

// Every schedule with at most `max_preemptions` switches away from a thread that could have gone on; switches where
// the running thread blocks are free. A thread is pre-empted at a driver's steps, not at those of the kernel's own
// components among themselves. Where `actors` are named, only they are pre-empted, and chosen in place of the thread
// whose turn it is: the others take their usual turns. Schedules that leave the usual one once come first, the earliest
// first of all. Stops at the first failure, or after `max_runs`, which is at least 1.
Exploration ExploreSchedules(const KernelOptions& options, unsigned max_preemptions, std::uint64_t max_runs,
                             const Scenario& scenario, const std::set<std::string>& actors = {});

// `count` seeds from options.seed on: PCT of depth 1, 2, 3 in turn, and every fifth random. Stops at the first
// failure.
Exploration ExploreSeeds(const KernelOptions& options, std::uint64_t count, const Scenario& scenario);

} // namespace host
