// Reading as data come.
#pragma once

#include "apps/navoxctl/nmea.h"
#include "apps/navoxctl/options.h"
#include "apps/navoxctl/system.h"

#include <ostream>

namespace navoxctl {

// Prints until `options.count` lines are out, or nobody takes them. Throws SystemError when the port goes.
void MonitorPort(PortHandle& port, const Options& options, std::ostream& out);

extern const char* const kFixHeader;
std::string FixRow(const Fix& fix);

} // namespace navoxctl
