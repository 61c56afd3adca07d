// Faults on demand: every place that can be made to fail asks here, so that they are named, counted and
// switched in one place.
#pragma once

#include "ke/mutex.h"
#include "ke/time.h"

#include <array>
#include <cstdint>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace host {

#define HOST_FAULT_POINTS(P)                                                                                 \
    P(PoolAllocate, "pool.allocate")         /* detail: the tag, four characters */                          \
    P(WorkItemAllocate, "workitem.allocate") /* no detail */                                                 \
    P(IrpAllocate, "irp.allocate")           /* no detail */                                                 \
    P(BusRequest, "bus.request")             /* detail: the URB function's name */                           \
    P(LowerDriver, "io.lower-driver")        /* detail: the major function's name */                         \
    P(RegistryCall, "registry.call")         /* detail: the routine's name */                                \
    P(DeviceInterface, "io.device-interface")                                                                \
    P(SymbolicLink, "io.symbolic-link")                                                                      \
    P(DeviceCreate, "io.device-create")                                                                      \
    P(PowerRequest, "po.request")                                                                            \
    P(WmiRegister, "wmi.register")

enum class FaultPoint : std::uint8_t {
#define HOST_ENUMERATOR(name, text) name,
    HOST_FAULT_POINTS(HOST_ENUMERATOR)
#undef HOST_ENUMERATOR
        Count,
};
const char* FaultPointName(FaultPoint point);

enum class FaultAction : std::uint8_t {
    Fail,  // the call fails
    Delay, // its completion comes `delay` later
    Pend,  // it is completed from another thread, never inline
    Hang,  // it is completed only when cancelled
};

struct Fault {
    FaultAction action = FaultAction::Fail;
    std::int32_t status = 0; // NTSTATUS of a failure; 0: what that place fails with by habit
    Time delay = 0;
};

struct FaultPlan {
    std::string detail;      // only calls with this detail count; empty: all
    std::uint64_t nth = 1;   // the first call that is hit, counted from the arming
    std::uint64_t count = 1; // and how many from there; UINT64_MAX: all
    unsigned percent = 100;  // each of those is hit with this probability
    Fault fault;
};

class FaultPoints {
  public:
    explicit FaultPoints(std::uint64_t seed);

    // Several plans may be armed at one point; the first that is due answers.
    void Arm(FaultPoint point, FaultPlan plan);
    void Disarm(FaultPoint point);
    void DisarmAll();

    // Asked by the place itself, once per call: says whether it is to fail and how.
    std::optional<Fault> Hit(FaultPoint point, std::string_view detail = {});

    std::uint64_t Faults(FaultPoint point) const; // calls that failed, since the kernel started

  private:
    struct Armed {
        FaultPlan plan;
        std::uint64_t calls = 0;
    };
    struct Place {
        std::uint64_t faults = 0;
        std::vector<Armed> plans;
    };

    mutable Mutex mutex_;
    std::array<Place, static_cast<std::size_t>(FaultPoint::Count)> places_ HOST_GUARDED_BY(mutex_);
    std::mt19937_64 random_ HOST_GUARDED_BY(mutex_);
};

} // namespace host
