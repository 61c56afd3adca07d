// Where links to the pseudo-terminals and the status socket are: a folder of the user's own.
#pragma once

#include <string>

namespace app {

// $XDG_RUNTIME_DIR/navox, or /tmp/navox-<uid>.
std::string RuntimeFolderPath();

// The same, made when it is missing. Throws UsageError when it is not a folder that only the user can enter.
std::string MakeRuntimeFolder();

} // namespace app
