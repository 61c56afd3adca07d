// A recorded log played again, byte for byte with its line ends, but for comments: lines that begin with
// '#'.
#pragma once

#include "module/nmea_source.h"

#include <string_view>
#include <vector>

namespace module {

struct ReplayOptions {
    // Bursts a second, 1 to 1000; without it the times in GGA, RMC, GLL and ZDA sentences set the pace.
    std::optional<int> rate{};
    // From the beginning again, one second after the last burst.
    bool loop = false;
    // Longer breaks in the recording are cut down to this.
    Time longest_gap = 60 * kSecond;
};

class NmeaReplay : public NmeaSource {
  public:
    // Throws std::invalid_argument when there is nothing but comments in `log`, or the rate is
    // not 1 to 1000.
    explicit NmeaReplay(std::string_view log, ReplayOptions options = {});

    // Reads the log from a file; std::runtime_error when that fails.
    static NmeaReplay FromFile(const std::string& path, ReplayOptions options = {});

    // The first burst, or the one at which output stopped, is due at once.
    void Start(Time now) override;
    std::optional<Time> Due() const override { return due_; }
    std::string Take() override;

    std::size_t bursts() const { return bursts_.size(); }

  private:
    struct Burst {
        std::string text;
        std::optional<Time> time_of_day;
    };

    Time GapBefore(std::size_t burst) const;

    std::vector<Burst> bursts_;
    ReplayOptions options_;
    std::size_t next_ = 0;
    std::optional<Time> due_;
};

} // namespace module
