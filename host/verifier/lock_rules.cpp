#include "verifier/lock_rules.h"

#include "ke/kernel_impl.h"

#include <algorithm>
#include <set>

namespace host {
namespace {

struct LockRuleSet {
    const char* name;
    Rule recursion;
    Rule uninitialized;
    Rule wrong_owner;
};

const LockRuleSet& RulesOf(LockKind kind)
{
    static constexpr LockRuleSet kSpin = {"spin lock", Rule::SpinLockRecursion, Rule::SpinLockUninitialized,
                                          Rule::SpinLockWrongOwner};
    static constexpr LockRuleSet kFast = {"fast mutex", Rule::FastMutexRecursion,
                                          Rule::FastMutexUninitialized, Rule::FastMutexWrongOwner};
    return kind == LockKind::Spin ? kSpin : kFast;
}

std::string NameOf(const Thread* thread)
{
    return thread == nullptr ? "nobody" : thread->kernel.impl().threads.NameOf(thread->id);
}

std::string TakenAt(const void* caller)
{
    return "taken at " + SymbolOf(caller);
}

} // namespace

void LockRules::Initialized(const void* lock, LockKind kind, const void* caller)
{
    std::string holder;
    {
        const MutexLock guard(mutex_);
        Node& node = nodes_[lock];
        if (node.owner != nullptr)
            holder = NameOf(node.owner);
        node = {.kind = kind, .initialized = true};
        // The order learnt so far was that of another lock at this address.
        for (auto& [other, that] : nodes_)
            that.after.erase(lock);
    }
    if (!holder.empty())
        VfReport(Rule::SpinLockDoubleInit, RulesOf(kind).name,
                 std::string("a ") + RulesOf(kind).name + " was initialised while " + holder + " holds it",
                 caller);
}

void LockRules::EventInitialized(const KEVENT* event, const void* caller)
{
    const void* const mutex = reinterpret_cast<const char*>(event) - offsetof(FAST_MUTEX, Event);
    {
        const MutexLock guard(mutex_);
        const auto found = nodes_.find(mutex);
        if (found == nodes_.end() || found->second.kind != LockKind::FastMutex)
            return;
    }
    Initialized(mutex, LockKind::FastMutex, caller);
}

bool LockRules::Acquiring(Thread& self, const void* lock, LockKind kind, const void* caller)
{
    const LockRuleSet& rules = RulesOf(kind);
    bool known = false;
    bool recursive = false;
    {
        const MutexLock guard(mutex_);
        Node& node = nodes_[lock];
        known = node.initialized || kind == LockKind::FastMutex; // of which only its event is seen
        recursive = node.owner == &self;
        node.kind = kind;
        node.initialized = true; // reported once
        node.recursions += recursive ? 1 : 0;
    }
    if (!known)
        VfReport(rules.uninitialized, rules.name, std::string("a ") + rules.name + " was never initialised",
                 caller);
    if (recursive) {
        VfReport(rules.recursion, rules.name, "it is held by this thread; " + VfDescribeLocksHeld(), caller);
        return false;
    }
    CheckOrder(self, lock, caller);
    return true;
}

void LockRules::CheckOrder(Thread& self, const void* lock, const void* caller)
{
    std::string path;
    {
        const MutexLock guard(mutex_);
        for (const HeldLock& held : self.locks) {
            const auto [edge, fresh] = nodes_[held.lock].after.try_emplace(lock, Edge{caller, NameOf(&self)});
            if (fresh && path.empty())
                Reaches(lock, held.lock, path);
        }
    }
    if (!path.empty())
        VfReport(Rule::LockOrder, "", VfDescribeLocksHeld() + ", and now takes another, which before " + path,
                 caller);
}

bool LockRules::Reaches(const void* from, const void* to, std::string& path) const
{
    std::set<const void*> seen;
    std::vector<std::pair<const void*, std::string>> open = {{from, ""}};
    while (!open.empty()) {
        const auto [lock, so_far] = open.back();
        open.pop_back();
        const auto node = nodes_.find(lock);
        if (node == nodes_.end() || !seen.insert(lock).second)
            continue;
        for (const auto& [next, edge] : node->second.after) {
            std::string longer = so_far + (so_far.empty() ? "was held" : ", which was held") + " when " +
                                 edge.actor + " took the next at " + SymbolOf(edge.caller);
            if (next == to) {
                path = std::move(longer);
                return true;
            }
            open.emplace_back(next, std::move(longer));
        }
    }
    return false;
}

void LockRules::Acquired(Thread& self, const void* lock, LockKind kind, KIRQL old_irql, const void* caller)
{
    const MutexLock guard(mutex_);
    Node& node = nodes_[lock];
    node.owner = &self;
    node.acquired_at = caller;
    self.locks.push_back({lock, kind == LockKind::Spin, old_irql, caller});
}

bool LockRules::Releasing(Thread& self, const void* lock, LockKind kind, std::optional<KIRQL> new_irql,
                          const void* caller)
{
    const LockRuleSet& rules = RulesOf(kind);
    std::string owner;
    bool innermost = true;
    HeldLock held;
    {
        const MutexLock guard(mutex_);
        Node& node = nodes_[lock];
        if (node.owner == &self && node.recursions > 0) {
            --node.recursions; // of an acquisition that was reported and not carried out
            return false;
        }
        if (node.owner == &self) {
            const auto found = std::find_if(self.locks.begin(), self.locks.end(),
                                            [lock](const HeldLock& one) { return one.lock == lock; });
            innermost = found + 1 == self.locks.end();
            held = *found;
            self.locks.erase(found);
            node.owner = nullptr;
        } else {
            owner = NameOf(node.owner);
        }
    }
    if (!owner.empty()) {
        VfReport(rules.wrong_owner, rules.name, "it is held by " + owner + "; " + VfDescribeLocksHeld(),
                 caller);
        return false;
    }
    if (!innermost)
        VfReport(Rule::LockReleaseOrder, rules.name, "a later one is still held; " + VfDescribeLocksHeld(),
                 caller);
    if (new_irql && *new_irql != held.old_irql)
        VfReport(Rule::SpinLockWrongOldIrql, rules.name,
                 "acquired at IRQL " + std::to_string(held.old_irql) + ", released to " +
                     std::to_string(*new_irql) + "; " + TakenAt(held.caller),
                 caller);
    return true;
}

bool LockRules::ForgetRange(const void* begin, const void* end, std::string& which)
{
    const MutexLock guard(mutex_);
    bool held = false;
    for (auto at = nodes_.lower_bound(begin); at != nodes_.end() && at->first < end;) {
        if (at->second.owner != nullptr) {
            held = true;
            which = std::string(RulesOf(at->second.kind).name) + " held by " + NameOf(at->second.owner) +
                    ", " + TakenAt(at->second.acquired_at);
            std::erase_if(at->second.owner->locks,
                          [&at](const HeldLock& one) { return one.lock == at->first; });
        }
        for (auto& [other, node] : nodes_)
            node.after.erase(at->first);
        at = nodes_.erase(at);
    }
    return held;
}

std::string LockRules::DescribeHolder(const void* lock) const
{
    const MutexLock guard(mutex_);
    const auto found = nodes_.find(lock);
    if (found == nodes_.end() || found->second.owner == nullptr)
        return "";
    return "held by " + NameOf(found->second.owner) + " at IRQL " +
           std::to_string(found->second.owner->irql) + ", " + TakenAt(found->second.acquired_at);
}

std::size_t VfSpinLocksHeld()
{
    const Thread& self = KiSelf();
    return static_cast<std::size_t>(
        std::count_if(self.locks.begin(), self.locks.end(), [](const HeldLock& held) { return held.spin; }));
}

std::string VfDescribeLocksHeld()
{
    const Thread& self = KiSelf();
    if (self.locks.empty())
        return "holds no lock";
    std::string text = "holds";
    for (const HeldLock& held : self.locks)
        text += std::string(&held == &self.locks.front() ? " a " : ", a ") +
                (held.spin ? "spin lock " : "fast mutex ") + TakenAt(held.caller);
    return text;
}

void VfCheckThreadEnd(Thread& self)
{
    if (!self.locks.empty())
        VfReport(Rule::LockHeldAtReturn, "thread", "a thread ended; it " + VfDescribeLocksHeld());
    if (self.irql != PASSIVE_LEVEL)
        VfReport(Rule::IrqlReturn, "thread", "a thread ended at IRQL " + std::to_string(self.irql));
    if (self.critical_regions != 0)
        VfReport(Rule::CriticalRegions, "thread",
                 "a thread ended within " + std::to_string(self.critical_regions) + " critical regions");
}

} // namespace host
