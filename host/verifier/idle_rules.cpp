#include "verifier/idle_rules.h"

#include "po/power_manager.h"

namespace host {
namespace {

thread_local IdleScope* t_idle = nullptr;

} // namespace

IdleScope::IdleScope(PDEVICE_OBJECT pdo, Part part) : pdo_(pdo), part_(part), before_(t_idle)
{
    t_idle = this;
}

IdleScope::IdleScope() : before_(t_idle)
{
    t_idle = this;
}

IdleScope::~IdleScope()
{
    t_idle = before_;
}

void IdleScope::NotePowerUp(PDEVICE_OBJECT pdo)
{
    if (t_idle != nullptr && t_idle->pdo_ == pdo)
        t_idle->asked_ = true;
}

// A callback may wait for D2 while somebody else has asked for D0 already.
bool IdleScope::MayWait() const
{
    const bool up = asked_ || (part_ == Part::Completion && pdo_ != nullptr &&
                               PowerManager::Current().Watchdog().PoweringUp(pdo_));
    return !up;
}

void IdleScope::CheckWait(const char* routine, const void* caller)
{
    if (t_idle == nullptr || t_idle->MayWait())
        return;
    const char* const what = t_idle->part_ == Part::Callback ? "idle callback" : "idle completion";
    VfReport(Rule::IdleBlocksOnPowerUp, what,
             std::string(routine) + " in an " + what + " while the device is asked into D0", caller);
}

} // namespace host
