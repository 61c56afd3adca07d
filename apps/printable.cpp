#include "apps/printable.h"

#include <cstddef>
#include <fmt/format.h>

namespace app {
namespace {

constexpr std::size_t kLongest = 1000;

bool IsControl(unsigned char byte)
{
    return byte < 0x20 || byte == 0x7F;
}

// A byte inside of a UTF-8 sequence.
bool GoesOn(char byte)
{
    return (static_cast<unsigned char>(byte) & 0xC0) == 0x80;
}

} // namespace

std::string Printable(std::string_view text)
{
    std::string line;
    for (const char character : text) {
        const auto byte = static_cast<unsigned char>(character);
        line += IsControl(byte) ? fmt::format("\\x{:02x}", byte) : std::string(1, character);
    }
    if (line.size() <= kLongest)
        return line;
    std::size_t head = kLongest / 2;
    std::size_t tail = line.size() - kLongest / 2;
    while (head > 0 && GoesOn(line[head]))
        --head;
    while (tail < line.size() && GoesOn(line[tail]))
        ++tail;
    return line.substr(0, head) + " ... " + line.substr(tail);
}

} // namespace app
