// Applications do anything at all to the port: open, controls with any code and any lengths, reads, writes, cancels,
// closes, while the module speaks and time passes. The verifier watches; and each input is played twice with other
// patterns in fresh system buffers, so that a byte that the driver did not write and that reaches an application shows.
#include "apps/system.h"
#include "fuzz/driver_steps.h"
#include "fuzz/input.h"
#include "io/io_manager.h"
#include "nt/file.h"
#include "usbd/usb_port.h"

#include <array>
#include <cstdio>
#include <deque>
#include <utility>

namespace {

using fuzz::Input;
using fuzz::Require;
using fuzz::Step;

// Says what it is given, when it is given it.
class Antenna : public module::NmeaSource {
  public:
    void Say(std::span<const std::uint8_t> text) { said_.emplace_back(text.begin(), text.end()); }

    void Start(module::Time now) override { start_ = now; }
    std::optional<module::Time> Due() const override { return said_.empty() ? std::nullopt : start_; }
    std::string Take() override
    {
        std::string text = std::move(said_.front());
        said_.pop_front();
        return text;
    }

  private:
    std::deque<std::string> said_;
    std::optional<module::Time> start_;
};

host::KernelOptions KernelFor(std::uint8_t schedule)
{
    host::KernelOptions options;
    options.strategy = schedule == 0 ? host::StrategyKind::Fifo : host::StrategyKind::Random;
    options.seed = schedule;
    options.clock_tick = 156'250; // 15.625 ms
    options.keep_events = false;
    options.worker_threads = 1;
    return options;
}

class Play {
  public:
    struct Call {
        std::uint32_t code; // of a control; 0: a read or a write
        host::nt::Request request;
        host::nt::Result result{};
    };

    Play(std::uint8_t schedule, std::byte fill)
        : antenna_(new Antenna),
          system_({.kernel = KernelFor(schedule), .source = std::unique_ptr<module::NmeaSource>(antenna_)})
    {
        host::IoManager::Current().SetSystemBufferFill(fill);
        system_.Plug();
        port_ = host::UsbBus::Current().Ports().front();
    }

    void Do(Input& input)
    {
        const std::uint8_t what = input.Byte();
        host::nt::File& file = files_.at((what >> 4) % fuzz::kHandles);
        const auto step = static_cast<Step>((what & 0xF) % static_cast<int>(Step::Count));
        switch (step) {
        case Step::Open:
            file.Close();
            (void)host::nt::File::Open(system_.PortName(), &file);
            break;
        case Step::Close: file.Close(); break;
        case Step::Arrive: Arrive(input.Take(input.Byte())); break;
        case Step::Pass: system_.Kernel().RunFor(host::Time{input.Byte()} * 20 * host::kMillisecond); break;
        case Step::Cancel:
            if (const std::size_t index = input.Byte(); index < calls_.size())
                (void)calls_[index].request.Cancel();
            break;
        default:
            if (file.IsOpen())
                CallOn(file, step, input);
            break;
        }
    }

    // Closes everything, and lets the kernel audit.
    std::vector<Call> Finish()
    {
        for (host::nt::File& file : files_)
            file.Close();
        for (Call& call : calls_)
            call.result = call.request.Wait();
        port_.reset();
        system_.Unplug();
        Require(system_.AwaitRemoval() && system_.Unload());
        std::vector<Call> calls = std::move(calls_);
        for (Call& call : calls)
            call.request = {};
        system_.End();
        return calls;
    }

  private:
    void CallOn(const host::nt::File& file, Step step, Input& input)
    {
        switch (step) {
        case Step::Read: calls_.push_back({0, file.StartRead(input.Word())}); break;
        case Step::Write:
            calls_.push_back({0, file.StartWrite(std::as_bytes(input.Take(input.Byte())))});
            break;
        case Step::Control: Control(file, input); break;
        default: (void)file.CancelIoEx(); break;
        }
    }

    void Control(const host::nt::File& file, Input& input)
    {
        const std::uint32_t code = input.Long();
        const std::uint8_t input_length = input.Byte();
        const std::uint16_t output_length = input.Word() % 0x400;
        // Where the input ends early there are zeros, so that any length can be tried.
        std::array<std::uint8_t, 0x100> bytes{};
        const auto given = input.Take(input_length);
        std::copy(given.begin(), given.end(), bytes.begin());
        const auto buffer = std::as_bytes(std::span(bytes).first(input_length));
        calls_.push_back({code, file.StartControl(code, buffer, output_length)});
    }

    void Arrive(std::span<const std::uint8_t> text)
    {
        port_->WithDevice([&](module::Device&) { antenna_->Say(text); });
        port_->Poke();
        system_.Kernel().RunUntilIdle();
    }

    Antenna* antenna_; // the module's
    app::System system_;
    host::UsbPortPtr port_;
    std::array<host::nt::File, fuzz::kHandles> files_;
    std::vector<Call> calls_;
};

std::vector<Play::Call> PlayWith(std::span<const std::uint8_t> bytes, std::byte fill)
{
    Input input(bytes);
    Play play(input.Byte(), fill);
    while (!input.empty())
        play.Do(input);
    return play.Finish();
}

void Compare(const Play::Call& one, const Play::Call& other)
{
    const bool same = one.result.status == other.result.status &&
                      one.result.information == other.result.information &&
                      one.result.data == other.result.data;
    if (same)
        return;
    std::fprintf(
        stderr,
        "control 0x%08x (0: a transfer) gives what the driver did not write: 0x%x and 0x%x, %zu bytes\n",
        one.code, static_cast<unsigned>(one.result.status), static_cast<unsigned>(other.result.status),
        one.result.information);
    for (std::size_t i = 0; i < std::min(one.result.data.size(), other.result.data.size()); ++i)
        if (one.result.data[i] != other.result.data[i])
            std::fprintf(stderr, "  byte %zu\n", i);
    std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::vector<Play::Call> one = PlayWith({data, size}, std::byte{0x5A});
    const std::vector<Play::Call> other = PlayWith({data, size}, std::byte{0xC3});
    Require(one.size() == other.size());
    for (std::size_t i = 0; i < one.size(); ++i)
        Compare(one[i], other[i]);
    return 0;
}
