// The device's life in a few runs. Prints what the kernel's event log has of each, for scripts/lifecycle.py to draw.
#include "lifecycle.h"

#include "po/power_manager.h"

#include <cctype>
#include <iostream>
#include <nlohmann/json.hpp>

namespace navox_test {
namespace {

using nlohmann::json;

json JsonOf(const host::Event& event, const std::vector<std::string>& actors)
{
    static constexpr const char* kKinds[] = {"instant", "begin", "end", "begin", "step", "end", "counter"};
    return {{"ms", event.time / kMillisecond},
            {"actor", actors[event.actor]},
            {"kind", kKinds[static_cast<std::size_t>(event.kind)]},
            {"category", event.category},
            {"name", event.name},
            {"id", event.id},
            {"detail", event.detail}};
}

// The first words that a transfer has brought.
std::string AnswerOf(const host::UsbRequest& request)
{
    const bool in = (request.endpoint & 0x80) != 0;
    const std::string text(request.data.begin(), request.data.end());
    const std::size_t begin = text.find_first_not_of("\r\n");
    if (!in || begin == std::string::npos || std::isprint(static_cast<unsigned char>(text[begin])) == 0)
        return "";
    return text.substr(begin, text.find_first_of("\r\n,", begin) - begin);
}

// The log from `begin` on. Bus requests say what they are for, and what they have brought.
json EventsOf(Rig& rig, std::size_t begin)
{
    const std::vector<host::Event> events = rig.kernel.Log().Events();
    const std::vector<host::UsbRequest> requests = host::UsbBus::Current().Log();
    auto request = requests.begin();
    std::map<std::uint64_t, const host::UsbRequest*> sent; // by the event's number
    json list = json::array();
    for (std::size_t at = 0; at < events.size(); ++at) {
        json event = JsonOf(events[at], rig.kernel.ActorNames());
        if (event["category"] == "usb" && event["id"] != 0) {
            const bool begins = event["kind"] == "begin";
            const host::UsbRequest& which =
                *(begins ? sent[event["id"]] = &*request++ : sent.at(event["id"]));
            event["name"] = DescribeRequest(which);
            event["answer"] = AnswerOf(which);
        }
        if (at >= begin)
            list.push_back(std::move(event));
    }
    return list;
}

using Scenario = void(Machine& machine);

// The handle that a scenario leaves open.
Port port;

json Record(const RigOptions& options, Scenario* prepare, Scenario* run)
{
    Machine machine(options);
    prepare(machine);
    const std::size_t begin = machine.rig.kernel.Log().Events().size();
    run(machine);
    json events = EventsOf(machine.rig, begin);
    port.Close();
    return events;
}

void Nothing(Machine&) {}

void Stream(Machine& machine)
{
    port = machine.rig.OpenStreaming();
}

void FirstOpen(Machine& machine)
{
    port = machine.rig.Open();
    (void)port.Read(32);
    machine.rig.RunFor(2'200 * kMillisecond);
    (void)port.Read(64);
}

void TwoClients(Machine& machine)
{
    host::ThreadHandle second = machine.rig.kernel.Spawn("client 2", [&machine] {
        const Port other = machine.rig.Open();
        (void)other.Read(32);
        (void)other.Read(64);
        machine.rig.RunFor(200 * kMillisecond);
    });
    machine.rig.RunFor(10 * kMillisecond);
    (void)port.Read(64); // 32 of which are there
    second.Join();
}

void LastClose(Machine& machine)
{
    port.Close();
    machine.rig.RunFor(kSecond);
}

void UnplugWhileReading(Machine& machine)
{
    const host::nt::Request read = port.StartRead(4096);
    machine.rig.Unplug();
    (void)read.Wait();
    port.Close();
    EXPECT_TRUE(machine.rig.kernel.RunUntil([&] { return machine.rig.Node() == nullptr; }, kSecond));
}

void Reopen(Machine& machine)
{
    machine.rig.RunFor(3 * kSecond);
    port.Close();
    Stream(machine);
}

void QueryRemoveThenCancel(Machine& machine)
{
    EXPECT_EQ(host::PnpManager::Current().QueryRemove(machine.rig.Node()), STATUS_SUCCESS);
    EXPECT_EQ(host::PnpManager::Current().CancelRemove(machine.rig.Node()), STATUS_SUCCESS);
    Reopen(machine);
}

void StopAndRestart(Machine& machine)
{
    EXPECT_EQ(host::PnpManager::Current().Rebalance(machine.rig.Node()), STATUS_SUCCESS);
    Reopen(machine);
}

void SleepAndResume(Machine& machine)
{
    EXPECT_EQ(host::PowerManager::Current().Sleep(PowerSystemSleeping3), STATUS_SUCCESS);
    machine.rig.RunFor(kSecond);
    EXPECT_EQ(host::PowerManager::Current().Wake(), STATUS_SUCCESS);
    machine.rig.RunFor(kSecond);
}

void IdleAndOpen(Machine& machine)
{
    machine.rig.RunFor(6 * kSecond);
    port = machine.rig.Open();
}

void FailedStart(Machine& machine)
{
    machine.rig.kernel.Faults().Arm(host::FaultPoint::BusRequest,
                                    {.detail = "SELECT_CONFIGURATION", .fault = {}});
    machine.rig.Plug();
}

void UnplugAndUnload(Machine& machine)
{
    machine.rig.Unplug();
    EXPECT_EQ(machine.rig.Unload(), STATUS_SUCCESS);
}

} // namespace
} // namespace navox_test

int main()
{
    using namespace navox_test;
    const struct {
        const char* name;
        RigOptions options;
        Scenario* prepare;
        Scenario* run;
    } kRuns[] = {
        {"first open", {}, Nothing, FirstOpen},
        {"two clients", {}, Stream, TwoClients},
        {"last close", {}, Stream, LastClose},
        {"unplug while reading", {}, Stream, UnplugWhileReading},
        {"query-remove, then cancel", {}, Stream, QueryRemoveThenCancel},
        {"stop and restart", {}, Stream, StopAndRestart},
        {"sleep and resume", {}, Stream, SleepAndResume},
        {"sleep and fast resume", {.settings = {{"EnableFR", 1}}}, Stream, SleepAndResume},
        {"idle suspend and wake by open",
         {.settings = {{"EnableSelectiveSuspend", 1}}},
         Nothing,
         IdleAndOpen},
        {"failed start", {.plug = false}, Nothing, FailedStart},
        {"unload", {}, Nothing, UnplugAndUnload},
    };
    testing::InitGoogleTest();
    json all = json::object();
    for (const auto& run : kRuns)
        all[run.name] = Record(run.options, run.prepare, run.run);
    std::cout << all.dump(0) << '\n';
    return testing::UnitTest::GetInstance()->ad_hoc_test_result().Failed() ? 1 : 0;
}
