// What an input of the driver's fuzzer is made of: a byte for the scheduler, then steps. A step begins with a byte:
// which one in the low half, for which of the four handles in the high half.
#pragma once

#include <cstdint>

namespace fuzz {

inline constexpr int kHandles = 4;

enum class Step : std::uint8_t {
    Open,
    Close,
    Read,     // length: 2 bytes
    Write,    // length: 1 byte, and the data
    Control,  // code: 4 bytes, length of the input: 1 byte, of the output: 2 bytes, and the input
    Cancel,   // which of the calls so far: 1 byte
    Arrive,   // length: 1 byte, and what the module says
    Pass,     // time, in units of 20 ms: 1 byte
    CancelIo, // all of the handle
    Count,
};

} // namespace fuzz
