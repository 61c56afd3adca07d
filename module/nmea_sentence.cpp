#include "module/nmea_sentence.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>

namespace module {
namespace {

using Ticks = std::chrono::duration<Time, std::ratio<1, kSecond>>;

constexpr std::size_t kTimeDigits = 6;

std::chrono::time_point<std::chrono::system_clock, Ticks> UtcOf(Time time)
{
    constexpr std::chrono::sys_days kEpoch = std::chrono::year{1601} / 1 / 1;
    return kEpoch + Ticks(time);
}

std::string Digits(std::int64_t value, int width)
{
    std::string digits = std::to_string(value);
    const auto missing = width - static_cast<int>(digits.size());
    return std::string(static_cast<std::size_t>(std::max(missing, 0)), '0') + digits;
}

// Degrees and minutes; rounding carries into the degrees, so that 60 minutes never show.
std::string Angle(double degrees, int degree_digits)
{
    constexpr std::int64_t kPerMinute = 10'000;
    constexpr std::int64_t kPerDegree = 60 * kPerMinute;
    const std::int64_t units = std::llround(std::fabs(degrees) * kPerDegree);
    return Digits(units / kPerDegree, degree_digits) + Digits(units % kPerDegree / kPerMinute, 2) + "." +
           Digits(units % kPerMinute, 4);
}

std::string_view Field(std::string_view sentence, int index)
{
    for (; index > 0; --index) {
        const std::size_t comma = sentence.find(',');
        if (comma == std::string_view::npos) {
            return {};
        }
        sentence.remove_prefix(comma + 1);
    }
    return sentence.substr(0, sentence.find_first_of(",*\r\n"));
}

bool IsDigit(char c)
{
    return c >= '0' && c <= '9';
}

// "hhmmss" with an optional fraction.
std::optional<Time> ParseTime(std::string_view text)
{
    if (text.size() < kTimeDigits || !std::all_of(text.begin(), text.begin() + kTimeDigits, IsDigit)) {
        return {};
    }
    const auto two = [text](std::size_t at) { return (text[at] - '0') * 10 + (text[at + 1] - '0'); };
    const int hours = two(0);
    const int minutes = two(2);
    const int seconds = two(4);
    if (hours > 23 || minutes > 59 || seconds > 60) { // 60: a leap second
        return {};
    }
    Time time = ((hours * 60 + minutes) * 60 + seconds) * kSecond;
    std::string_view fraction = text.substr(kTimeDigits);
    if (fraction.empty()) {
        return time;
    }
    if (fraction.front() != '.') {
        return {};
    }
    fraction.remove_prefix(1);
    for (Time unit = kSecond / 10; !fraction.empty(); unit /= 10, fraction.remove_prefix(1)) {
        if (!IsDigit(fraction.front())) {
            return {};
        }
        time += (fraction.front() - '0') * unit;
    }
    return time;
}

} // namespace

std::uint8_t NmeaChecksum(std::string_view body)
{
    std::uint8_t sum = 0;
    for (const char c : body) {
        sum ^= static_cast<std::uint8_t>(c);
    }
    return sum;
}

std::string NmeaSentence(std::string_view body)
{
    std::array<char, 3> checksum{};
    std::snprintf(checksum.data(), checksum.size(), "%02X", unsigned{NmeaChecksum(body)});
    return "$" + std::string(body) + "*" + checksum.data() + "\r\n";
}

std::string NmeaNumber(double value, int decimals, int width)
{
    std::int64_t scale = 1;
    for (int i = 0; i < decimals; ++i) {
        scale *= 10;
    }
    const std::int64_t units = std::llround(std::fabs(value) * static_cast<double>(scale));
    std::string text = (value < 0 && units != 0 ? "-" : "") + Digits(units / scale, width);
    if (decimals > 0) {
        text += "." + Digits(units % scale, decimals);
    }
    return text;
}

std::string NmeaLatitude(double degrees)
{
    return Angle(degrees, 2) + (degrees < 0 ? ",S" : ",N");
}

std::string NmeaLongitude(double degrees)
{
    return Angle(degrees, 3) + (degrees < 0 ? ",W" : ",E");
}

std::string NmeaTime(Time time)
{
    const auto utc = UtcOf(time);
    const std::chrono::hh_mm_ss clock(utc - std::chrono::floor<std::chrono::days>(utc));
    const auto hundredths = clock.subseconds().count() / (kSecond / 100);
    return Digits(clock.hours().count(), 2) + Digits(clock.minutes().count(), 2) +
           Digits(clock.seconds().count(), 2) + "." + Digits(hundredths, 2);
}

std::string NmeaDate(Time time)
{
    const std::chrono::year_month_day date(std::chrono::floor<std::chrono::days>(UtcOf(time)));
    return Digits(unsigned{date.day()}, 2) + Digits(unsigned{date.month()}, 2) +
           Digits(int{date.year()} % 100, 2);
}

std::optional<Time> NmeaTimeOfDay(std::string_view sentence)
{
    const std::string_view address = Field(sentence, 0);
    if (address.size() != 6 || address.front() != '$') {
        return {};
    }
    const std::string_view kind = address.substr(3);
    if (kind == "GLL") {
        return ParseTime(Field(sentence, 5));
    }
    if (kind == "GGA" || kind == "RMC" || kind == "ZDA") {
        return ParseTime(Field(sentence, 1));
    }
    return {};
}

} // namespace module
