#include "ke/strategy.h"

#include <charconv>
#include <stdexcept>
#include <utility>

namespace host {
namespace {

class ReplayStrategy final : public Strategy {
  public:
    explicit ReplayStrategy(Schedule schedule) : schedule_(std::move(schedule)) {}
    void StartRun() override { next_ = 0; }
    std::size_t PickNext(const Choice& /*choice*/) override
    {
        if (next_ == schedule_.size())
            return 0;
        return schedule_[next_++]; // the scheduler checks that there is such a thread
    }

  private:
    const Schedule schedule_;
    std::size_t next_ = 0;
};

std::uint32_t ParseNumber(std::string_view& text)
{
    std::uint32_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc{})
        throw std::invalid_argument("a schedule has a number where this has \"" +
                                    std::string(text.substr(0, 8)) + "\"");
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    return value;
}

} // namespace

std::shared_ptr<Strategy> MakeReplayStrategy(Schedule schedule)
{
    return std::make_shared<ReplayStrategy>(std::move(schedule));
}

std::string FormatSchedule(const Schedule& schedule)
{
    std::string text;
    for (std::size_t i = 0; i < schedule.size();) {
        std::size_t run = 1;
        while (i + run < schedule.size() && schedule[i + run] == schedule[i])
            ++run;
        if (!text.empty())
            text += ' ';
        text += std::to_string(schedule[i]);
        if (run > 1)
            text += 'x' + std::to_string(run);
        i += run;
    }
    return text;
}

Schedule ParseSchedule(std::string_view text)
{
    constexpr std::uint32_t kLongest = 50'000'000;
    Schedule schedule;
    while (true) {
        while (text.starts_with(' '))
            text.remove_prefix(1);
        if (text.empty())
            return schedule;
        const std::uint32_t index = ParseNumber(text);
        std::uint32_t run = 1;
        if (text.starts_with('x')) {
            text.remove_prefix(1);
            run = ParseNumber(text);
        }
        if (run > kLongest - schedule.size())
            throw std::invalid_argument("a schedule has at most 50,000,000 choices");
        schedule.insert(schedule.end(), run, index);
    }
}

} // namespace host
