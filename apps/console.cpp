#include "apps/console.h"

#include "apps/options.h"
#include "apps/printable.h"

#include <array>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fmt/format.h>
#include <fstream>
#include <spdlog/sinks/stdout_color_sinks.h>

namespace app {

struct ConsoleWord {
    const char* name;
    const char* argument; // an example of it; empty: none is taken
    const char* takes;    // what it can be
    bool (*accepts)(const std::string& argument);
    const char* help;
    std::string (Console::*routine)(const std::string& argument);
};

namespace {

constexpr std::array kSleepStates = {"S1", "S2", "S3", "S4"};
constexpr double kLongestPause = 1e6; // seconds

bool IsNothing(const std::string& argument)
{
    return argument.empty();
}

SYSTEM_POWER_STATE SleepState(const std::string& name)
{
    for (std::size_t index = 0; index < kSleepStates.size(); ++index)
        if (name == kSleepStates.at(index))
            return static_cast<SYSTEM_POWER_STATE>(PowerSystemSleeping1 + index);
    return PowerSystemUnspecified;
}

bool IsSleepState(const std::string& argument)
{
    return SleepState(argument) != PowerSystemUnspecified;
}

// "5s", "0.5s", "200ms".
std::optional<std::chrono::milliseconds> ParseTime(const std::string& text)
{
    char* unit = nullptr;
    const double value = std::strtod(text.c_str(), &unit);
    const double seconds = std::strcmp(unit, "s") == 0    ? value
                           : std::strcmp(unit, "ms") == 0 ? value / 1000
                                                          : -1;
    if (unit == text.c_str() || !(seconds >= 0 && seconds <= kLongestPause))
        return std::nullopt;
    return std::chrono::milliseconds(std::lround(seconds * 1000));
}

bool IsTime(const std::string& argument)
{
    return ParseTime(argument).has_value();
}

constexpr ConsoleWord kWords[] = {
    {"plug", "", "", IsNothing, "connects the module; the port and its terminals come back", &Console::Plug},
    {"unplug", "", "", IsNothing, "pulls the module; terminals hang up, connections end", &Console::Unplug},
    {"stop", "", "", IsNothing, "closes every handle and stops the device, as for new resources",
     &Console::Stop},
    {"start", "", "", IsNothing, "starts the stopped device again", &Console::Start},
    {"sleep", "S3", "one of S1 to S4", IsSleepState, "the system sleeps; programs stay where they are",
     &Console::Sleep},
    {"wake", "", "", IsNothing, "and wakes", &Console::Wake},
    {"idle", "", "", IsNothing, "what the idle monitor sees", &Console::Idle},
    {"status", "", "", IsNothing, "the table of the port and its handles", &Console::Status},
    {"help", "", "", IsNothing, "this list", &Console::Help},
    {"after", "5s", "a time, as 5s or 200ms", IsTime, "waits before the rest of the line, and the next",
     nullptr},
};

const ConsoleWord* FindWord(std::string_view name)
{
    for (const ConsoleWord& word : kWords)
        if (name == word.name)
            return &word;
    return nullptr;
}

// Takes the first word off the text; empty when there is none.
std::string TakeWord(std::string_view& text)
{
    constexpr std::string_view kBlanks = " \t\r";
    text.remove_prefix(std::min(text.find_first_not_of(kBlanks), text.size()));
    std::string word(text.substr(0, text.find_first_of(kBlanks)));
    text.remove_prefix(word.size());
    return word;
}

std::string Count(std::size_t count, const char* noun)
{
    return fmt::format("{} {}{}", count, noun, count == 1 ? "" : "s");
}

[[noreturn]] void Refuse(const std::string& why)
{
    throw std::runtime_error(why);
}

void Require(NTSTATUS status, const char* what)
{
    if (!NT_SUCCESS(status))
        Refuse(fmt::format("{}: 0x{:08x}", what, static_cast<std::uint32_t>(status)));
}

} // namespace

std::optional<Command> ParseCommand(std::string_view line)
{
    line = line.substr(0, line.find('#'));
    Command command;
    std::string name = TakeWord(line);
    if (name.empty())
        return std::nullopt;
    while (!name.empty()) {
        command.word = FindWord(name);
        if (command.word == nullptr)
            throw CommandError(fmt::format("there is no word \"{}\"; help lists them", Printable(name)));
        command.argument = *command.word->argument != '\0' ? TakeWord(line) : "";
        if (!command.word->accepts(command.argument))
            throw CommandError(fmt::format("{} takes {}, not \"{}\"", name, command.word->takes,
                                           Printable(command.argument)));
        name = TakeWord(line);
        if (command.word->routine != nullptr)
            break;
        command.after += *ParseTime(command.argument);
        command.word = nullptr;
    }
    if (!name.empty())
        throw CommandError(fmt::format("{} is followed by \"{}\", which means nothing", command.word->name,
                                       Printable(name)));
    return command;
}

std::vector<Command> LoadScript(const std::string& file)
{
    std::ifstream in(file);
    if (!in)
        throw UsageError(fmt::format("cannot read the script {}: {}", file, std::strerror(errno)));
    std::vector<Command> commands;
    std::string line;
    for (int number = 1; std::getline(in, line); ++number) {
        try {
            if (std::optional<Command> command = ParseCommand(line))
                commands.push_back(std::move(*command));
        } catch (const CommandError& error) {
            throw UsageError(fmt::format("{}: line {}: {}", file, number, error.what()));
        }
    }
    if (in.bad())
        throw UsageError(fmt::format("cannot read the script {}: {}", file, std::strerror(errno)));
    return commands;
}

void Console::Say(const std::string& text)
{
    voice_->info(text);
}

Console::Console(System& system, Clients& clients, Surroundings surroundings)
    : system_(system), clients_(clients), surroundings_(std::move(surroundings)),
      voice_(spdlog::stderr_color_st("console"))
{
    voice_->set_level(spdlog::level::info); // whatever the log's is
    voice_->set_pattern("%T.%e > %v");
}

void Console::Run(const Command& command)
{
    if (command.word == nullptr)
        return;
    std::string answer;
    try {
        answer = (this->*command.word->routine)(command.argument);
    } catch (const std::exception& error) {
        answer = error.what();
    }
    Say(fmt::format("{}:{}{}", command.word->name, answer.starts_with('\n') ? "" : " ", answer));
}

void Console::RequirePlugged() const
{
    if (!system_.Plugged())
        Refuse("no module is plugged in");
}

void Console::RequireAwake() const
{
    if (!system_.Awake())
        Refuse("the system sleeps");
}

std::string Console::Plug(const std::string&)
{
    RequireAwake();
    if (system_.Plugged())
        Refuse("the module is plugged in already");
    system_.Plug();
    surroundings_.open_port();
    return fmt::format("the module is connected, {} is {}", system_.PortName(), system_.PortState());
}

std::string Console::Unplug(const std::string&)
{
    RequirePlugged();
    const std::size_t handles = clients_.Count();
    system_.Unplug(); // the handles are open: the driver ends what waits in them
    surroundings_.close_port();
    if (!system_.AwaitRemoval())
        return "the module is pulled, but its device does not go";
    return fmt::format("the module is pulled, {} closed, the device is gone", Count(handles, "handle"));
}

// Handles are closed first: the driver lets nobody stop the device while a request waits in it, and reading
// would not go on in a handle that was open all the time.
std::string Console::Stop(const std::string&)
{
    RequirePlugged();
    RequireAwake();
    if (!system_.Started())
        Refuse("the device is " + system_.PortState());
    const std::size_t handles = clients_.Count();
    surroundings_.close_port();
    const NTSTATUS status = system_.Stop();
    if (!NT_SUCCESS(status))
        surroundings_.open_port();
    Require(status, "the device does not stop");
    return fmt::format("{} closed, the device is {}", Count(handles, "handle"), system_.PortState());
}

std::string Console::Start(const std::string&)
{
    RequirePlugged();
    RequireAwake();
    if (system_.Started())
        Refuse("the device is started already");
    if (!system_.Stopped())
        Refuse("the device is " + system_.PortState());
    const NTSTATUS status = system_.Start();
    if (!NT_SUCCESS(status))
        surroundings_.close_port();
    Require(status, "the device does not start and is taken away, the port is closed");
    surroundings_.open_port();
    return fmt::format("the device is {}", system_.PortState());
}

std::string Console::Sleep(const std::string& state)
{
    RequireAwake();
    Require(system_.Sleep(SleepState(state)), "the system stays awake");
    return system_.PowerText();
}

std::string Console::Wake(const std::string&)
{
    if (system_.Awake())
        Refuse("the system is awake already");
    const NTSTATUS status = system_.Wake();
    clients_.GoOn();
    Require(status, "the device did not come along");
    return system_.PowerText();
}

std::string Console::Idle(const std::string&)
{
    RequirePlugged();
    if (!system_.SelectiveSuspend())
        return "no monitor runs: selective suspend is off";
    std::size_t pending = 0;
    for (const ClientStatus& client : clients_.Look())
        pending += static_cast<std::size_t>(client.pending);
    return fmt::format("{} open, {} pending: {}; {} at the hub; {}", Count(clients_.Count(), "handle"),
                       Count(pending, "request"), clients_.Count() == 0 ? "idle" : "busy",
                       system_.IdleRequested() ? "an idle request is" : "no idle request",
                       system_.PowerText());
}

std::string Console::Status(const std::string&)
{
    std::string text = "\n" + surroundings_.table();
    text.pop_back(); // its last line's end
    return text;
}

std::string Console::Help(const std::string&)
{
    std::string text;
    for (const ConsoleWord& word : kWords)
        text += fmt::format("\n  {:<10}{}", fmt::format("{} {}", word.name, word.argument), word.help);
    return text;
}

} // namespace app
