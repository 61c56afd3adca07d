// Probabilistic concurrency testing: a bug that needs `depth` ordering constraints shows in a run of n
// threads and k choices with a probability of at least 1 / (n * k^(depth-1)).
#include "ke/strategy.h"

#include <algorithm>
#include <random>
#include <set>
#include <unordered_map>

namespace host {
namespace {

class PctStrategy final : public Strategy {
  public:
    PctStrategy(std::uint64_t seed, unsigned depth, std::uint64_t length)
        : seed_(seed), depth_(depth), length_(std::max<std::uint64_t>(length, 1))
    {}

    void StartRun() override
    {
        random_.seed(seed_);
        priorities_.clear();
        changes_.clear();
        choices_ = 0;
        lowest_ = 0;
        for (unsigned i = 1; i < depth_; ++i)
            changes_.insert(random_() % length_);
    }

    std::size_t PickNext(const Choice& choice) override
    {
        if (changes_.contains(choices_++))
            priorities_[choice.ready[Highest(choice)]] = --lowest_;
        return Highest(choice);
    }

  private:
    std::size_t Highest(const Choice& choice)
    {
        std::size_t best = 0;
        for (std::size_t i = 1; i < choice.ready.size(); ++i) {
            if (PriorityOf(choice.ready[i]) > PriorityOf(choice.ready[best]))
                best = i;
        }
        return best;
    }

    std::int64_t PriorityOf(ThreadId thread)
    {
        const auto [found, fresh] = priorities_.try_emplace(thread, 0);
        if (fresh)
            found->second = static_cast<std::int64_t>(random_() >> 1);
        return found->second;
    }

    const std::uint64_t seed_;
    const unsigned depth_;
    const std::uint64_t length_;
    std::mt19937_64 random_;
    std::unordered_map<ThreadId, std::int64_t> priorities_;
    std::set<std::uint64_t> changes_; // choices at which the running thread drops below all others
    std::uint64_t choices_ = 0;
    std::int64_t lowest_ = 0;
};

} // namespace

std::shared_ptr<Strategy> MakePctStrategy(std::uint64_t seed, unsigned depth, std::uint64_t length)
{
    return std::make_shared<PctStrategy>(seed, depth, length);
}

} // namespace host
