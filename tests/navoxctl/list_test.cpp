#include "apps/navoxctl/list.h"

#include <gtest/gtest.h>

#include <sstream>

using namespace navoxctl;

namespace {

TEST(List, JoinsBothPlacesAndLeavesOutThePortsOfOthers)
{
    const std::vector<MapEntry> map = {
        {"\\Device\\Serial0", "COM1"},
        {"\\Device\\quorlex1", "COM10"},
        {"\\Device\\QUORLEX0", "COM5"},
        {"\\Device\\quorlex2", ""}, // a name that was too long for the port
    };
    const std::vector<InterfaceEntry> interfaces = {
        {"\\\\?\\acpi#1", "COM1", "Serial"},
        {"\\\\?\\usb#5", "com5", "navox"},
        {"\\\\?\\usb#7", "COM7", "NAVOX"},
        {"\\\\?\\usb#8", "COM8", ""},
    };
    std::ostringstream out;
    PrintPorts(ListPorts(map, interfaces), out);
    EXPECT_EQ(out.str(), "PORT    DEVICE              INTERFACE\n"
                         "-       \\Device\\quorlex2    -\n"
                         "COM5    \\Device\\QUORLEX0    \\\\?\\usb#5\n"
                         "COM7    -                   \\\\?\\usb#7\n"
                         "COM10   \\Device\\quorlex1    -\n");
}

TEST(List, SaysThatThereIsNone)
{
    std::ostringstream out;
    PrintPorts(ListPorts({{"\\Device\\Serial0", "COM1"}}, {}), out);
    EXPECT_EQ(out.str(), "no navox port is there\n");
}

} // namespace
