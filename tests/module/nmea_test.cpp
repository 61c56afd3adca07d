#include "module/nmea_generator.h"
#include "module/nmea_sentence.h"

#include "module/test_host.h"

#include <cmath>
#include <sstream>

namespace module {
namespace {

struct Sentence {
    std::string text; // without CR LF
    std::vector<std::string> fields;
};

std::vector<Sentence> Split(const std::string& burst)
{
    std::vector<Sentence> sentences;
    std::istringstream lines(burst);
    for (std::string line; std::getline(lines, line);) {
        EXPECT_EQ(line.back(), '\r');
        line.pop_back();
        const std::size_t star = line.find('*');
        EXPECT_EQ(star, line.size() - 3) << line;
        Sentence sentence{line, {}};
        std::istringstream fields(line.substr(1, star - 1) + ",");
        for (std::string field; std::getline(fields, field, ',');)
            sentence.fields.push_back(field);
        sentences.push_back(sentence);
    }
    return sentences;
}

// "ddmm.mmmm" and its hemisphere, in degrees.
double Degrees(const std::string& angle, const std::string& hemisphere)
{
    const double value = std::stod(angle);
    const double degrees = std::floor(value / 100) + std::fmod(value, 100) / 60;
    return hemisphere == "S" || hemisphere == "W" ? -degrees : degrees;
}

double Metres(Place a, Place b)
{
    constexpr double kDegree = 111'195;
    const double east = (b.longitude - a.longitude) * std::cos(a.latitude * 3.14159265 / 180);
    return std::hypot(b.latitude - a.latitude, east) * kDegree;
}

TEST(Nmea, SentencesCarryTheirChecksum)
{
    // From receivers in the field.
    EXPECT_EQ(NmeaSentence("GPVTG,0.00,T,,,0.00,N,0.00,K,A"), "$GPVTG,0.00,T,,,0.00,N,0.00,K,A*70\r\n");
    EXPECT_EQ(NmeaSentence("GPZDA,193913.00,07,09,2018,00,00"), "$GPZDA,193913.00,07,09,2018,00,00*63\r\n");
    EXPECT_EQ(NmeaSentence(""), "$*00\r\n");
}

TEST(Nmea, NumbersAnglesAndTimes)
{
    EXPECT_EQ(NmeaNumber(3.14159, 2), "3.14");
    EXPECT_EQ(NmeaNumber(-0.04, 1), "0.0");
    EXPECT_EQ(NmeaNumber(-29.55, 1), "-29.6");
    EXPECT_EQ(NmeaNumber(7, 0, 3), "007");
    EXPECT_EQ(NmeaLatitude(51.5), "5130.0000,N");
    EXPECT_EQ(NmeaLatitude(-0.000001), "0000.0001,S");
    EXPECT_EQ(NmeaLongitude(-7.9999999), "00800.0000,W") << "not 07 degrees and 60 minutes";
    EXPECT_EQ(NmeaLongitude(179.99), "17959.4000,E");
    EXPECT_EQ(NmeaTime(kTestStart + kSecond / 100 * 7 + 1), "235950.07");
    EXPECT_EQ(NmeaDate(kTestStart), "290224");
    EXPECT_EQ(NmeaDate(kTestStart + 10 * kSecond), "010324");
    EXPECT_EQ(NmeaTime(0) + NmeaDate(0), "000000.00010101");
}

TEST(Nmea, TheTimeOfDayIsFoundWhereASentenceHasOne)
{
    using Case = std::tuple<const char*, std::optional<double>>;
    const Case cases[] = {
        {"$GPGGA,000001.250,2712.6404,S*00\r\n", 1.25},
        {"$GNRMC,235959,A*00", 86399},
        {"$GLGLL,3806.6,N,12237.6,W,010000.5,A*00", 3600.5},
        {"$GPZDA,193913.00,07,09,2018,00,00*63\n", 70753},
        {"$GPGGA,,,,,,0,,,,M,,M,,*66", {}},
        {"$GPGGA,240000,,", {}},
        {"$GPGGA,0101", {}},
        {"$GPGGA,010101x", {}},
        {"$GPGGA,010101.2x", {}},
        {"$GPGSA,010101,3*00", {}},
        {"GPGGA,010101", {}},
        {"$GPGLL,1,N", {}},
        {"", {}},
    };
    for (const auto& [sentence, seconds] : cases) {
        const auto time = NmeaTimeOfDay(sentence);
        EXPECT_EQ(time ? std::optional(static_cast<double>(*time) / kSecond) : std::nullopt, seconds)
            << sentence;
    }
}

void ExpectOneStory(int rate)
{
    SCOPED_TRACE(rate);
    NmeaGenerator generator(rate);
    EXPECT_FALSE(generator.Due());
    generator.Start(kTestStart);
    std::optional<Place> before;
    for (int n = 1; n <= 60 * rate; ++n) {
        const Time due = generator.Due().value();
        EXPECT_EQ(due, kTestStart + (n * kSecond + rate - 1) / rate);
        std::string order;
        std::string gga_time;
        std::size_t used = 0;
        std::size_t in_view = 0;
        for (const Sentence& s : Split(generator.Take())) {
            EXPECT_LE(s.text.size(), 80U) << s.text;
            EXPECT_EQ(s.text + "\r\n", NmeaSentence(s.text.substr(1, s.text.size() - 4)));
            const std::string kind = s.fields[0].substr(2);
            order += order.size() >= 3 && order.substr(order.size() - 3) == kind ? "" : kind;
            if (kind == "GGA") {
                gga_time = s.fields[1];
                EXPECT_EQ(gga_time, NmeaTime(due));
                const Place place{Degrees(s.fields[2], s.fields[3]), Degrees(s.fields[4], s.fields[5])};
                const double moved = before ? Metres(*before, place) : 12.5 / rate;
                EXPECT_LE(moved, 12.5 / rate + 0.4) << "corners are cut, never rounded out";
                EXPECT_GE(moved, 12.5 / rate * 0.6 - 0.4) << s.text;
                before = place;
                used = std::stoul(s.fields[7]);
                EXPECT_GE(used, 6U);
            } else if (kind == "GSA") {
                EXPECT_EQ(s.fields.size(), 18U);
                EXPECT_EQ(std::count_if(s.fields.begin() + 3, s.fields.begin() + 15,
                                        [](const std::string& f) { return !f.empty(); }),
                          static_cast<long>(used));
                EXPECT_NEAR(std::stod(s.fields[15]),
                            std::hypot(std::stod(s.fields[16]), std::stod(s.fields[17])), 0.1);
            } else if (kind == "GSV") {
                in_view += (s.fields.size() - 4) / 4;
                EXPECT_EQ(s.fields[3], "11");
            } else if (kind == "RMC") {
                EXPECT_EQ(s.fields[1], gga_time);
                EXPECT_EQ(s.fields[9], NmeaDate(due));
                EXPECT_NEAR(std::stod(s.fields[7]), 12.5 * 3600 / 1852, 0.01);
            } else if (kind == "VTG") {
                EXPECT_NEAR(std::stod(s.fields[7]), 45, 0.01);
            } else {
                EXPECT_EQ(s.fields[5], gga_time) << s.text;
            }
        }
        EXPECT_EQ(order, n % rate == 0 ? "GGAGLLGSAGSVRMCVTG" : "GGAGLLGSARMCVTG");
        EXPECT_EQ(in_view, n % rate == 0 ? 11U : 0U);
    }
}

TEST(Generator, TellsOneStoryInAllSentences)
{
    for (const int rate : {1, 3, 7, 10})
        ExpectOneStory(rate);
}

TEST(Generator, StartsWithTheNextFixAndDependsOnTheTimeAlone)
{
    NmeaGenerator one(4);
    NmeaGenerator other(4);
    one.Start(kTestStart);
    for (int i = 0; i < 6; ++i)
        one.Take();
    other.Start(kTestStart + 3 * kSecond / 2);
    EXPECT_EQ(one.Due(), other.Due());
    EXPECT_EQ(one.Take(), other.Take());
    EXPECT_THROW(NmeaGenerator(0), std::invalid_argument);
    EXPECT_THROW(NmeaGenerator(11), std::invalid_argument);
}

TEST(Generator, SatellitesStayInTheSky)
{
    for (Time time = kTestStart; time < kTestStart + 86'400 * kSecond; time += 100 * kSecond) {
        for (const Satellite& s : SatellitesInView(time)) {
            EXPECT_TRUE(s.elevation >= 0 && s.elevation <= 90 && s.azimuth >= 0 && s.azimuth < 360);
            EXPECT_TRUE(s.elevation < 10 ? s.snr == 0 : s.snr >= 20 && s.snr <= 50) << s.number;
        }
    }
}

TEST(Track, GoesRoundAndComesBack)
{
    const Track square({{0, 0}, {0.001, 0}, {0.001, 0.001}, {0, 0.001}}, 10);
    EXPECT_NEAR(square.length(), 4 * 111.195, 0.1);
    const struct {
        double part, latitude, longitude, course;
    } cases[] = {{0.125, 0.0005, 0, 0},
                 {0.375, 0.001, 0.0005, 90},
                 {0.625, 0.0005, 0.001, 180},
                 {0.875, 0, 0.0005, 270}};
    for (const auto& c : cases) {
        for (const int rounds : {0, 7}) {
            const double seconds = (c.part + rounds) * square.length() / 10;
            const Fix fix = square.At(static_cast<Time>(seconds * kSecond));
            EXPECT_NEAR(fix.place.latitude, c.latitude, 1e-7);
            EXPECT_NEAR(fix.place.longitude, c.longitude, 1e-7);
            EXPECT_NEAR(fix.course, c.course, 1e-3);
        }
    }
    EXPECT_THROW(Track({{1, 1}, {1, 1}}, 10), std::invalid_argument);
    EXPECT_THROW(Track({}, 10), std::invalid_argument);
    EXPECT_THROW(Track({{1, 1}, {1, 2}}, 0), std::invalid_argument);
}

} // namespace
} // namespace module
