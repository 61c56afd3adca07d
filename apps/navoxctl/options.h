// The command line of navoxctl.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>

namespace navoxctl {

enum class Action { Help, List, Info, SetNmeaMode, Monitor };

struct Options {
    Action action = Action::Help;
    std::string port{};
    std::uint32_t nmea_mode = 0;
    bool decode = false;                  // monitor: fixes in place of sentences
    std::optional<std::uint64_t> count{}; // monitor: ends after so many lines; absent: with the port
};

// Something the user can put right.
class UsageError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

extern const char* const kUsage;

// `arguments` without the program's name. Throws UsageError.
Options ParseOptions(std::span<const std::string_view> arguments);

} // namespace navoxctl
