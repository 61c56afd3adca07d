#include "apps/runtime_folder.h"

#include "apps/options.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fmt/core.h>
#include <sys/stat.h>
#include <unistd.h>

namespace app {

std::string RuntimeFolderPath()
{
    const char* const base = std::getenv("XDG_RUNTIME_DIR");
    return base != nullptr && *base == '/' ? std::string(base) + "/navox"
                                           : fmt::format("/tmp/navox-{}", ::getuid());
}

std::string MakeRuntimeFolder()
{
    std::string path = RuntimeFolderPath();
    if (::mkdir(path.c_str(), S_IRWXU) != 0 && errno != EEXIST)
        throw UsageError(fmt::format("cannot make the folder {}: {}", path, std::strerror(errno)));
    struct stat info {};
    // Anyone can make a folder of this name in /tmp.
    if (::lstat(path.c_str(), &info) != 0 || !S_ISDIR(info.st_mode) || info.st_uid != ::getuid() ||
        (info.st_mode & (S_IRWXG | S_IRWXO)) != 0)
        throw UsageError(fmt::format("{} is not a folder that only this user can enter", path));
    return path;
}

} // namespace app
