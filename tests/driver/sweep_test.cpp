// Everything that can fail, failing once: every allocation, bus request and registry call from the load to the end of
// the first minute of reading. Nothing may hang for good, leak, or break a rule; and when the fault is over, the next
// module that is plugged in works.
#include "rig.h"

#include <ntstatus.h>

#include <cstdint>
#include <string>

namespace navox_test {
namespace {

struct Sweep {
    const char* name;
    host::FaultPoint point;
    host::Fault fault;
};

class EverythingFailsOnce : public ::testing::TestWithParam<Sweep> {};

// A client that reads for a minute, or as long as the port lets it.
void ReadForAMinute(Rig& rig)
{
    Port port;
    if (!NT_SUCCESS(rig.TryOpen(&port)))
        return;
    if (!NT_SUCCESS(port.SetTimeouts(0, 0, 5'000)))
        return;
    const host::Time end = rig.kernel.Now() + 60 * kSecond;
    while (rig.kernel.Now() < end) {
        const NTSTATUS status = port.Read(300).status;
        if (status != STATUS_SUCCESS && status != STATUS_TIMEOUT)
            return;
    }
}

// The whole life of a module with the `nth` call at the point failing. False: there were not so many calls.
bool LiveThrough(const Sweep& sweep, std::uint64_t nth)
{
    SCOPED_TRACE(std::string(sweep.name) + ", call " + std::to_string(nth));
    RigOptions options;
    options.load = false;
    options.kernel.replay_command = "call " + std::to_string(nth) + " of sweep " + sweep.name;
    Rig rig(std::move(options));
    rig.kernel.Faults().Arm(sweep.point, {.nth = nth, .fault = sweep.fault});

    const bool loaded = NT_SUCCESS(rig.Load());
    host::ThreadHandle client;
    if (loaded) {
        rig.TryPlug(); // starting may hang with a bus request: nothing waits for it here
        rig.RunFor(kSecond);
        client = rig.kernel.Spawn("client", [&] { ReadForAMinute(rig); });
        rig.RunFor(62 * kSecond);
    }
    const bool hit = rig.kernel.Faults().Faults(sweep.point) != 0;
    // A removal that cannot read the port's name leaves its link behind; that is not looked at here.
    rig.kernel.Faults().DisarmAll();
    if (rig.usb_port != nullptr)
        rig.Unplug();
    if (client.Joinable())
        client.Join();

    // Afterwards all is well.
    if (!loaded)
        EXPECT_EQ(rig.Load(), STATUS_SUCCESS);
    rig.Plug();
    Port port = rig.OpenStreaming();
    EXPECT_EQ(port.Read(kEmptyFix.size()).Text(), kEmptyFix);
    return hit;
}

TEST_P(EverythingFailsOnce, AndTheNextModuleWorks)
{
    // The first seconds make nearly all different calls; from there on each fix is like the one before.
    constexpr std::uint64_t kMostCalls = 60;
    std::uint64_t nth = 1;
    while (nth <= kMostCalls && LiveThrough(GetParam(), nth) && !::testing::Test::HasFailure())
        ++nth;
    EXPECT_GT(nth, 5u) << "the point was hardly ever passed: this sweep proves nothing";
}

INSTANTIATE_TEST_SUITE_P(
    Points, EverythingFailsOnce,
    ::testing::Values(
        Sweep{"PoolAllocation", host::FaultPoint::PoolAllocate, {}},
        Sweep{"WorkItemAllocation", host::FaultPoint::WorkItemAllocate, {}},
        Sweep{"IrpAllocation", host::FaultPoint::IrpAllocate, {}},
        Sweep{"RegistryCall", host::FaultPoint::RegistryCall, {}},
        Sweep{"BusRequestFails", host::FaultPoint::BusRequest, {}},
        Sweep{"BusRequestStalls",
              host::FaultPoint::BusRequest,
              {.action = host::FaultAction::Fail, .status = STATUS_UNSUCCESSFUL}},
        Sweep{"BusRequestComesLate",
              host::FaultPoint::BusRequest,
              {.action = host::FaultAction::Delay, .delay = 10 * kSecond}},
        Sweep{"BusRequestPends", host::FaultPoint::BusRequest, {.action = host::FaultAction::Pend}},
        Sweep{"BusRequestHangs", host::FaultPoint::BusRequest, {.action = host::FaultAction::Hang}}),
    [](const auto& info) { return info.param.name; });

} // namespace
} // namespace navox_test
