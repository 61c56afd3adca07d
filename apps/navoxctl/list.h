// Which ports are this driver's.
#pragma once

#include "apps/navoxctl/system.h"

#include <ostream>

namespace navoxctl {

// A port, as the two places tell of it where a program may look for one. A port that a place does not know
// has an empty name there.
struct ListedPort {
    std::string port;   // "COM5"
    std::string device; // in the device map
    std::string path;   // of its interface
};

// This driver's ports of either place, by number.
std::vector<ListedPort> ListPorts(const std::vector<MapEntry>& map,
                                  const std::vector<InterfaceEntry>& interfaces);

void PrintPorts(const std::vector<ListedPort>& ports, std::ostream& out);

} // namespace navoxctl
