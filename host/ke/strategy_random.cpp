#include "ke/strategy.h"

#include <random>

namespace host {
namespace {

class RandomStrategy final : public Strategy {
  public:
    explicit RandomStrategy(std::uint64_t seed) : seed_(seed) {}
    void StartRun() override { random_.seed(seed_); }
    std::size_t PickNext(const Choice& choice) override { return random_() % choice.ready.size(); }

  private:
    const std::uint64_t seed_;
    std::mt19937_64 random_;
};

} // namespace

std::shared_ptr<Strategy> MakeRandomStrategy(std::uint64_t seed)
{
    return std::make_shared<RandomStrategy>(seed);
}

} // namespace host
