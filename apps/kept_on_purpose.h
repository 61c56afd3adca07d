// Which of the verifier's rules the driver breaks on purpose: the one list, for navox-host, tests and fuzzing.
#pragma once

#include "verifier/verifier.h"

#include <vector>

namespace app {

// Each as narrow as the reason for it. docs/behaviour.md says more about each.
std::vector<host::Excuse> KeptOnPurpose();

} // namespace app
