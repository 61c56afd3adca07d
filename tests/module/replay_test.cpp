#include "module/nmea_replay.h"
#include "module/nmea_sentence.h"

#include "module/test_host.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace module {
namespace {

constexpr std::string_view kLog = "# a comment\n"
                                  "$GPGSV,1,1,00*79\r\n"
                                  "$GPGGA,235958.500,,*00\r\n"
                                  "$GPRMC,235958.500,V*00\n"
                                  "# another\r\n"
                                  "noise, as it came\r\n"
                                  "$GPZDA,235959.00,01,01,2024,00,00*00\r\n"
                                  "$GPGLL,,,,,000001.00,V*00\r\n"
                                  "$GPVTG,,T,,M,,N,,K*00";

// Time since the start, and what came then.
using Played = std::vector<std::pair<Time, std::string>>;

Played PlayAll(NmeaReplay& replay, std::size_t most = 100)
{
    Played played;
    replay.Start(kTestStart);
    while (replay.Due() && played.size() < most) {
        const Time at = *replay.Due() - kTestStart;
        played.emplace_back(at, replay.Take());
    }
    return played;
}

const std::string kFirstBurst = "$GPGSV,1,1,00*79\r\n$GPGGA,235958.500,,*00\r\n$GPRMC,235958.500,V*00\n"
                                "noise, as it came\r\n";
const std::string kSecondBurst = "$GPZDA,235959.00,01,01,2024,00,00*00\r\n";
const std::string kThirdBurst = "$GPGLL,,,,,000001.00,V*00\r\n$GPVTG,,T,,M,,N,,K*00";

TEST(Replay, KeepsEveryByteAndThePaceOfTheRecording)
{
    NmeaReplay replay(kLog);
    EXPECT_EQ(PlayAll(replay),
              (Played{{0, kFirstBurst}, {kSecond / 2, kSecondBurst}, {5 * kSecond / 2, kThirdBurst}}));
    EXPECT_FALSE(replay.Due());
    replay.Start(kTestStart + 100 * kSecond);
    EXPECT_FALSE(replay.Due()) << "played once";
}

TEST(Replay, OptionsChangeThePaceOnly)
{
    NmeaReplay at_rate(kLog, {.rate = 4});
    EXPECT_EQ(PlayAll(at_rate),
              (Played{{0, kFirstBurst}, {kSecond / 4, kSecondBurst}, {kSecond / 2, kThirdBurst}}));
    NmeaReplay looped(kLog, {.loop = true});
    const Played played = PlayAll(looped, 6);
    ASSERT_EQ(played.size(), 6U);
    EXPECT_EQ(played[3], std::pair(7 * kSecond / 2, kFirstBurst));
    NmeaReplay cut("$GPGGA,010000,*00\n$GPGGA,020000,*00\n$GPGGA,015959,*00\n", {.longest_gap = 3 * kSecond});
    const Played gaps = PlayAll(cut);
    ASSERT_EQ(gaps.size(), 3U);
    EXPECT_EQ(gaps[1].first, 3 * kSecond);
    EXPECT_EQ(gaps[2].first, 3 * kSecond) << "a step back is no wait";
}

TEST(Replay, GoesOnWhereItWasStopped)
{
    NmeaReplay replay(kLog);
    replay.Start(kTestStart);
    replay.Take();
    replay.Start(kTestStart + 50 * kSecond);
    EXPECT_EQ(replay.Due(), kTestStart + 50 * kSecond);
    EXPECT_EQ(replay.Take(), kSecondBurst);
}

TEST(Replay, ALogWithoutTimesComesInBoundedBursts)
{
    std::string log;
    while (log.size() < 10'000)
        log += NmeaSentence("GPVTG,,T,,M,,N,,K");
    NmeaReplay replay(log);
    std::string all;
    for (const auto& [time, text] : PlayAll(replay)) {
        EXPECT_EQ(time % kSecond, 0);
        EXPECT_LE(text.size(), 4096U);
        all += text;
    }
    EXPECT_EQ(all, log);
    EXPECT_EQ(replay.bursts(), 3U);
}

TEST(Replay, RefusesWhatItCannotPlay)
{
    EXPECT_THROW(NmeaReplay(""), std::invalid_argument);
    EXPECT_THROW(NmeaReplay("# only words\n"), std::invalid_argument);
    EXPECT_THROW(NmeaReplay(kLog, {.rate = 0}), std::invalid_argument);
    EXPECT_THROW(NmeaReplay(kLog, {.rate = 1001}), std::invalid_argument);
    EXPECT_THROW(NmeaReplay::FromFile("/nonexistent/log"), std::runtime_error);
}

// Through the module, packets and all.
TEST(Replay, RecordingsOfRealReceiversArriveByteForByte)
{
    const char* folder = std::getenv("NAVOX_NMEA_DATA");
    if (folder == nullptr || !std::filesystem::is_directory(folder))
        GTEST_SKIP() << "NAVOX_NMEA_DATA names no folder of recordings";
    int recordings = 0;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        if (entry.path().extension() != ".log")
            continue;
        ++recordings;
        std::ifstream file(entry.path(), std::ios::binary);
        std::string expected;
        for (std::string line; std::getline(file, line);)
            if (line.front() != '#')
                expected += line + (file.eof() ? "" : "\n");
        TestHost host({}, std::make_unique<NmeaReplay>(NmeaReplay::FromFile(entry.path())));
        host.Open();
        std::string arrived;
        for (const auto& [time, text] : host.RunUntil(host.now + 3600 * kSecond))
            arrived += text;
        EXPECT_EQ(arrived, expected) << entry.path();
    }
    EXPECT_GT(recordings, 0);
}

} // namespace
} // namespace module
