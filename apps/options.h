// The command line.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <spdlog/common.h>
#include <stdexcept>
#include <string>

namespace app {

inline constexpr const char* kDefaultPort = "COM5";
inline constexpr int kDefaultRate = 1; // fixes a second, of the generator

// Something the user can put right: told in one line, exit code 2.
class UsageError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

struct TcpEndpoint {
    std::string address = "127.0.0.1";
    std::uint16_t port = 10110; // 0: the system chooses
};

struct Options {
    std::optional<std::string> port; // as --port gave it
    int ptys = 2;
    TcpEndpoint tcp;
    std::string replay;      // file; empty: the generator
    std::optional<int> rate; // fixes or bursts a second; 0: the module says nothing
    std::optional<std::chrono::milliseconds> run_for;
    std::string registry; // file
    std::string trace;    // file
    spdlog::level::level_enum log_level = spdlog::level::info;
    std::string script; // file, of console lines
    bool selective_suspend = false;
    bool fast_resume = false;
    bool quiet = false;
    bool status = false;
};

// Nothing when all was said with a help text. Throws UsageError.
std::optional<Options> ParseOptions(int argc, const char* const* argv);

} // namespace app
