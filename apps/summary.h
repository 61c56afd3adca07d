// What is said at the end.
#pragma once

#include "apps/clients.h"
#include "module/gps_module.h"
#include "verifier/verifier.h"

#include <string>
#include <vector>

namespace app {

std::string FormatSummary(const ClientTotals& clients, const module::ModuleStatus& module,
                          const std::vector<host::Finding>& findings);

} // namespace app
