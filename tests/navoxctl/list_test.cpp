#include "apps/navoxctl/commands.h"
#include "tests/navoxctl/host_system.h"

#include <gtest/gtest.h>

#include <sstream>

namespace {

TEST(List, JoinsBothPlacesAndLeavesOutThePortsOfOthers)
{
    HostSystem system;
    const auto list = [&system] {
        std::ostringstream out;
        std::ostringstream error;
        EXPECT_EQ(navoxctl::Run(std::vector<std::string_view>{"list"}, system, out, error), 0);
        return out.str();
    };
    system.map = {{"\\Device\\Serial0", "COM1"}};
    EXPECT_EQ(list(), "no navox port is there\n");
    system.map.insert(system.map.end(),
                      {
                          {"\\Device\\quorlex1", "COM10"},
                          {"\\Device\\QUORLEX0", "COM5"},
                          {"\\Device\\quorlex2", ""}, // a name that was too long for the port
                      });
    system.interfaces = {
        {"\\\\?\\acpi#1", "COM1", "Serial"},
        {"\\\\?\\usb#5", "com5", "navox"},
        {"\\\\?\\usb#7", "COM7", "NAVOX"},
        {"\\\\?\\usb#8", "COM8", ""},
    };
    EXPECT_EQ(list(), "PORT    DEVICE              INTERFACE\n"
                      "-       \\Device\\quorlex2    -\n"
                      "COM5    \\Device\\QUORLEX0    \\\\?\\usb#5\n"
                      "COM7    -                   \\\\?\\usb#7\n"
                      "COM10   \\Device\\quorlex1    -\n");
}

} // namespace
