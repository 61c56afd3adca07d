#include "apps/navoxctl/commands.h"
#include "apps/system.h"
#include "module/nmea_generator.h"
#include "nt/file.h"
#include "tests/navoxctl/host_system.h"

#include <gtest/gtest.h>

#include <ntstatus.h>
#include <regex>
#include <sstream>

namespace {

struct Said {
    int exit = -1;
    std::string out;
    std::string error;
};

Said Navoxctl(std::vector<std::string_view> arguments)
{
    HostSystem system;
    std::ostringstream out;
    std::ostringstream error;
    const int exit = navoxctl::Run(arguments, system, out, error);
    return {exit, out.str(), error.str()};
}

// A machine with a module that sends one fix a second, at COM12.
class Commands : public testing::Test {
  protected:
    Commands() { system.Plug(); }
    ~Commands() override
    {
        system.Unplug();
        EXPECT_TRUE(system.Unload()) << "a handle is left open";
    }

    app::System system{{.port_name = "COM12", .source = std::make_unique<module::NmeaGenerator>(1)}};
};

TEST_F(Commands, InfoTellsWhatThePortSaysOfItself)
{
    EXPECT_EQ(Navoxctl({"set-nmea-mode", "COM12", "0x1F"}).exit, 0);
    host::nt::File other;
    ASSERT_EQ(host::nt::File::Open("\\\\.\\COM12", &other), STATUS_SUCCESS);
    const Said said = Navoxctl({"info", "com12"});
    EXPECT_EQ(said.exit, 0) << said.error;
    EXPECT_EQ(said.out, "port            com12\n"
                        "number          12\n"
                        "version         7.2.1.1\n"
                        "short version   7.2\n"
                        "build date      Mar  1 2012\n"
                        "handles open    2, this one included\n"
                        "NMEA mode       31\n");
}

TEST_F(Commands, MonitorPrintsSentencesAsTheyCome)
{
    const host::Time before = system.Kernel().Now();
    const Said said = Navoxctl({"monitor", "COM12", "--count", "3"});
    EXPECT_EQ(said.exit, 0) << said.error;
    EXPECT_TRUE(std::regex_match(said.out, std::regex(R"(\$GPGGA,,,,,,0,00,0\.5,,M,,,,\*00\n)"
                                                      R"(\$GPGGA,\d{6}\.\d\d,.*\n\$GPGLL,.*\n)")))
        << said.out;
    EXPECT_LT(system.Kernel().Now() - before, 5 * host::kSecond);
}

TEST_F(Commands, MonitorDecodesFixes)
{
    const Said said = Navoxctl({"monitor", "COM12", "--decode", "--count", "3"});
    EXPECT_EQ(said.exit, 0) << said.error;
    EXPECT_TRUE(std::regex_match(said.out, std::regex("DATE .*COURSE\n"
                                                      "- .* none .*\n" // the empty sentence of a fresh handle
                                                      "(2024-01-17 .* GPS +\\d+/11 .*\n){2}")))
        << said.out;
}

TEST_F(Commands, MonitorEndsWithThePort)
{
    Said said;
    {
        const host::ThreadHandle watcher = system.Kernel().Spawn("navoxctl", [&said] {
            said = Navoxctl({"monitor", "COM12"});
        });
        system.Kernel().RunFor(10'300 * host::kMillisecond);
        system.Unplug();
    }
    EXPECT_EQ(said.exit, 1);
    EXPECT_EQ(said.error, "navoxctl: COM12: waiting for data: ERROR_OPERATION_ABORTED (995)\n");
    EXPECT_GT(said.out.size(), 1000u);
}

TEST_F(Commands, MonitorEndsWhenNobodyTakesItsLines)
{
    HostSystem host;
    std::ostringstream error;
    std::ostream out(nullptr); // takes nothing
    const std::vector<std::string_view> arguments = {"monitor", "COM12"};
    EXPECT_EQ(navoxctl::Run(arguments, host, out, error), 0);
    EXPECT_EQ(error.str(), "");
}

TEST_F(Commands, FailWithOneClearLine)
{
    using Case = std::tuple<std::vector<std::string_view>, int, const char*>;
    const Case cases[] = {
        {{"info", "COM9"}, 1, "navoxctl: COM9: opening the port: ERROR_FILE_NOT_FOUND (2)\n"},
        {{"info"}, 2, "navoxctl: the port is missing; see navoxctl help\n"},
        {{}, 2, "navoxctl: the command is missing; see navoxctl help\n"},
    };
    for (const auto& [arguments, exit, error] : cases) {
        const Said said = Navoxctl(arguments);
        EXPECT_EQ(said.exit, exit);
        EXPECT_EQ(said.error, error);
        EXPECT_EQ(said.out, "");
    }
    EXPECT_EQ(Navoxctl({"help"}).out, navoxctl::kUsage);
}

} // namespace
