#include "module/nmea_replay.h"

#include "module/nmea_sentence.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <utility>

namespace module {
namespace {

constexpr Time kDay = 86'400 * kSecond;
constexpr int kHighestRate = 1000;
constexpr std::size_t kLongestBurst = 4096;

// Takes the first line with its line end off `text`.
std::string_view TakeLine(std::string_view& text)
{
    const std::size_t end = text.find('\n');
    const std::string_view line = text.substr(0, end == std::string_view::npos ? end : end + 1);
    text.remove_prefix(line.size());
    return line;
}

} // namespace

NmeaReplay::NmeaReplay(std::string_view log, ReplayOptions options) : options_(options)
{
    while (!log.empty()) {
        const std::string_view line = TakeLine(log);
        if (line.front() == '#') {
            continue;
        }
        // A sentence without a time belongs to the burst that is under way.
        const std::optional<Time> before = bursts_.empty() ? std::nullopt : bursts_.back().time_of_day;
        std::optional<Time> time = NmeaTimeOfDay(line);
        if (!time) {
            time = before;
        }
        if (bursts_.empty() || (before && time != before) ||
            bursts_.back().text.size() + line.size() > kLongestBurst) {
            bursts_.emplace_back();
        }
        bursts_.back().text += line;
        bursts_.back().time_of_day = time;
    }
    if (bursts_.empty()) {
        throw std::invalid_argument("the log holds nothing to replay");
    }
    if (options_.rate && (*options_.rate < 1 || *options_.rate > kHighestRate)) {
        throw std::invalid_argument("a replay gives 1 to 1000 bursts a second");
    }
}

NmeaReplay NmeaReplay::FromFile(const std::string& path, ReplayOptions options)
{
    std::ifstream file(path, std::ios::binary);
    std::string log;
    try {
        log.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    } catch (const std::ios_base::failure&) { // a folder
        file.setstate(std::ios::badbit);
    }
    if (!file) {
        throw std::runtime_error("cannot read the log " + path);
    }
    return NmeaReplay(log, options);
}

void NmeaReplay::Start(Time now)
{
    if (next_ < bursts_.size()) {
        due_ = now;
    }
}

std::string NmeaReplay::Take()
{
    const std::string& text = bursts_.at(next_).text;
    ++next_;
    if (next_ == bursts_.size() && options_.loop) {
        next_ = 0;
    }
    due_ = next_ < bursts_.size() ? std::optional(due_.value() + GapBefore(next_)) : std::nullopt;
    return text;
}

Time NmeaReplay::GapBefore(std::size_t burst) const
{
    if (options_.rate) {
        return kSecond / *options_.rate;
    }
    if (burst == 0 || !bursts_[burst - 1].time_of_day || !bursts_[burst].time_of_day) {
        return kSecond;
    }
    Time gap = *bursts_[burst].time_of_day - *bursts_[burst - 1].time_of_day;
    if (gap < -kDay / 2) { // past midnight
        gap += kDay;
    }
    return std::clamp<Time>(gap, 0, options_.longest_gap);
}

} // namespace module
