// What becomes of a library on the port: found by running it.
#pragma once

#include "tests/personalities/libraries.h"

#include "ke/kernel.h"

namespace personalities {

struct Outcome {
    std::optional<Failure> refused;   // the call that failed as it opened the port
    std::vector<std::string> notices; // until it had closed the port
    std::string damage;               // what is wrong with what it has read in a minute; empty: nothing
    std::optional<Failure> end;       // of reading, after the module was pulled; nothing: it reads on
    std::optional<Failure> closing;   // the call that failed as it closed the port without a module

    // The cells of its row in the table of compatibility.
    std::string Result() const; // "works", "works with an oddity", "refuses to open"
    std::string Notices() const;
    std::string Unplugged() const;
};

// Runs it for a minute, and again with a module that is pulled after half a minute.
Outcome Try(const Personality& personality, const host::KernelOptions& options);

// What is wrong with the stream of a handle that was open for `time`: it is to begin with the empty sentence,
// and then to bring every fix, each sentence whole. Empty: nothing.
std::string StreamDamage(std::string_view stream, host::Time time);

} // namespace personalities
