#include "apps/navoxctl/nmea.h"

#include <array>
#include <charconv>
#include <cmath>
#include <utility>

namespace navoxctl {
namespace {

constexpr std::size_t kAddressLength = 5;  // "GPGGA"
constexpr std::size_t kChecksumLength = 3; // "*hh"
constexpr std::size_t kTimeDigits = 6;     // "hhmmss"

template <class T>
std::optional<T> Number(std::string_view text)
{
    T value{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc{} || end != text.data() + text.size())
        return {};
    if constexpr (std::is_floating_point_v<T>) {
        if (!std::isfinite(value))
            return {};
    }
    return value;
}

bool AllDigits(std::string_view text)
{
    return text.find_first_not_of("0123456789") == std::string_view::npos;
}

unsigned Checksum(std::string_view body)
{
    unsigned sum = 0;
    for (const char c : body)
        sum ^= static_cast<unsigned char>(c);
    return sum;
}

// "ddmm.mmmm" or "dddmm.mmmm", and which half of the globe it is on.
std::optional<double> Angle(std::string_view text, std::string_view half, std::string_view halves,
                            double most)
{
    const std::optional<double> number = Number<double>(text);
    if (!number || *number < 0 || half.size() != 1 || halves.find(half) == std::string_view::npos)
        return {};
    const double degrees = std::floor(*number / 100);
    const double minutes = *number - degrees * 100;
    const double angle = degrees + minutes / 60;
    if (minutes >= 60 || angle > most)
        return {};
    return half[0] == halves[0] ? angle : -angle;
}

// Four fields from `first` on: latitude, N or S, longitude, E or W.
std::optional<Position> PositionAt(const Sentence& sentence, std::size_t first)
{
    const auto latitude = Angle(sentence.Field(first), sentence.Field(first + 1), "NS", 90);
    const auto longitude = Angle(sentence.Field(first + 2), sentence.Field(first + 3), "EW", 180);
    if (!latitude || !longitude)
        return {};
    return Position{*latitude, *longitude};
}

// "hhmmss" with an optional fraction becomes "hh:mm:ss.ff".
std::string ClockTime(std::string_view text)
{
    if (text.size() < kTimeDigits || !AllDigits(text.substr(0, kTimeDigits)))
        return {};
    const std::string_view fraction = text.substr(kTimeDigits);
    if (!fraction.empty() && (fraction[0] != '.' || !AllDigits(fraction.substr(1))))
        return {};
    if (text.substr(0, 2) > "23" || text.substr(2, 2) > "59" || text.substr(4, 2) > "60")
        return {};
    std::string time(text.substr(0, 2));
    time.append(":").append(text.substr(2, 2)).append(":").append(text.substr(4, 2));
    return time.append(fraction);
}

std::string CalendarDate(std::string_view year, std::string_view month, std::string_view day)
{
    if (!AllDigits(year) || !AllDigits(month) || !AllDigits(day) || day < "01" || day > "31" ||
        month < "01" || month > "12")
        return {};
    return std::string(year).append("-").append(month).append("-").append(day);
}

template <class T>
void Update(std::optional<T>& value, std::optional<T> news)
{
    if (news)
        value = news;
}

} // namespace

std::optional<Sentence> ParseSentence(std::string_view line)
{
    while (!line.empty() && (line.back() == '\r' || line.back() == '\n'))
        line.remove_suffix(1);
    if (line.size() < 1 + kAddressLength + kChecksumLength || line.front() != '$')
        return {};
    const std::string_view tail = line.substr(line.size() - kChecksumLength);
    std::string_view body = line.substr(1, line.size() - 1 - kChecksumLength);
    unsigned expected = 0;
    const auto [end, error] = std::from_chars(tail.data() + 1, tail.data() + tail.size(), expected, 16);
    if (tail.front() != '*' || error != std::errc{} || end != tail.data() + tail.size() ||
        expected != Checksum(body))
        return {};

    const std::string_view address = body.substr(0, body.find(','));
    if (address.size() != kAddressLength)
        return {};
    Sentence sentence{address.substr(0, 2), address.substr(2), {}};
    body.remove_prefix(kAddressLength);
    while (!body.empty()) { // at a comma
        body.remove_prefix(1);
        const std::string_view field = body.substr(0, body.find(','));
        sentence.fields.push_back(field);
        body.remove_prefix(field.size());
    }
    return sentence;
}

const char* QualityName(int quality)
{
    constexpr std::array kNames = {"none",  "GPS",       "DGPS",   "PPS",      "RTK",
                                   "float", "estimated", "manual", "simulated"};
    return quality >= 0 && static_cast<std::size_t>(quality) < kNames.size()
               ? kNames[static_cast<std::size_t>(quality)]
               : "?";
}

std::optional<FixAssembler::Timed> FixAssembler::TimedKind(const Sentence& sentence)
{
    if (sentence.kind == "GGA")
        return kGga;
    if (sentence.kind == "RMC")
        return kRmc;
    if (sentence.kind == "GLL")
        return kGll;
    if (sentence.kind == "ZDA")
        return kZda;
    return {};
}

std::string_view FixAssembler::TimeField(const Sentence& sentence, Timed kind)
{
    return sentence.Field(kind == kGll ? 4 : 0);
}

// A receiver without a time says the same sentences with empty fields; a repeated kind is another moment.
bool FixAssembler::BeginsAnother(const Sentence& sentence, Timed kind) const
{
    return seen_ != 0 && (TimeField(sentence, kind) != time_text_ || (seen_ & kind) != 0);
}

void FixAssembler::Note(const Sentence& s)
{
    if (s.kind == "GGA") {
        Update(fix_.position, PositionAt(s, 1));
        fix_.quality = Number<int>(s.Field(5)).value_or(0);
        Update(fix_.used, Number<int>(s.Field(6)));
        Update(fix_.hdop, Number<double>(s.Field(7)));
        Update(fix_.altitude, Number<double>(s.Field(8)));
    } else if (s.kind == "RMC") {
        Update(fix_.position, PositionAt(s, 2));
        Update(fix_.speed, Number<double>(s.Field(6)));
        Update(fix_.course, Number<double>(s.Field(7)));
        if (const std::string_view date = s.Field(8); date.size() == 6)
            date_ = CalendarDate("20" + std::string(date.substr(4)), date.substr(2, 2), date.substr(0, 2));
    } else if (s.kind == "GLL") {
        Update(fix_.position, PositionAt(s, 0));
    } else if (s.kind == "ZDA") {
        date_ = CalendarDate(s.Field(3), s.Field(2), s.Field(1));
    } else if (s.kind == "VTG") {
        Update(fix_.course, Number<double>(s.Field(0)));
        Update(fix_.speed, Number<double>(s.Field(4)));
    } else if (s.kind == "GSV") {
        if (const std::optional<int> count = Number<int>(s.Field(2)))
            in_view_.insert_or_assign(std::string(s.talker), *count);
    }
}

std::optional<Fix> FixAssembler::Take(std::string_view line)
{
    const std::optional<Sentence> sentence = ParseSentence(line);
    if (!sentence)
        return {};
    std::optional<Fix> ended;
    if (const std::optional<Timed> kind = TimedKind(*sentence)) {
        if (BeginsAnother(*sentence, *kind))
            ended = Finish();
        time_text_ = TimeField(*sentence, *kind);
        fix_.time = ClockTime(time_text_);
        seen_ |= *kind;
    }
    Note(*sentence);
    return ended;
}

std::optional<Fix> FixAssembler::Finish()
{
    if (seen_ == 0)
        return {};
    seen_ = 0;
    Fix ended = std::exchange(fix_, {});
    ended.date = date_;
    for (const auto& [talker, count] : in_view_)
        ended.in_view = ended.in_view.value_or(0) + count;
    return ended;
}

void LineSplitter::Take(std::string_view bytes, const std::function<void(std::string_view line)>& on_line)
{
    while (!bytes.empty()) {
        const std::size_t end = bytes.find('\n');
        const std::string_view part = bytes.substr(0, end);
        too_long_ = too_long_ || line_.size() + part.size() > kLongest;
        if (!too_long_)
            line_ += part;
        if (end == std::string_view::npos)
            return;
        bytes.remove_prefix(end + 1);
        if (!too_long_) {
            if (!line_.empty() && line_.back() == '\r')
                line_.pop_back();
            on_line(line_);
        }
        line_.clear();
        too_long_ = false;
    }
}

} // namespace navoxctl
