// The AT command interpreter behind the bulk-out endpoint: bytes to command lines, command lines to
// answers.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace module {

// Puts command lines together. A line ends with CR; LF and other control characters are not part of it;
// backspace takes the last character back.
class AtLineReader {
  public:
    // A longer line is cut to this many characters: no command is as long.
    static constexpr std::size_t kMaxLine = 256;

    // The lines that `data` completes, without their CR.
    std::vector<std::string> Feed(std::span<const std::uint8_t> data);
    void Clear() { line_.clear(); }

  private:
    std::string line_;
};

struct AtIdentity {
    std::string manufacturer = "Navox";
    std::string model = "Navox GPS module";
    std::string revision = "R1A01";
    std::string serial = "NVX000001";
};

struct AtAnswer {
    std::string text; // as sent: "\r\nOK\r\n"
    bool starts_nmea = false;
};

class AtInterpreter {
  public:
    explicit AtInterpreter(AtIdentity identity = {}, bool echo = true);

    // A line that does not begin with "AT" is no command: it gets neither echo nor answer.
    static bool IsCommand(std::string_view line);

    // `line` is a command. Letters may be of either case.
    AtAnswer Execute(std::string_view line);

    bool echo() const { return echo_; }

  private:
    AtIdentity identity_;
    bool initial_echo_;
    bool echo_;
};

inline constexpr std::string_view kAtOk = "\r\nOK\r\n";
inline constexpr std::string_view kAtError = "\r\nERROR\r\n";

} // namespace module
