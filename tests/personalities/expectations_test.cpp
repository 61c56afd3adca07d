// The table of expectations on the user-mode kernel. tests/windows has it on Wine's.
#include "tests/win32/expectations.h"

#include "apps/system.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

namespace {

using win32::Scenario;

// Gives what it was fed, at the next millisecond.
class FedSource : public module::NmeaSource {
  public:
    explicit FedSource(std::string& fed) : fed_(fed) {}
    void Start(module::Time now) override { due_ = now; }
    std::optional<module::Time> Due() const override { return due_; }
    std::string Take() override
    {
        due_ = *due_ + module::kMillisecond;
        return std::exchange(fed_, {});
    }

  private:
    std::string& fed_;
    std::optional<module::Time> due_;
};

constexpr host::Time kStartUp = 3 * host::kSecond; // until sentences flow

host::KernelOptions Options()
{
    host::KernelOptions options;
    options.clock_tick = 156'250; // an interval's time-out looks at every tick
    options.keep_events = false;
    options.guard_pages = false;
    return options;
}

// The machine outlives the handles.
struct Machine {
    Machine() = default;
    Machine(const Machine&) = delete;
    Machine& operator=(const Machine&) = delete;
    ~Machine()
    {
        if (system.Plugged())
            system.Unplug();
        EXPECT_TRUE(system.Unload());
    }

    std::string fed;
    app::System system{{.kernel = Options(), .source = std::make_unique<FedSource>(fed)}};
};

class HostProgram : private Machine, public win32::Program {
  public:
    HostProgram()
    {
        system.Plug();
        keeper_ = win32::CreateFile("COM5", win32::GENERIC_READ_ACCESS, 0, 0);
        EXPECT_TRUE(keeper_);
        system.Kernel().RunFor(kStartUp);
    }

    win32::Outcome Unplug() override
    {
        system.Unplug();
        return {};
    }
    win32::Outcome Stop() override { return {static_cast<win32::DWORD>(system.Stop()), 0, {}}; }
    win32::Outcome Start() override { return {static_cast<win32::DWORD>(system.Start()), 0, {}}; }
    win32::Outcome Sleep() override
    {
        return {static_cast<win32::DWORD>(system.Sleep(PowerSystemSleeping3)), 0, {}};
    }
    win32::Outcome Wake() override
    {
        const NTSTATUS status = system.Wake();
        system.Kernel().RunFor(kStartUp);
        return {static_cast<win32::DWORD>(status), 0, {}};
    }
    double Now() override
    {
        return static_cast<double>(system.Kernel().InterruptTime()) / static_cast<double>(host::kMillisecond);
    }
    void Pause(win32::DWORD milliseconds) override
    {
        system.Kernel().RunFor(milliseconds * host::kMillisecond);
    }
    win32::DWORD Slack() const override { return 40; } // two ticks and a bit

  protected:
    void Send(std::string_view text) override { fed += text; }
    win32::Outcome SendControl(const win32::Handle& port, win32::DWORD code, std::string_view input,
                               std::string& output) override
    {
        const host::nt::Request request =
            port.file.StartControl(code, std::as_bytes(std::span(input)), output.size());
        const host::nt::Result result = request.Wait();
        if (request.Returned() != STATUS_PENDING && NT_ERROR(result.status))
            return {static_cast<win32::DWORD>(request.Returned()), 0, {}};
        output = result.Text();
        return {static_cast<win32::DWORD>(result.status), static_cast<win32::DWORD>(result.information), {}};
    }

  private:
    win32::Handle keeper_;
};

class Expectations : public testing::TestWithParam<Scenario> {};

TEST_P(Expectations, AreMet)
{
    HostProgram program;
    for (const std::string& line : Play(program, GetParam(), false))
        ADD_FAILURE() << line;
}

INSTANTIATE_TEST_SUITE_P(Table, Expectations,
                         testing::ValuesIn(win32::Scenarios().begin(), win32::Scenarios().end()),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(Fidelity, EveryDifferenceOfTheTableIsExplained)
{
    std::ifstream file(NAVOX_DOCS "/fidelity.md");
    const std::string text(std::istreambuf_iterator<char>(file), {});
    unsigned different = 0;
    for (const Scenario& scenario : win32::Scenarios()) {
        for (const win32::Step& step : scenario.steps) {
            if (!step.result_on_wine)
                continue;
            ++different;
            EXPECT_NE(text.find("\"" + std::string(step.what) + "\""), std::string::npos) << step.what;
        }
    }
    EXPECT_NE(different, 0u);
}

} // namespace
