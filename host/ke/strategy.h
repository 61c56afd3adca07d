// Which thread runs next: the simulated scheduler asks a Strategy at every synchronisation routine.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace host {

// Threads are numbered in order of creation; main is 0.
using ThreadId = std::uint32_t;

struct Choice {
    std::span<const ThreadId> ready; // never empty; the longest ready first
    bool may_continue = false;       // ready[0] is the thread that runs now: any other is a pre-emption
    std::uint64_t step = 0;          // choices asked of the scheduler so far, forced ones included
};

class Strategy {
  public:
    virtual ~Strategy() = default;
    virtual void StartRun() = 0;
    // The index in `choice.ready` of the thread to run. Asked only where there are two or more.
    virtual std::size_t PickNext(const Choice& choice) = 0;
};

// The answers of PickNext in order; as a text "0x41 2 0x7 1": an index, and how often in a row.
using Schedule = std::vector<std::uint32_t>;
std::string FormatSchedule(const Schedule& schedule);
// Throws std::invalid_argument when the text is not of that form.
Schedule ParseSchedule(std::string_view text);

std::shared_ptr<Strategy> MakeFifoStrategy();
// Each ready thread with the same probability at every point.
std::shared_ptr<Strategy> MakeRandomStrategy(std::uint64_t seed);
// Random priorities and depth-1 random points, within the first `length` choices, where the running thread
// drops below all others.
std::shared_ptr<Strategy> MakePctStrategy(std::uint64_t seed, unsigned depth, std::uint64_t length);
// The recorded answers, then first-in-first-out.
std::shared_ptr<Strategy> MakeReplayStrategy(Schedule schedule);

} // namespace host
