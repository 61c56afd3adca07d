#include "recorded.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sstream>

namespace host {
namespace {

void Play(Kernel& kernel)
{
    int request = 0;
    kernel.Log().Begin("driver", "load", "first");
    kernel.Log().AsyncBegin("irp", "read", &request, "64 bytes");
    kernel
        .Spawn("client 1",
               [&] {
                   kernel.RunFor(1'500 * kMicrosecond);
                   kernel.Log().AsyncEnd("irp", "read", &request);
                   kernel.Log().Instant("client", "done");
               })
        .Join();
    kernel.Log().End("driver", "load");
}

TEST(EventLog, TextHasAColumnPerActor)
{
    Kernel kernel;
    Play(kernel);
    std::ostringstream out;
    kernel.Log().WriteText(out);
    std::vector<std::string> lines;
    std::istringstream in(out.str());
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    ASSERT_EQ(lines.size(), 6u);
    const std::size_t main_column = lines[0].find("main");
    const std::size_t client_column = lines[0].find("client 1");
    EXPECT_EQ(lines[1].find("+load"), main_column);
    EXPECT_EQ(lines[2].find("+read #1"), main_column);
    EXPECT_EQ(lines[3].find("-read #1"), client_column);
    EXPECT_EQ(lines[4].find(" done"), client_column);
    EXPECT_NE(lines[3].find("1.5000"), std::string::npos);
    EXPECT_TRUE(lines[2].ends_with("64 bytes"));
}

TEST(EventLog, JsonIsATraceThatAViewerOpens)
{
    Kernel kernel;
    Play(kernel);
    std::ostringstream out;
    kernel.Log().WriteJson(out);
    const nlohmann::json events = nlohmann::json::parse(out.str())["traceEvents"];
    std::string phases;
    for (const nlohmann::json& event : events)
        phases += event["ph"].get<std::string>();
    EXPECT_EQ(phases.substr(phases.find_first_not_of('M')), "BbeiE");
    const nlohmann::json& end = events[events.size() - 3];
    EXPECT_EQ(end["id"], 1);
    EXPECT_EQ(end["ts"], 1'500.0); // microseconds
    EXPECT_EQ(events[end["tid"].get<std::size_t>()]["args"]["name"], "client 1");
}

TEST(EventLog, TheHashSeesEventsAndDetailsButNotNotes)
{
    const auto hash = [](const std::function<void(EventLog&)>& play) {
        Kernel kernel;
        play(kernel.Log());
        return kernel.TraceHash();
    };
    const std::uint64_t plain = hash([](EventLog& log) { log.Instant("a", "b", "c"); });
    EXPECT_EQ(plain, hash([](EventLog& log) { log.Instant("a", "b", "c"); }));
    EXPECT_NE(plain, hash([](EventLog& log) { log.Instant("a", "b", "d"); }));
    EXPECT_NE(plain, hash([](EventLog& log) { log.Instant("ab", "", "c"); }));
    EXPECT_EQ(hash([](EventLog& log) { log.Note("a", "b", "0x1000"); }),
              hash([](EventLog& log) { log.Note("a", "b", "0x2000"); }));
}

TEST(EventLog, AFullLogKeepsTheNewestAndTheHash)
{
    const auto run = [](std::size_t capacity, bool keep) {
        Kernel kernel({.keep_events = keep, .event_capacity = capacity});
        for (int i = 0; i < 100; ++i)
            kernel.Log().Instant("test", "i", std::to_string(i));
        return std::pair{kernel.Log().Events(), kernel.TraceHash()};
    };
    const auto [few, few_hash] = run(10, true);
    ASSERT_EQ(few.size(), 10u);
    EXPECT_EQ(few.front().detail, "90");
    const auto [none, none_hash] = run(10, false);
    EXPECT_TRUE(none.empty());
    EXPECT_EQ(few_hash, none_hash);
}

} // namespace
} // namespace host
