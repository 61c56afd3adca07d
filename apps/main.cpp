#include "apps/options.h"
#include "apps/printable.h"
#include "apps/runtime_folder.h"
#include "apps/service.h"
#include "apps/status.h"

#include <cstdio>
#include <exception>
#include <spdlog/sinks/stdout_color_sinks.h>
#include <spdlog/spdlog.h>

namespace {

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

int Run(const app::Options& options)
{
    spdlog::set_default_logger(spdlog::stderr_color_mt("navox-host"));
    spdlog::set_pattern("%T.%e %^%l%$ %v");
    spdlog::set_level(options.log_level);
    if (!options.status)
        return app::Serve(options);
    const std::string port = options.port.value_or(app::kDefaultPort);
    std::fputs(app::AskStatus(app::StatusPath(app::RuntimeFolderPath(), port)).c_str(), stdout);
    return 0;
}

int Complain(const std::exception& error, int code)
{
    std::fprintf(stderr, "navox-host: %s\n", app::Printable(error.what()).c_str());
    return code;
}

} // namespace

int main(int argc, char** argv)
{
    try {
        const std::optional<app::Options> options = app::ParseOptions(argc, argv);
        return options ? Run(*options) : 0;
    } catch (const app::UsageError& error) {
        return Complain(error, kExitUsage);
    } catch (const std::exception& error) {
        return Complain(error, kExitFailure);
    }
}
