#include "apps/navoxctl/options.h"

#include <charconv>
#include <limits>

namespace navoxctl {

const char* const kUsage = R"(navoxctl looks at navox GPS ports and sets them.

  navoxctl list                       the ports that are there
  navoxctl info PORT                  versions, number, handles open, NMEA mode
  navoxctl set-nmea-mode PORT N       keeps N (32 bits, 0x... for hexadecimal) as the NMEA mode
  navoxctl monitor PORT [--decode] [--count N]
                                      prints sentences as they come; --decode: one line for each
                                      fix; --count: ends after N lines

PORT is a name such as COM5. The exit code is 0, 1 when the system refused something, 2 for a command
line that makes no sense.
)";

namespace {

std::uint64_t ParseNumber(std::string_view what, std::string_view text, std::uint64_t most)
{
    std::string_view digits = text;
    const bool hexadecimal = digits.starts_with("0x") || digits.starts_with("0X");
    if (hexadecimal)
        digits.remove_prefix(2);
    std::uint64_t value = 0;
    const char* const last = digits.data() + digits.size();
    const auto [end, error] = std::from_chars(digits.data(), last, value, hexadecimal ? 16 : 10);
    if (error != std::errc{} || end != last || value > most)
        throw UsageError(std::string(what) + ": \"" + std::string(text) + "\" is not a number from 0 to " +
                         std::to_string(most));
    return value;
}

// The arguments from left to right.
class Arguments {
  public:
    explicit Arguments(std::span<const std::string_view> arguments) : left_(arguments) {}

    bool Empty() const { return left_.empty(); }
    std::string_view Next(const char* what)
    {
        if (left_.empty())
            throw UsageError(std::string(what) + " is missing");
        const std::string_view next = left_.front();
        left_ = left_.subspan(1);
        return next;
    }

  private:
    std::span<const std::string_view> left_;
};

std::string ParsePort(Arguments& arguments)
{
    const std::string_view name = arguments.Next("the port");
    if (name.empty() || name.front() == '-' || name.find_first_of("\\/:") != std::string_view::npos)
        throw UsageError("\"" + std::string(name) + "\" is not a port name, as COM5 is one");
    return std::string(name);
}

void ParseMonitor(Arguments& arguments, Options& options)
{
    while (!arguments.Empty()) {
        const std::string_view option = arguments.Next("an option");
        if (option == "--decode")
            options.decode = true;
        else if (option == "--count")
            options.count = ParseNumber("--count", arguments.Next("the number of lines"),
                                        std::numeric_limits<std::uint64_t>::max());
        else
            throw UsageError("monitor has no option \"" + std::string(option) + "\"");
    }
}

} // namespace

Options ParseOptions(std::span<const std::string_view> arguments)
{
    Arguments left(arguments);
    Options options;
    const std::string_view action = left.Next("the command");
    if (action == "help" || action == "--help" || action == "-h") {
        options.action = Action::Help;
    } else if (action == "list") {
        options.action = Action::List;
    } else if (action == "info") {
        options.action = Action::Info;
        options.port = ParsePort(left);
    } else if (action == "set-nmea-mode") {
        options.action = Action::SetNmeaMode;
        options.port = ParsePort(left);
        options.nmea_mode = static_cast<std::uint32_t>(
            ParseNumber("set-nmea-mode", left.Next("the mode"), std::numeric_limits<std::uint32_t>::max()));
    } else if (action == "monitor") {
        options.action = Action::Monitor;
        options.port = ParsePort(left);
        ParseMonitor(left, options);
    } else {
        throw UsageError("there is no command \"" + std::string(action) + "\"");
    }
    if (!left.Empty())
        throw UsageError("\"" + std::string(left.Next("")) + "\" is too much");
    return options;
}

} // namespace navoxctl
