// A fuzzer's input, taken apart; beyond its end there are zeros.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <span>

namespace fuzz {

class Input {
  public:
    explicit Input(std::span<const std::uint8_t> bytes) : rest_(bytes) {}

    bool empty() const { return rest_.empty(); }

    std::span<const std::uint8_t> Take(std::size_t most)
    {
        const auto taken = rest_.first(std::min(most, rest_.size()));
        rest_ = rest_.subspan(taken.size());
        return taken;
    }

    std::uint8_t Byte()
    {
        const auto byte = Take(1);
        return byte.empty() ? 0 : byte.front();
    }

    std::uint16_t Word()
    {
        const int low = Byte();
        return static_cast<std::uint16_t>(low | Byte() << 8);
    }

    std::uint32_t Long()
    {
        const std::uint32_t low = Word();
        return low | static_cast<std::uint32_t>(Word()) << 16;
    }

  private:
    std::span<const std::uint8_t> rest_;
};

inline void Require(bool holds)
{
    if (!holds)
        std::abort();
}

} // namespace fuzz
