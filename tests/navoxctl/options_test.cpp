#include "apps/navoxctl/options.h"

#include <gtest/gtest.h>

#include <vector>

using namespace navoxctl;

namespace {

// The words of a command line; "''" is an empty one.
std::vector<std::string_view> Words(std::string_view line)
{
    std::vector<std::string_view> words;
    while (!line.empty()) {
        const std::string_view word = line.substr(0, line.find(' '));
        words.push_back(word == "''" ? "" : word);
        line.remove_prefix(std::min(line.size(), word.size() + 1));
    }
    return words;
}

TEST(CommandLine, IsUnderstood)
{
    struct Case {
        const char* line;
        Options expected;
    } const cases[] = {
        {"help", {}},
        {"--help", {}},
        {"list", {.action = Action::List}},
        {"info COM5", {.action = Action::Info, .port = "COM5"}},
        {"set-nmea-mode com12 7", {.action = Action::SetNmeaMode, .port = "com12", .nmea_mode = 7}},
        {"set-nmea-mode COM5 0xFFFFFFFF",
         {.action = Action::SetNmeaMode, .port = "COM5", .nmea_mode = 0xFFFFFFFF}},
        {"monitor COM5", {.action = Action::Monitor, .port = "COM5"}},
        {"monitor COM5 --count 3 --decode",
         {.action = Action::Monitor, .port = "COM5", .decode = true, .count = 3}},
    };
    for (const Case& c : cases) {
        const Options options = ParseOptions(Words(c.line));
        EXPECT_EQ(options.action, c.expected.action) << c.line;
        EXPECT_EQ(options.port, c.expected.port) << c.line;
        EXPECT_EQ(options.nmea_mode, c.expected.nmea_mode) << c.line;
        EXPECT_EQ(options.decode, c.expected.decode) << c.line;
        EXPECT_EQ(options.count, c.expected.count) << c.line;
    }
}

TEST(CommandLine, SaysWhatIsWrongWithIt)
{
    struct Case {
        const char* line;
        const char* complaint;
    } const cases[] = {
        {"", "the command is missing"},
        {"reset COM5", "there is no command \"reset\""},
        {"list COM5", "\"COM5\" is too much"},
        {"info", "the port is missing"},
        {"info ''", "\"\" is not a port name, as COM5 is one"},
        {"info \\\\.\\COM5", "\"\\\\.\\COM5\" is not a port name, as COM5 is one"},
        {"info --decode", "\"--decode\" is not a port name, as COM5 is one"},
        {"set-nmea-mode COM5", "the mode is missing"},
        {"set-nmea-mode COM5 -1", "set-nmea-mode: \"-1\" is not a number from 0 to 4294967295"},
        {"set-nmea-mode COM5 4294967296",
         "set-nmea-mode: \"4294967296\" is not a number from 0 to 4294967295"},
        {"set-nmea-mode COM5 0x", "set-nmea-mode: \"0x\" is not a number from 0 to 4294967295"},
        {"set-nmea-mode COM5 7th", "set-nmea-mode: \"7th\" is not a number from 0 to 4294967295"},
        {"set-nmea-mode COM5 1 2", "\"2\" is too much"},
        {"monitor COM5 --fast", "monitor has no option \"--fast\""},
        {"monitor COM5 --count", "the number of lines is missing"},
    };
    for (const Case& c : cases) {
        try {
            ParseOptions(Words(c.line));
            ADD_FAILURE() << "accepted: " << c.line;
        } catch (const UsageError& error) {
            EXPECT_STREQ(error.what(), c.complaint) << c.line;
        }
    }
}

} // namespace
