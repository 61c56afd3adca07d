#include "apps/options.h"

#include <CLI/CLI.hpp>
#include <cmath>
#include <filesystem>
#include <fmt/core.h>
#include <iostream>
#include <regex>

namespace app {
namespace {

constexpr int kMostPtys = 64;
constexpr double kLongestRun = 1e9; // seconds

TcpEndpoint ParseEndpoint(const std::string& text)
{
    // "127.0.0.1:10110" or "[::1]:10110"
    static const std::regex pattern(R"((?:\[([0-9A-Fa-f:.%]+)\]|([^:\[\]]+)):([0-9]{1,5}))");
    std::smatch match;
    if (!std::regex_match(text, match, pattern) || std::stoul(match[3]) > 0xFFFF)
        throw UsageError(fmt::format("--tcp: \"{}\" is not ADDRESS:PORT", text));
    return {match[1].matched ? match[1] : match[2], static_cast<std::uint16_t>(std::stoul(match[3]))};
}

void CheckPort(const std::string& name)
{
    static const std::regex pattern("COM[1-9][0-9]{0,2}");
    if (!std::regex_match(name, pattern))
        throw UsageError(fmt::format("--port: \"{}\" is not a port name, as COM5 is one", name));
}

spdlog::level::level_enum ParseLevel(const std::string& name)
{
    const spdlog::level::level_enum level = spdlog::level::from_str(name);
    if (level == spdlog::level::off && name != "off") // what it makes of any other word
        throw UsageError(
            fmt::format("--log: \"{}\" is none of trace, debug, info, warn, error, critical, off", name));
    return level;
}

// Pipes and devices may have no end, or make one wait for ever. Whether a file can be read is said by who reads it.
void CheckFile(const CLI::App& cli, const char* option, const std::string& file)
{
    if (cli.count(option) == 0)
        return;
    if (file.empty())
        throw UsageError(fmt::format("{}: no file is named", option));
    std::error_code error;
    const std::filesystem::file_status status = std::filesystem::status(file, error);
    if (std::filesystem::is_other(status))
        throw UsageError(fmt::format("{}: {} is a pipe or a device, not a file", option, file));
}

} // namespace

std::optional<Options> ParseOptions(int argc, const char* const* argv)
{
    Options options;
    std::string tcp;
    std::string level;
    std::optional<double> seconds;

    CLI::App cli("Plugs a simulated GPS module into the navox driver and serves its COM port.", "navox-host");
    cli.add_option("--port", options.port, "name of the port (COM5)")->type_name("NAME");
    cli.add_option("--pty", options.ptys, "pseudo-terminals that programs can open (2)")->type_name("N");
    cli.add_option("--tcp", tcp, "where TCP connections are taken (127.0.0.1:10110)")->type_name("ADDR:PORT");
    cli.add_option("--replay", options.replay, "send this NMEA log, again and again")->type_name("FILE");
    cli.add_option("--rate", options.rate,
                   "fixes a second, 1 to 10 (1), or bursts of the log, 1 to 1000 (as recorded); 0: silence")
        ->type_name("HZ");
    cli.add_option("--for", seconds, "unplug and end after this time")->type_name("SECONDS");
    cli.add_option("--registry", options.registry, "load the registry from this file, and save it at the end")
        ->type_name("FILE.reg");
    cli.add_option("--trace", options.trace, "write a trace for Perfetto or Chrome at the end")
        ->type_name("FILE");
    cli.add_option("--script", options.script,
                   "do the console's words of this file, a line each (`help` lists them)")
        ->type_name("FILE");
    cli.add_flag("--selective-suspend", options.selective_suspend, "let the driver suspend the idle module");
    cli.add_flag("--fast-resume", options.fast_resume, "let the system wake without waiting for the device");
    cli.add_option("--log", level, "trace, debug, info, warn, error, critical or off (info)")
        ->type_name("LEVEL");
    cli.add_flag("--quiet", options.quiet, "open no handle of its own, print no sentences");
    cli.add_flag("--status", options.status, "print the table of the instance that serves the port, and end");
    try {
        cli.parse(argc, argv);
    } catch (const CLI::CallForHelp&) {
        std::cout << cli.help();
        return std::nullopt;
    } catch (const CLI::ParseError& error) {
        throw UsageError(error.what());
    }

    if (options.port)
        CheckPort(*options.port);
    if (options.ptys < 0 || options.ptys > kMostPtys)
        throw UsageError(fmt::format("--pty: 0 to {} are possible", kMostPtys));
    CheckFile(cli, "--replay", options.replay);
    CheckFile(cli, "--registry", options.registry);
    CheckFile(cli, "--script", options.script);
    CheckFile(cli, "--trace", options.trace);
    if (cli.count("--tcp") != 0)
        options.tcp = ParseEndpoint(tcp);
    if (!level.empty())
        options.log_level = ParseLevel(level);
    if (seconds) {
        if (!(*seconds > 0 && *seconds <= kLongestRun))
            throw UsageError("--for: the time must be positive");
        options.run_for = std::chrono::milliseconds(std::lround(*seconds * 1000));
    }
    return options;
}

} // namespace app
