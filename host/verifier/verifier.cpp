#include "verifier/verifier.h"

#include "ke/kernel_impl.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <utility>

namespace host {
namespace {

constexpr RuleInfo kRules[] = {
#define VF_INFO(name, code, parameter, text) {#name, code, parameter, text},
    VF_CORE_RULES(VF_INFO) VF_IRP_RULES(VF_INFO)
#undef VF_INFO
};

std::string Hex(std::uint32_t value)
{
    std::array<char, 12> text{};
    std::snprintf(text.data(), text.size(), "0x%X", value);
    return text.data();
}

} // namespace

const RuleInfo& InfoOf(Rule rule)
{
    return kRules[static_cast<std::size_t>(rule)];
}

const char* NameOf(Rule rule)
{
    return InfoOf(rule).name;
}

Verifier::Verifier(Kernel& kernel, bool enabled, Policy policy, std::vector<Excuse> excuses)
    : kernel_(kernel), enabled_(enabled), policy_(policy), excuses_(std::move(excuses))
{}

Finding Verifier::Describe(Rule rule, std::string detail, std::string text, const void* caller) const
{
    const Thread* const self = KiCurrentThread();
    const Scheduler* const scheduler = kernel_.impl().scheduler.get();
    return {.rule = rule,
            .actor = ActorName(),
            .detail = std::move(detail),
            .text = std::move(text),
            .caller = caller,
            .irql = self == nullptr ? 0 : self->irql,
            .step = scheduler->Step(),
            .time = scheduler->Now()};
}

bool Verifier::TakeIfExcused(const Finding& finding)
{
    const MutexLock lock(mutex_);
    for (const Excuse& excuse : excuses_) {
        if (excuse.rule != finding.rule || (!excuse.detail.empty() && excuse.detail != finding.detail))
            continue;
        if (excuse.matches != nullptr && !excuse.matches(finding))
            continue;
        excused_.push_back({finding, excuse.reason});
        return true;
    }
    return false;
}

void Verifier::Report(Rule rule, std::string detail, std::string text, const void* caller)
{
    Finding finding = Describe(rule, std::move(detail), std::move(text), caller);
    if (TakeIfExcused(finding))
        return;
    if (policy_ == Policy::Stop)
        PrintAndAbort(std::move(finding));
    kernel_.Log().Note("verifier", NameOf(rule), finding.detail);
    Record(std::move(finding));
}

void Verifier::ReportFatal(Rule rule, std::string detail, std::string text, const void* caller)
{
    Finding finding = Describe(rule, std::move(detail), std::move(text), caller);
    IsolatedRun* const run = kernel_.impl().isolated_run;
    if (policy_ == Policy::Stop || !kernel_.Simulated() || run == nullptr)
        PrintAndAbort(std::move(finding));
    Record(std::move(finding));
    kernel_.Abandon();
    KiAbandonRun(*run);
}

void Verifier::Record(Finding finding)
{
    if (const auto& listener = kernel_.Options().on_finding; listener != nullptr)
        listener(finding);
    const MutexLock lock(mutex_);
    findings_.push_back(std::move(finding));
}

void Verifier::PrintAndAbort(Finding finding)
{
    std::fprintf(stderr, "\n%s\n%s\n", FormatFinding(finding).c_str(), kernel_.RunDescription().c_str());
    std::fflush(stderr);
    {
        const MutexLock lock(mutex_);
        findings_.push_back(std::move(finding));
    }
    if (kernel_.Options().on_end != nullptr)
        kernel_.Options().on_end(kernel_);
    std::abort();
}

void Verifier::AddExcuse(Excuse excuse)
{
    const MutexLock lock(mutex_);
    excuses_.push_back(std::move(excuse));
}

std::vector<Finding> Verifier::Findings() const
{
    const MutexLock lock(mutex_);
    return findings_;
}

std::vector<ExcusedFinding> Verifier::Excused() const
{
    const MutexLock lock(mutex_);
    return excused_;
}

bool Verifier::Clean() const
{
    const MutexLock lock(mutex_);
    return findings_.empty();
}

std::size_t Verifier::Count(Rule rule) const
{
    const MutexLock lock(mutex_);
    return static_cast<std::size_t>(std::count_if(
        findings_.begin(), findings_.end(), [rule](const Finding& finding) { return finding.rule == rule; }));
}

std::vector<Finding> Verifier::TakeFindings()
{
    const MutexLock lock(mutex_);
    return std::exchange(findings_, {});
}

std::string FormatFinding(const Finding& finding)
{
    const RuleInfo& info = InfoOf(finding.rule);
    std::string text = std::string("*** ") + info.name + ": " + info.text + "\n    bug check " +
                       Hex(info.bug_check) + ", first parameter " + Hex(info.parameter) + "\n    actor " +
                       finding.actor + ", IRQL " + std::to_string(finding.irql) + ", step " +
                       std::to_string(finding.step);
    if (finding.caller != nullptr)
        text += "\n    at " + SymbolOf(finding.caller);
    if (!finding.detail.empty())
        text += "\n    detail " + finding.detail;
    return text + "\n    " + finding.text;
}

void VfReport(Rule rule, std::string detail, std::string text, const void* caller)
{
    Kernel* const kernel = Kernel::CurrentOrNull();
    if (kernel != nullptr && kernel->GetVerifier().Enabled())
        kernel->GetVerifier().Report(rule, std::move(detail), std::move(text), caller);
}

bool VfEnabled()
{
    const Kernel* const kernel = Kernel::CurrentOrNull();
    return kernel != nullptr && const_cast<Kernel*>(kernel)->GetVerifier().Enabled();
}

void VfRequireIrqlAtMost(int highest, Rule rule, const char* routine, const void* caller)
{
    const Thread* const self = KiCurrentThread();
    if (self != nullptr && self->irql > highest)
        VfReport(rule, routine,
                 std::string(routine) + " at IRQL " + std::to_string(self->irql) + ", at most " +
                     std::to_string(highest) + " is allowed; " + VfDescribeLocksHeld(),
                 caller);
}

bool VfRequireString(const UNICODE_STRING* text, const char* routine, const void* caller)
{
    if (text->Length % sizeof(WCHAR) == 0 && text->Length <= text->MaximumLength &&
        (text->Buffer != nullptr || text->MaximumLength == 0))
        return true;
    VfReport(Rule::MalformedString, routine,
             std::string(routine) + " was given a string of length " + std::to_string(text->Length) +
                 ", maximum " + std::to_string(text->MaximumLength) +
                 (text->Buffer == nullptr ? ", without a buffer" : ""),
             caller);
    return false;
}

CallbackState VfEnterCallback()
{
    const Thread& self = KiSelf();
    return {self.irql, self.locks.size(), self.critical_regions};
}

void VfLeaveCallback(const CallbackState& before, const char* what, const void* routine)
{
    Thread& self = KiSelf();
    if (self.irql != before.irql) {
        VfReport(Rule::IrqlReturn, what,
                 std::string(what) + " was called at IRQL " + std::to_string(before.irql) +
                     " and returned at " + std::to_string(self.irql),
                 routine);
        KiSetIrql(self, static_cast<KIRQL>(before.irql));
    }
    if (self.locks.size() > before.locks_held)
        VfReport(Rule::LockHeldAtReturn, what,
                 std::string(what) + " returned with locks held; " + VfDescribeLocksHeld(), routine);
    if (self.critical_regions != before.critical_regions)
        VfReport(Rule::CriticalRegions, what,
                 std::string(what) + " entered " +
                     std::to_string(self.critical_regions - before.critical_regions) +
                     " more critical regions than it left",
                 routine);
}

} // namespace host
