#include "apps/navoxctl/commands.h"
#include "apps/system.h"
#include "module/nmea_generator.h"
#include "tests/host_io/scripted_driver.h"
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

TEST_F(Commands, ListShowsThePortWhileItIsThere)
{
    const Said there = Navoxctl({"list"});
    EXPECT_EQ(there.exit, 0);
    EXPECT_TRUE(
        std::regex_match(there.out, std::regex(R"(PORT +DEVICE +INTERFACE\n)"
                                               R"(COM12 +\\Device\\quorlex0 +\\\\\?\\USB#VID_.*#\{.*\}\n)")))
        << there.out;
    system.Unplug();
    EXPECT_EQ(Navoxctl({"list"}).out, "no navox port is there\n");
}

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
    std::istringstream lines(said.out);
    std::string line;
    std::getline(lines, line);
    EXPECT_EQ(line,
              "DATE       TIME (UTC)       LATITUDE    LONGITUDE    ALT m FIX       SATS  HDOP KNOTS COURSE");
    const std::regex row(R"((\S+) +(\S+) +(\S+) +(\S+) +(\S+) +(\S+) +(\d+)/(\S+) +(\S+) +(\S+) +(\S+))");
    std::smatch cells;
    ASSERT_TRUE(std::getline(lines, line) && std::regex_match(line, cells, row)) << line;
    EXPECT_EQ(cells[3].str() + cells[6].str(), "-none") << "the empty sentence of a fresh handle";
    for (int fix = 0; fix < 2; ++fix) {
        ASSERT_TRUE(std::getline(lines, line) && std::regex_match(line, cells, row)) << line;
        EXPECT_EQ(cells[1], "2024-01-17");
        EXPECT_EQ(cells[6], "GPS");
        EXPECT_LE(std::stoi(cells[7]), std::stoi(cells[8])) << "satellites used and in view";
    }
    EXPECT_FALSE(std::getline(lines, line));
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

TEST(OtherPorts, RefusePrivateControls)
{
    host_test::Bench bench;
    bench.OnRequest(IRP_MJ_DEVICE_CONTROL, [](PDEVICE_OBJECT, PIRP irp) {
        return host_test::Complete(irp, STATUS_INVALID_DEVICE_REQUEST);
    });
    const Said info = Navoxctl({"info", "T"});
    EXPECT_EQ(info.exit, 1);
    EXPECT_EQ(info.error, "navoxctl: T: the port number: ERROR_INVALID_FUNCTION (1)\n");
    const Said set = Navoxctl({"set-nmea-mode", "T", "1"});
    EXPECT_EQ(set.exit, 1);
    EXPECT_EQ(set.error, "navoxctl: T: setting the NMEA mode: ERROR_INVALID_FUNCTION (1)\n");
}

} // namespace
