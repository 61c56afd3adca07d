#include "module/nmea_track.h"

#include <cmath>
#include <numbers>
#include <stdexcept>

namespace module {
namespace {

constexpr double kMetresPerDegree = 111'195.0; // of latitude, on a sphere
constexpr double kRadians = std::numbers::pi / 180;
constexpr double kMeanAltitude = 40;
constexpr double kHills = 8;

double MetresPerDegreeEast(double latitude)
{
    return kMetresPerDegree * std::cos(latitude * kRadians);
}

} // namespace

Track::Track() : Track({{51.4779, -0.0040}, {51.4812, -0.0003}, {51.4790, 0.0047}, {51.4748, 0.0012}}, 12.5)
{}

Track::Track(std::vector<Place> corners, double metres_per_second) : speed_(metres_per_second)
{
    if (!(speed_ > 0)) {
        throw std::invalid_argument("a track needs a positive speed");
    }
    for (std::size_t i = 0; i < corners.size(); ++i) {
        const Place& from = corners[i];
        const Place& to = corners[(i + 1) % corners.size()];
        Leg leg{.from = from, .start = length_};
        leg.north = (to.latitude - from.latitude) * kMetresPerDegree;
        leg.east = (to.longitude - from.longitude) * MetresPerDegreeEast(from.latitude);
        leg.length = std::hypot(leg.north, leg.east);
        if (leg.length > 0) {
            length_ += leg.length;
            legs_.push_back(leg);
        }
    }
    if (legs_.empty()) {
        throw std::invalid_argument("a track needs two different corners");
    }
}

Fix Track::At(Time time) const
{
    const double travelled =
        std::fmod(static_cast<double>(time) / static_cast<double>(kSecond) * speed_, length_);
    const Leg* leg = &legs_.front();
    for (const Leg& candidate : legs_) {
        if (candidate.start <= travelled) {
            leg = &candidate;
        }
    }
    const double part = (travelled - leg->start) / leg->length;
    const double course = std::atan2(leg->east, leg->north) / kRadians;
    const double round = travelled / length_ * 2 * std::numbers::pi;
    return {.place = {leg->from.latitude + part * leg->north / kMetresPerDegree,
                      leg->from.longitude + part * leg->east / MetresPerDegreeEast(leg->from.latitude)},
            .course = course < 0 ? course + 360 : course,
            .speed = speed_,
            .altitude = kMeanAltitude + kHills * std::sin(round)};
}

} // namespace module
