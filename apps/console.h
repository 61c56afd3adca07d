// What a person, or a script, can do to the machine while it runs.
#pragma once

#include "apps/clients.h"
#include "apps/system.h"

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <spdlog/logger.h>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace app {

struct ConsoleWord; // a row of the table: word, argument, help text, routine

// A line: a word with its argument, and how long to wait before. The word may be missing.
struct Command {
    const ConsoleWord* word = nullptr;
    std::string argument;
    std::chrono::milliseconds after{0};
};

// A line that is none: says why.
class CommandError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// Nothing for an empty line or a comment, which begins with "#". Throws CommandError.
std::optional<Command> ParseCommand(std::string_view line);

// All lines of a file. Throws UsageError, with the number of the first line that cannot be used.
std::vector<Command> LoadScript(const std::string& file);

class Console {
  public:
    // What the words act on beside the system.
    struct Surroundings {
        std::function<void()> open_port;    // the port has come: its terminals are made
        std::function<void()> close_port;   // it goes: they are taken away, and every handle is closed
        std::function<std::string()> table; // of all handles
    };

    Console(System& system, Clients& clients, Surroundings surroundings);

    // Does it, and says on standard error what happened: one line, but for `status` and `help`.
    void Run(const Command& command);
    void Say(const std::string& text);

    // The words' routines; each gives what is said. Those that cannot be done throw std::runtime_error.
    std::string Plug(const std::string&);
    std::string Unplug(const std::string&);
    std::string Stop(const std::string&);
    std::string Start(const std::string&);
    std::string Sleep(const std::string& state);
    std::string Wake(const std::string&);
    std::string Idle(const std::string&);
    std::string Status(const std::string&);
    std::string Help(const std::string&);

  private:
    void RequirePlugged() const;
    void RequireAwake() const;

    System& system_;
    Clients& clients_;
    const Surroundings surroundings_;
    const std::shared_ptr<spdlog::logger> voice_;
};

} // namespace app
