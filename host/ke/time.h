// Time as the platform counts it.
#pragma once

#include <cstdint>

namespace host {

// 100-ns units. A system time counts from 1601-01-01 00:00 UTC, an interrupt time from the kernel's start.
using Time = std::int64_t;

inline constexpr Time kMicrosecond = 10;
inline constexpr Time kMillisecond = 1'000 * kMicrosecond;
inline constexpr Time kSecond = 1'000 * kMillisecond;
inline constexpr Time kForever = INT64_MAX;

} // namespace host
