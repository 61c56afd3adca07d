#include "module/at_parser.h"

#include <cctype>
#include <utility>

namespace module {
namespace {

constexpr std::uint8_t kBackspace = 0x08;
constexpr std::uint8_t kCarriageReturn = 0x0D;
constexpr std::uint8_t kFirstPrintable = 0x20;

enum class Action { None, EchoOff, EchoOn, Reset, Identify, Manufacturer, Model, Revision, Serial, Nmea };

struct Command {
    std::string_view name; // what follows "AT", in capitals
    Action action;
};

constexpr Command kCommands[] = {
    {"", Action::None},
    {"E", Action::EchoOff},
    {"E0", Action::EchoOff},
    {"E1", Action::EchoOn},
    {"Q0", Action::None}, // result codes, as words: there is nothing else
    {"V1", Action::None},
    {"Z", Action::Reset},
    {"&F", Action::Reset},
    {"I", Action::Identify},
    {"+CGMI", Action::Manufacturer},
    {"+CGMM", Action::Model},
    {"+CGMR", Action::Revision},
    {"+CGSN", Action::Serial},
    {"*Q7GPSNPD", Action::Nmea}, // NMEA to this port
};

std::string Capitals(std::string_view text)
{
    std::string capitals(text);
    for (char& c : capitals) {
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    }
    return capitals;
}

std::string WithOk(const std::string& information)
{
    return "\r\n" + information + "\r\n" + std::string(kAtOk);
}

} // namespace

std::vector<std::string> AtLineReader::Feed(std::span<const std::uint8_t> data)
{
    std::vector<std::string> lines;
    for (const std::uint8_t byte : data) {
        if (byte == kCarriageReturn) {
            lines.push_back(std::exchange(line_, {}));
        } else if (byte == kBackspace) {
            if (!line_.empty()) {
                line_.pop_back();
            }
        } else if (byte >= kFirstPrintable && line_.size() < kMaxLine) {
            line_.push_back(static_cast<char>(byte));
        }
    }
    return lines;
}

AtInterpreter::AtInterpreter(AtIdentity identity, bool echo)
    : identity_(std::move(identity)), initial_echo_(echo), echo_(echo)
{}

bool AtInterpreter::IsCommand(std::string_view line)
{
    return Capitals(line.substr(0, 2)) == "AT";
}

AtAnswer AtInterpreter::Execute(std::string_view line)
{
    const std::string name = Capitals(line.substr(2));
    for (const Command& command : kCommands) {
        if (command.name != name) {
            continue;
        }
        switch (command.action) {
        case Action::None: break;
        case Action::EchoOff: echo_ = false; break;
        case Action::EchoOn: echo_ = true; break;
        case Action::Reset: echo_ = initial_echo_; break;
        case Action::Identify:
            return {WithOk(identity_.manufacturer + "\r\n" + identity_.model + "\r\n" + identity_.revision)};
        case Action::Manufacturer: return {WithOk(identity_.manufacturer)};
        case Action::Model: return {WithOk(identity_.model)};
        case Action::Revision: return {WithOk(identity_.revision)};
        case Action::Serial: return {WithOk(identity_.serial)};
        case Action::Nmea: return {std::string(kAtOk), true};
        }
        return {std::string(kAtOk)};
    }
    return {std::string(kAtError)};
}

} // namespace module
