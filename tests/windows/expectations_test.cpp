// The table of tests/win32/expectations.cpp, on Windows' API and Wine's kernel.
#include "windows/rig/program/rig_test.h"

#include "tests/win32/expectations.h"
#include "tests/win32/status_errors.h"

#include <winternl.h>

#include <cstdio>

namespace {

enum Pnp : unsigned char { kStart = 0, kStop = 4, kQueryStop = 5 };
enum Power : unsigned char { kSetPower = 2, kQueryPower = 3 };
constexpr unsigned kWorking = 1;   // PowerSystemWorking
constexpr unsigned kSleeping3 = 4; // PowerSystemSleeping3

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
    double Now() override
    {
        LARGE_INTEGER now, frequency;
        QueryPerformanceCounter(&now);
        QueryPerformanceFrequency(&frequency);
        return 1000.0 * static_cast<double>(now.QuadPart) / static_cast<double>(frequency.QuadPart);
    }
    void Pause(DWORD milliseconds) override { ::Sleep(milliseconds); }
    DWORD Slack() const override { return 1000; } // the machine is busy

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
    for (const auto& [status, error] : win32::kStatusErrors)
        CHECK_EQ(RtlNtStatusToDosError(static_cast<NTSTATUS>(status)), error);
}
