// The rules that a driver must keep, checked as it runs.
#pragma once

#include "ke/mutex.h"
#include "ke/time.h"
#include "verifier/irp_rule_table.h"
#include "verifier/rule_table.h"

#include <cstdint>
#include <functional>
#include <ntdef.h>
#include <string>
#include <string_view>
#include <vector>

namespace host {

class Kernel;

enum class Rule : std::uint16_t {
#define VF_ENUMERATOR(name, code, parameter, text) name,
    VF_CORE_RULES(VF_ENUMERATOR) VF_IRP_RULES(VF_ENUMERATOR)
#undef VF_ENUMERATOR
};

struct RuleInfo {
    const char* name;
    std::uint32_t bug_check; // the code Windows would raise
    std::uint32_t parameter; // and its first parameter
    const char* text;
};
const RuleInfo& InfoOf(Rule rule);
const char* NameOf(Rule rule);

struct Finding {
    Rule rule{};
    std::string actor;            // the thread it happened on
    std::string detail;           // what an excuse may look at: a pool tag, a routine's name
    std::string text;             // the whole story, with the state that matters
    const void* caller = nullptr; // return address into the driver, where known
    int irql = 0;
    std::uint64_t step = 0;
    Time time = 0;
};

enum class Policy {
    Stop,   // print the report and abort
    Record, // keep the finding and go on
};

// A rule that is broken on purpose. Finds its rule by name; `detail` empty matches every finding of the rule.
struct Excuse {
    Rule rule{};
    std::string detail;
    std::string reason;
    std::function<bool(const Finding&)> matches = nullptr; // asked as well, when set
};

struct ExcusedFinding {
    Finding finding;
    std::string reason;
};

class Verifier {
  public:
    Verifier(Kernel& kernel, bool enabled, Policy policy, std::vector<Excuse> excuses);

    // False: no rule is checked, only what the kernel cannot go on with.
    bool Enabled() const { return enabled_; }

    // A rule was broken. Returns under Policy::Record, or when the finding is excused.
    // `detail` is what excuses are matched against; `text` must say what, where, and in which state.
    void Report(Rule rule, std::string detail, std::string text, const void* caller = nullptr);

    // The same for what no run survives (deadlock, bug check). Within RunIsolated and under Policy::Record a
    // simulated kernel is abandoned and RunIsolated returns false; otherwise the process ends.
    [[noreturn]] void ReportFatal(Rule rule, std::string detail, std::string text,
                                  const void* caller = nullptr);

    void AddExcuse(Excuse excuse);

    std::vector<Finding> Findings() const;
    std::vector<ExcusedFinding> Excused() const;
    bool Clean() const;
    std::size_t Count(Rule rule) const;
    // Empties the list and returns it: for tests that expect findings.
    std::vector<Finding> TakeFindings();

  private:
    Finding Describe(Rule rule, std::string detail, std::string text, const void* caller) const;
    void Record(Finding finding);
    bool TakeIfExcused(const Finding& finding);
    [[noreturn]] void PrintAndAbort(Finding finding);

    Kernel& kernel_;
    const bool enabled_;
    const Policy policy_;
    mutable Mutex mutex_;
    std::vector<Excuse> excuses_ HOST_GUARDED_BY(mutex_);
    std::vector<Finding> findings_ HOST_GUARDED_BY(mutex_);
    std::vector<ExcusedFinding> excused_ HOST_GUARDED_BY(mutex_);
};

// The finding as it is printed: rule, bug check, actor, IRQL, step, caller, text.
std::string FormatFinding(const Finding& finding);

// "function+0x12 (file)" as far as the process knows it.
std::string SymbolOf(const void* address);

// Shorthands for checks in exported routines; nothing happens while the verifier is off.
void VfReport(Rule rule, std::string detail, std::string text, const void* caller = nullptr);
bool VfEnabled();
// IRQL of `routine` (its name) must be at most `highest`; reports `rule` if not.
void VfRequireIrqlAtMost(int highest, Rule rule, const char* routine, const void* caller);

// A counted string is well formed: even length, not beyond its maximum, a buffer unless it is empty. False and a
// report if not.
bool VfRequireString(const UNICODE_STRING* text, const char* routine, const void* caller);

// State of the calling thread before a driver callback; VfLeaveCallback reports a changed IRQL, locks that
// are held and were not, and a changed critical-region count.
struct CallbackState {
    int irql = 0;
    std::size_t locks_held = 0;
    int critical_regions = 0;
};
CallbackState VfEnterCallback();
void VfLeaveCallback(const CallbackState& before, const char* what, const void* routine);

// Spin locks and fast mutexes the calling thread holds (SpinLockSafe asks before a completion).
std::size_t VfSpinLocksHeld();
std::string VfDescribeLocksHeld();

// What a driver must not leave behind when it is unloaded: pool, timers, DPCs, work items, system threads.
void VfAuditUnload(std::string_view driver);
// Between the two the driver's unload routine runs: it may not allocate any more.
void VfBeginUnload();
void VfEndUnload();
// Spawned threads and work items that have not ended although the kernel goes away: false and a report.
bool VfAuditThreads(Kernel& kernel);

} // namespace host
