// A receiver on its way: GGA, GLL, GSA, RMC and VTG with every fix, the satellites in view (GSV) once a
// second. What it says depends on the time alone.
#pragma once

#include "module/nmea_source.h"
#include "module/nmea_track.h"

#include <vector>

namespace module {

struct Satellite {
    int number = 0;
    double elevation = 0; // degrees above the horizon
    double azimuth = 0;   // degrees from true north
    int snr = 0;          // dB-Hz; 0: not tracked
};

// The satellites in view at `time`, at most twelve of them tracked.
std::vector<Satellite> SatellitesInView(Time time);

class NmeaGenerator : public NmeaSource {
  public:
    static constexpr int kMaxRate = 10;

    // `rate` fixes a second, 1 to kMaxRate: std::invalid_argument otherwise. Fixes fall on whole
    // fractions of the second.
    explicit NmeaGenerator(int rate = 1, Track track = {});

    void Start(Time now) override;
    std::optional<Time> Due() const override;
    std::string Take() override;

  private:
    int rate_;
    Track track_;
    std::optional<std::int64_t> fix_; // number of the next fix since the beginning of time
};

} // namespace module
