// The machine with all that serves its port, from plug-in to the summary.
#pragma once

#include "apps/options.h"

namespace app {

// Runs until a signal or the end of its time. The exit code: 0, or 1 when the verifier has found something.
// Throws UsageError, or std::runtime_error when the port does not come up.
int Serve(const Options& options);

} // namespace app
