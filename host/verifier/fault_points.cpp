#include "verifier/fault_points.h"

#include <utility>

namespace host {
namespace {

constexpr const char* kNames[] = {
#define HOST_NAME(name, text) text,
    HOST_FAULT_POINTS(HOST_NAME)
#undef HOST_NAME
};

std::size_t IndexOf(FaultPoint point)
{
    return static_cast<std::size_t>(point);
}

} // namespace

const char* FaultPointName(FaultPoint point)
{
    return kNames[IndexOf(point)];
}

FaultPoints::FaultPoints(std::uint64_t seed) : random_(seed) {}

void FaultPoints::Arm(FaultPoint point, FaultPlan plan)
{
    const MutexLock lock(mutex_);
    places_[IndexOf(point)].plans.push_back({std::move(plan), 0});
}

void FaultPoints::Disarm(FaultPoint point)
{
    const MutexLock lock(mutex_);
    places_[IndexOf(point)].plans.clear();
}

void FaultPoints::DisarmAll()
{
    const MutexLock lock(mutex_);
    for (Place& place : places_)
        place.plans.clear();
}

std::optional<Fault> FaultPoints::Hit(FaultPoint point, std::string_view detail)
{
    const MutexLock lock(mutex_);
    Place& place = places_[IndexOf(point)];
    std::optional<Fault> answer;
    // Every plan counts every call, whichever of them answers.
    for (Armed& armed : place.plans) {
        const FaultPlan& plan = armed.plan;
        if (!plan.detail.empty() && plan.detail != detail)
            continue;
        ++armed.calls;
        const bool due = armed.calls >= plan.nth && armed.calls - plan.nth < plan.count;
        if (due && !answer && random_() % 100 < plan.percent)
            answer = plan.fault;
    }
    place.faults += answer ? 1 : 0;
    return answer;
}

std::uint64_t FaultPoints::Faults(FaultPoint point) const
{
    const MutexLock lock(mutex_);
    return places_[IndexOf(point)].faults;
}

} // namespace host
