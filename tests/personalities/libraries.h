// The libraries and programs that open serial ports, each with the calls that it makes and what it does when
// one fails.
#pragma once

#include "tests/personalities/session.h"

namespace personalities {

struct Personality {
    const char* name; // of its row in docs/compatibility.md
    std::unique_ptr<Library> (*make)(Session& session);
};

template <class T>
std::unique_ptr<Library> Make(Session& session)
{
    return std::make_unique<T>(session);
}

inline constexpr std::string_view kGoSerialWithoutLimits = "go.bug.st/serial, changed to limits of 0";

std::vector<Personality> LibrariesThatRead();
std::vector<Personality> LibrariesThatWait();

inline const std::vector<Personality> kPersonalities = [] {
    std::vector<Personality> all = LibrariesThatRead();
    std::ranges::copy(LibrariesThatWait(), std::back_inserter(all));
    return all;
}();

} // namespace personalities
