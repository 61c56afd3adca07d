// NMEA 0183 sentences: checksums, fields, and the forms of numbers in them.
#pragma once

#include "module/device.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace module {

// The exclusive or of all characters between '$' and '*'.
std::uint8_t NmeaChecksum(std::string_view body);

// "$body*hh\r\n"
std::string NmeaSentence(std::string_view body);

// Rounded to `decimals` places, whatever the locale; `width` digits at least before the point.
std::string NmeaNumber(double value, int decimals, int width = 1);

// "ddmm.mmmm,N" and "dddmm.mmmm,E"
std::string NmeaLatitude(double degrees);
std::string NmeaLongitude(double degrees);

// "hhmmss.ss", cut off below, and "ddmmyy". UTC.
std::string NmeaTime(Time time);
std::string NmeaDate(Time time);

// The time of day in a GGA, RMC, GLL or ZDA sentence of any talker, since midnight. Nothing when the
// sentence is of another kind, or its time is absent or no time.
std::optional<Time> NmeaTimeOfDay(std::string_view sentence);

} // namespace module
