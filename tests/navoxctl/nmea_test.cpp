#include "apps/navoxctl/monitor.h"
#include "apps/navoxctl/nmea.h"
#include "module/nmea_sentence.h"

#include <gtest/gtest.h>

using namespace navoxctl;

namespace {

// With its checksum.
std::string S(std::string_view body)
{
    return module::NmeaSentence(body);
}

TEST(Sentence, IsParsedOnlyWhenItsChecksumIsRight)
{
    struct Case {
        const char* line;
        bool good;
    } const cases[] = {
        {"$GPGSA,A,1*2C", false},
        {"$GPGLL,,,,,,V*06", true},
        {"$GPGLL,,,,,,V*06\r\n", true},
        {"$GPGLL,,,,,,V*6", false},
        {"$GPGLL,,,,,,V*006", false},
        {"$GPGLL,,,,,,V*-6", false},
        {"$GPGLL,,,,,,V*07", false},
        {"$GPGLL,,,,,,V", false},
        {"GPGLL,,,,,,V*06", false},
        {"$GPGGA,,,,,,0,00,0.5,,M,,,,*00", true}, // the empty sentence of a fresh handle
        {"$PGRMZ*52", true},
        {"$*00", false},
        {"$", false},
        {"", false},
    };
    for (const Case& c : cases)
        EXPECT_EQ(ParseSentence(c.line).has_value(), c.good) << c.line;
}

TEST(Sentence, HasItsFieldsAndEmptyOnesBehindThem)
{
    const std::string line = S("GLGSV,3,1,09,,x,");
    const std::optional<Sentence> sentence = ParseSentence(line);
    ASSERT_TRUE(sentence);
    EXPECT_EQ(sentence->talker, "GL");
    EXPECT_EQ(sentence->kind, "GSV");
    EXPECT_EQ(sentence->fields, (std::vector<std::string_view>{"3", "1", "09", "", "x", ""}));
    EXPECT_EQ(sentence->Field(2), "09");
    EXPECT_EQ(sentence->Field(6), "");
}

// The row that the sentences of one moment become.
std::string RowOf(const std::vector<std::string>& bodies)
{
    FixAssembler assembler;
    for (const std::string& body : bodies)
        EXPECT_FALSE(assembler.Take(S(body))) << body;
    const std::optional<Fix> fix = assembler.Finish();
    if (!fix)
        return "none";
    // Runs of blanks as one.
    std::string row;
    for (const char c : FixRow(*fix)) {
        if (c != ' ' || row.empty() || row.back() != ' ')
            row += c;
    }
    return row;
}

TEST(Fix, SaysWhatTheSentencesOfItsMomentSay)
{
    struct Case {
        std::vector<std::string> bodies;
        const char* row;
    } const cases[] = {
        {{"GPGGA,123519,4807.038,N,01131.000,E,1,08,0.9,545.4,M,46.9,M,,", "GPGSV,3,1,11,03,03,111,00",
          "GPGSV,3,2,11,14,25,170,00", "GLGSV,1,1,04,65,10,010,20",
          "GPRMC,123519,A,4807.038,N,01131.000,E,022.4,084.4,230394,003.1,W"},
         "2094-03-23 12:35:19 48.117300 11.516667 545.4 GPS 8/15 0.9 22.4 84.4"},
        {{"GNGLL,4916.45,S,12311.12,W,225444.20,A,D"},
         "- 22:54:44.20 -49.274167 -123.185333 - none -/- - - -"},
        {{"GPGGA,000000.00,0000.0000,S,00000.0000,W,2,4,1.0,-7.25,M,,,,",
          "GPVTG,054.7,T,034.4,M,005.5,N,010.2,K"},
         "- 00:00:00.00 -0.000000 -0.000000 -7.2 DGPS 4/- 1.0 5.5 54.7"},
        {{"GPZDA,201530.00,04,07,2026,00,00"}, "2026-07-04 20:15:30.00 - - - none -/- - - -"},
        {{"GPGGA,,,,,,0,00,99.9,,,,,,"}, "- - - - - none 0/- 99.9 - -"},
        // Half of a position is none, and neither is one beyond the poles or the date line.
        {{"GPGGA,010203,4807.038,N,,,1,08,0.9,,M,,M,,"}, "- 01:02:03 - - - GPS 8/- 0.9 - -"},
        {{"GPGLL,9000.01,N,00000.00,E,010203,A"}, "- 01:02:03 - - - none -/- - - -"},
        {{"GPGLL,8960.00,N,00000.00,E,010203,A"}, "- 01:02:03 - - - none -/- - - -"},
        {{"GPGLL,1000.00,N,18000.01,E,010203,A"}, "- 01:02:03 - - - none -/- - - -"},
        {{"GPGLL,1000.00,X,01000.00,E,010203,A"}, "- 01:02:03 - - - none -/- - - -"},
        {{"GPGLL,nan,N,1e400,E,010203,A"}, "- 01:02:03 - - - none -/- - - -"},
        // Times and dates that are none.
        {{"GPGLL,1000.00,N,01000.00,E,246060,A"}, "- - 10.000000 10.000000 - none -/- - - -"},
        {{"GPGLL,1000.00,N,01000.00,E,0102x3,A"}, "- - 10.000000 10.000000 - none -/- - - -"},
        {{"GPRMC,010203,V,,,,,,,321326,,"}, "- 01:02:03 - - - none -/- - - -"},
        // Nothing that carries a time.
        {{"GPGSA,A,1,,,,,,,,,,,,,,,", "GPVTG,1,T,,M,2,N,,K"}, "none"},
    };
    for (const Case& c : cases)
        EXPECT_EQ(RowOf(c.bodies), c.row) << c.bodies.front();
}

TEST(Fix, EndsWhereAnotherMomentBegins)
{
    FixAssembler assembler;
    EXPECT_FALSE(assembler.Take(S("GPGSV,1,1,07,,,,")));
    EXPECT_FALSE(assembler.Take(S("GPRMC,120000,A,,,,,1.0,,010124,,")));
    EXPECT_FALSE(assembler.Take(S("GPGGA,120000,,,,,1,05,,,M,,,,")));
    EXPECT_FALSE(assembler.Take("$GPGGA,120001,,,,,1,09,,,M,,,,*00")); // damaged
    std::optional<Fix> fix = assembler.Take(S("GPGGA,120001,,,,,1,06,,,M,,,,"));
    ASSERT_TRUE(fix);
    EXPECT_EQ(fix->time, "12:00:00");
    EXPECT_EQ(fix->used, 5);
    EXPECT_EQ(fix->speed, 1.0);
    // A receiver that has lost the time repeats itself.
    fix = assembler.Take(S("GPGGA,,,,,,0,00,,,M,,,,"));
    ASSERT_TRUE(fix);
    EXPECT_EQ(fix->used, 6);
    EXPECT_FALSE(fix->speed) << "left over from the moment before";
    EXPECT_EQ(fix->date, "2024-01-01");
    EXPECT_EQ(fix->in_view, 7);
    fix = assembler.Take(S("GPGGA,,,,,,0,01,,,M,,,,"));
    ASSERT_TRUE(fix);
    EXPECT_EQ(fix->used, 0);
    EXPECT_EQ(assembler.Finish()->used, 1);
    EXPECT_FALSE(assembler.Finish());
}

TEST(Lines, AreCutHoweverTheBytesCome)
{
    const std::string stream = "ab\r\n\n" + std::string(600, 'x') + "\nc\rd\r\nunfinished";
    const std::vector<std::string> expected = {"ab", "", "c\rd"};
    for (const std::size_t step : {std::size_t{1}, std::size_t{3}, std::size_t{511}, stream.size()}) {
        LineSplitter splitter;
        std::vector<std::string> lines;
        for (std::size_t at = 0; at < stream.size(); at += step)
            splitter.Take(std::string_view(stream).substr(at, step),
                          [&](std::string_view line) { lines.emplace_back(line); });
        EXPECT_EQ(lines, expected) << "in pieces of " << step;
    }
}

} // namespace
