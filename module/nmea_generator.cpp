#include "module/nmea_generator.h"

#include "module/nmea_sentence.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <stdexcept>
#include <utility>

namespace module {
namespace {

constexpr double kKnotsPerMetreSecond = 3600.0 / 1852.0;
constexpr double kKilometresHourPerMetreSecond = 3.6;
constexpr double kGeoidSeparation = 45.4;
constexpr double kLowestTracked = 10; // degrees of elevation
constexpr std::size_t kChannels = 12;
constexpr std::size_t kPerGsv = 4;

constexpr Satellite kConstellation[] = {
    {2, 58, 83, 0},  {5, 27, 201, 0}, {7, 14, 42, 0},   {11, 71, 300, 0}, {13, 39, 145, 0}, {15, 22, 260, 0},
    {18, 9, 331, 0}, {20, 46, 18, 0}, {24, 33, 110, 0}, {28, 62, 224, 0}, {30, 18, 287, 0},
};

struct Precision {
    double horizontal;
    double vertical;
    double position;
};

Precision PrecisionWith(std::size_t satellites)
{
    const double horizontal = 0.5 + 4.0 / static_cast<double>(satellites);
    const double vertical = 1.6 * horizontal;
    return {horizontal, vertical, std::hypot(horizontal, vertical)};
}

// Everything a burst tells of.
struct Epoch {
    Time time;
    Fix fix;
    std::vector<Satellite> in_view;
    std::vector<Satellite> used;
    Precision precision;
};

std::string Position(const Epoch& epoch)
{
    return NmeaLatitude(epoch.fix.place.latitude) + "," + NmeaLongitude(epoch.fix.place.longitude);
}

std::string Gga(const Epoch& epoch)
{
    return NmeaSentence("GPGGA," + NmeaTime(epoch.time) + "," + Position(epoch) + ",1," +
                        NmeaNumber(static_cast<double>(epoch.used.size()), 0, 2) + "," +
                        NmeaNumber(epoch.precision.horizontal, 1) + "," + NmeaNumber(epoch.fix.altitude, 1) +
                        ",M," + NmeaNumber(kGeoidSeparation, 1) + ",M,,");
}

std::string Gll(const Epoch& epoch)
{
    return NmeaSentence("GPGLL," + Position(epoch) + "," + NmeaTime(epoch.time) + ",A,A");
}

std::string Gsa(const Epoch& epoch)
{
    std::string body = "GPGSA,A,3";
    for (std::size_t i = 0; i < kChannels; ++i) {
        body += "," + (i < epoch.used.size() ? NmeaNumber(epoch.used[i].number, 0, 2) : "");
    }
    return NmeaSentence(body + "," + NmeaNumber(epoch.precision.position, 1) + "," +
                        NmeaNumber(epoch.precision.horizontal, 1) + "," +
                        NmeaNumber(epoch.precision.vertical, 1));
}

std::string Gsv(const Epoch& epoch)
{
    const std::size_t count = epoch.in_view.size();
    const std::size_t sentences = (count + kPerGsv - 1) / kPerGsv;
    std::string burst;
    for (std::size_t n = 0; n < sentences; ++n) {
        std::string body = "GPGSV," + std::to_string(sentences) + "," + std::to_string(n + 1) + "," +
                           NmeaNumber(static_cast<double>(count), 0, 2);
        for (std::size_t i = n * kPerGsv; i < std::min(count, (n + 1) * kPerGsv); ++i) {
            const Satellite& s = epoch.in_view[i];
            body += "," + NmeaNumber(s.number, 0, 2) + "," + NmeaNumber(std::floor(s.elevation), 0, 2) + "," +
                    NmeaNumber(std::floor(s.azimuth), 0, 3) + "," +
                    (s.snr > 0 ? NmeaNumber(s.snr, 0, 2) : "");
        }
        burst += NmeaSentence(body);
    }
    return burst;
}

std::string Rmc(const Epoch& epoch)
{
    return NmeaSentence("GPRMC," + NmeaTime(epoch.time) + ",A," + Position(epoch) + "," +
                        NmeaNumber(epoch.fix.speed * kKnotsPerMetreSecond, 2) + "," +
                        NmeaNumber(epoch.fix.course, 1) + "," + NmeaDate(epoch.time) + ",,,A");
}

std::string Vtg(const Epoch& epoch)
{
    return NmeaSentence("GPVTG," + NmeaNumber(epoch.fix.course, 1) + ",T,,M," +
                        NmeaNumber(epoch.fix.speed * kKnotsPerMetreSecond, 2) + ",N," +
                        NmeaNumber(epoch.fix.speed * kKilometresHourPerMetreSecond, 2) + ",K,A");
}

} // namespace

std::vector<Satellite> SatellitesInView(Time time)
{
    constexpr double kDegreesPerSecond = 1.0 / 120; // once round in half a day
    constexpr double kSwing = 7;                    // degrees of elevation, once an hour
    const double seconds = static_cast<double>(time) / static_cast<double>(kSecond);
    std::vector<Satellite> satellites;
    for (Satellite s : kConstellation) {
        s.azimuth = std::fmod(s.azimuth + seconds * kDegreesPerSecond, 360);
        s.elevation += kSwing * std::sin(seconds * 2 * std::numbers::pi / 3600 + s.number);
        if (s.elevation >= kLowestTracked) {
            s.snr = 26 + static_cast<int>(s.elevation / 4) +
                    (s.number + static_cast<int>(std::fmod(seconds, 3))) % 3;
        }
        satellites.push_back(s);
    }
    return satellites;
}

NmeaGenerator::NmeaGenerator(int rate, Track track) : rate_(rate), track_(std::move(track))
{
    if (rate < 1 || rate > kMaxRate) {
        throw std::invalid_argument("a receiver gives 1 to 10 fixes a second");
    }
}

void NmeaGenerator::Start(Time now)
{
    fix_ = now * rate_ / kSecond + 1;
}

std::optional<Time> NmeaGenerator::Due() const
{
    if (!fix_) {
        return {};
    }
    return (*fix_ * kSecond + rate_ - 1) / rate_;
}

std::string NmeaGenerator::Take()
{
    Epoch epoch{.time = Due().value(), .fix = {}, .in_view = {}, .used = {}, .precision = {}};
    epoch.fix = track_.At(epoch.time);
    epoch.in_view = SatellitesInView(epoch.time);
    std::ranges::copy_if(epoch.in_view, std::back_inserter(epoch.used),
                         [](const Satellite& s) { return s.snr > 0; });
    epoch.precision = PrecisionWith(epoch.used.size());

    const bool whole_second = *fix_ % rate_ == 0;
    ++*fix_;
    return Gga(epoch) + Gll(epoch) + Gsa(epoch) + (whole_second ? Gsv(epoch) : "") + Rmc(epoch) + Vtg(epoch);
}

} // namespace module
