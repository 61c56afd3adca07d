// The table of tests/win32/expectations.cpp, on Windows' API and Wine's kernel.
#include "tests/windows/rig_test.h"

#include "tests/win32/expectations.h"
#include "tests/win32/status_errors.h"

#include <winternl.h>

#include <cstdio>

namespace {

class WineProgram : public win32::Program {
  public:
    explicit WineProgram(Rig& rig) : rig_(&rig) {}

    win32::Outcome Unplug() override
    {
        rig_->Unplug();
        return {};
    }
    double Now() override
    {
        LARGE_INTEGER now, frequency;
        QueryPerformanceCounter(&now);
        QueryPerformanceFrequency(&frequency);
        return 1000.0 * static_cast<double>(now.QuadPart) / static_cast<double>(frequency.QuadPart);
    }
    void Pause(DWORD milliseconds) override { Sleep(milliseconds); }
    DWORD Slack() const override { return 250; } // the machine is busy

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
