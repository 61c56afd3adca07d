// What Windows programs get from the port: one table for the port on the user-mode kernel and on Wine's. Where Wine's
// kernel gives something else, the row says what, and docs/fidelity.md which of the two is right. What
// docs/compatibility.md tells the author of a program is in it.
#pragma once

#include "tests/win32/program.h"

#include <optional>
#include <span>
#include <vector>

namespace win32 {

struct Step {
    const char* what;
    Outcome (*run)(Program& program);
    DWORD result = 0;
    DWORD count = 0;
    const char* text = nullptr;               // null: not looked at
    std::optional<DWORD> result_on_wine = {}; // null text and no count then
};

// A control on port 0.
struct ControlStep {
    const char* what;
    DWORD code;
    std::string_view input;
    DWORD room;
    DWORD result = 0; // NTSTATUS
    DWORD count = 0;
    const char* text = "";
};

// A read of `length` bytes on port 0, which holds `held` and gets `later` while the read waits.
struct ReadStep {
    const char* what;
    DWORD interval, multiplier, constant; // time-outs
    const char* held;
    const char* later;
    DWORD length;
    DWORD result; // NTSTATUS; kStillPending: the read goes on, and is cancelled
    const char* text;
    DWORD after; // ms since its start, or since `later`
};

struct Scenario {
    const char* name;
    std::span<const Step> steps;
    std::span<const ControlStep> controls = {}; // then these
    std::span<const ReadStep> reads = {};       // and these
};

// The module is there at the beginning of each, and sends what it is fed. Nothing but another handle is open.
std::span<const Scenario> Scenarios();

// What was not as it should be, a line each.
std::vector<std::string> Play(Program& program, const Scenario& scenario, bool on_wine);

} // namespace win32
