#include "ke/strategy.h"

namespace host {
namespace {

// The running thread goes on until it blocks; then the one that has been ready longest.
class FifoStrategy final : public Strategy {
  public:
    void StartRun() override {}
    std::size_t PickNext(const Choice& /*choice*/) override { return 0; }
};

} // namespace

std::shared_ptr<Strategy> MakeFifoStrategy()
{
    return std::make_shared<FifoStrategy>();
}

} // namespace host
