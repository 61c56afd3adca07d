// What navoxctl does.
#pragma once

#include "apps/navoxctl/options.h"
#include "apps/navoxctl/system.h"

#include <ostream>

namespace navoxctl {

// Carries a command out. Returns the exit code; a failure is told in one line on `error`.
int Run(std::span<const std::string_view> arguments, System& system, std::ostream& out, std::ostream& error);

} // namespace navoxctl
