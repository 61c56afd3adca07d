// The table of tests/win32/expectations.cpp, on Windows' API and Wine's kernel.
#include "windows/rig/program/rig_test.h"

#include "tests/win32/expectations.h"
#include "tests/win32/status_errors.h"

#include <winternl.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <thread>

namespace {

enum Pnp : unsigned char { kStart = 0, kStop = 4, kQueryStop = 5 };
enum Power : unsigned char { kSetPower = 2, kQueryPower = 3 };
constexpr unsigned kWorking = 1;   // PowerSystemWorking
constexpr unsigned kSleeping3 = 4; // PowerSystemSleeping3

double Milliseconds()
{
    LARGE_INTEGER now, frequency;
    QueryPerformanceCounter(&now);
    QueryPerformanceFrequency(&frequency);
    return 1000.0 * static_cast<double>(now.QuadPart) / static_cast<double>(frequency.QuadPart);
}

// By how much the machine wakes threads too late: this one asks all the time.
class Lateness {
  public:
    ~Lateness()
    {
        over_ = true;
        thread_.join();
    }
    // The worst since the last call, in ms.
    double Take()
    {
        ::Sleep(2 * kNap); // the nap that is under way counts
        return worst_.exchange(0);
    }

  private:
    static constexpr DWORD kNap = 5; // ms

    void Run()
    {
        while (!over_) {
            const double start = Milliseconds();
            ::Sleep(kNap);
            worst_ = std::max<double>(worst_, Milliseconds() - start - kNap);
        }
    }

    std::atomic<double> worst_{0};
    std::atomic<bool> over_{false};
    std::thread thread_{[this] { Run(); }};
};

class WineProgram : public win32::Program {
  public:
    explicit WineProgram(Rig& rig) : rig_(&rig) {}

    win32::Outcome Unplug() override
    {
        rig_->Unplug();
        return {};
    }
    win32::Outcome Stop() override
    {
        const long status = rig_->SendPnp(kQueryStop);
        return {static_cast<DWORD>(status == 0 ? rig_->SendPnp(kStop) : status), 0, {}};
    }
    win32::Outcome Start() override { return {static_cast<DWORD>(rig_->SendPnp(kStart)), 0, {}}; }
    win32::Outcome Sleep() override
    {
        const long status = rig_->SendPower(kQueryPower, true, kSleeping3);
        return {
            static_cast<DWORD>(status == 0 ? rig_->SendPower(kSetPower, true, kSleeping3) : status), 0, {}};
    }
    win32::Outcome Wake() override
    {
        const unsigned before = rig_->Counters().at_commands;
        const long status = rig_->SendPower(kSetPower, true, kWorking);
        WaitUntil("sentences flow again", [&] {
            const RigCounters counters = rig_->Counters();
            return counters.at_commands > before && counters.flowing != 0;
        });
        return {static_cast<DWORD>(status), 0, {}};
    }
    double Now() override { return Milliseconds(); }
    void Pause(DWORD milliseconds) override { ::Sleep(milliseconds); }
    // A read's end goes through five threads: timers, DPCs, requests, the server, and the program.
    DWORD Slack() const override { return 40 + static_cast<DWORD>(5 * lateness_.Take()); }

  protected:
    void Send(std::string_view text) override { rig_->Feed(std::string(text)); }
    win32::Outcome SendControl(const win32::Handle& port, DWORD code, std::string_view input,
                               std::string& output) override
    {
        const Handle event(CreateEventA(nullptr, TRUE, FALSE, nullptr));
        IO_STATUS_BLOCK result{};
        NTSTATUS status = NtDeviceIoControlFile(
            port.value, event, nullptr, nullptr, &result, code, const_cast<char*>(input.data()),
            static_cast<ULONG>(input.size()), output.data(), static_cast<ULONG>(output.size()));
        if (status == STATUS_PENDING) {
            CHECK_EQ(WaitForSingleObject(event, kPatience), WAIT_OBJECT_0);
            status = result.Status;
        }
        return {static_cast<DWORD>(status), static_cast<DWORD>(result.Information), {}};
    }

  private:
    Rig* rig_;
    mutable Lateness lateness_;
};

} // namespace

SCENARIO(MeetsTheExpectations)
{
    Rig rig;
    rig.Plug();
    const Port keeper("COM5");
    WaitUntil("sentences flow", [&] { return rig.Counters().flowing != 0; });
    std::size_t failures = 0;
    for (const win32::Scenario& scenario : win32::Scenarios()) {
        WaitUntil("the driver closes the files", [&] { return rig.Counters().open_files == 1; });
        WineProgram program(rig);
        for (const std::string& line : Play(program, scenario, true)) {
            std::printf("    %s, %s\n", scenario.name, line.c_str());
            ++failures;
        }
    }
    CHECK_EQ(failures, 0);
}

SCENARIO(TurnsStatusesIntoTheSameErrors)
{
    for (const win32::StatusError& each : win32::kStatusErrors)
        CHECK_EQ(RtlNtStatusToDosError(static_cast<NTSTATUS>(each.status)), each.error);
}
