// The data path on a live kernel without a verifier: what a transfer costs for one client and for many, beside a
// memcpy of the same bytes, and what a read costs.
#include "cm/configuration_manager.h"
#include "io/device.h"
#include "io/driver.h"
#include "io/pnp_manager.h"
#include "ke/kernel.h"
#include "module/gps_module.h"
#include "navox_devio.h"
#include "navox_entry.h"
#include "nt/file.h"
#include "usbd/usb_bus.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

constexpr const char* kDriver = "navox";
constexpr std::size_t kRead = 64; // bytes, about one sentence

std::vector<UCHAR> Sentences(std::size_t size)
{
    constexpr char line[] = "$GPGGA,120000.00,4740.0000,N,00930.0000,E,1,08,0.9,400.0,M,48.0,M,,*5A\r\n";
    std::vector<UCHAR> text(size);
    for (std::size_t i = 0; i < size; ++i)
        text[i] = static_cast<UCHAR>(line[i % (sizeof(line) - 1)]);
    return text;
}

void Require(bool good, const char* what)
{
    if (good)
        return;
    std::fprintf(stderr, "no benchmark: %s\n", what);
    std::exit(1);
}

host::KernelOptions LiveOptions()
{
    host::KernelOptions options;
    options.mode = host::Mode::Live;
    options.verifier = false;
    options.guard_pages = false;
    options.keep_events = false;
    return options;
}

// A machine whose module says nothing by itself, with `clients` open handles.
class Machine {
  public:
    explicit Machine(std::size_t clients) : kernel_(LiveOptions())
    {
        host::PnpManager& pnp = host::PnpManager::Current();
        pnp.SetInstaller([](host::PnpNode& node) {
            host::ConfigurationManager::Current().Registry().SetString(node.HardwareKey(), u"PortName",
                                                                       u"COM5");
        });
        pnp.SetFunctionDriver(kDriver);
        Require(NT_SUCCESS(host::IoLoadDriver(kDriver, DriverEntry)), "the driver does not load");
        port_ = host::UsbBus::Current().Plug(std::make_shared<module::GpsModule>());
        pnp.Settle();
        files_.resize(clients);
        for (host::nt::File& file : files_)
            Require(NT_SUCCESS(host::nt::File::Open("COM5", &file)), "the port does not open");
        extension_ = GetExtension(host::IopTopOf(pnp.Nodes().front()->pdo));
        EmptyRings();
    }
    ~Machine()
    {
        files_.clear();
        host::UsbBus::Current().Unplug(port_);
        host::PnpManager::Current().Settle();
        host::IoUnloadDriver(kDriver);
    }
    Machine(const Machine&) = delete;
    Machine& operator=(const Machine&) = delete;

    void Deliver(const std::vector<UCHAR>& bytes)
    {
        FanOut(extension_, static_cast<ULONG>(bytes.size()), bytes.data());
    }
    // So that the next transfer finds room, as it does when everybody reads.
    void EmptyRings()
    {
        for (PLIST_ENTRY entry = extension_->ClientList.Flink; entry != &extension_->ClientList;
             entry = entry->Flink)
            ClientFromEntry(entry)->Ring.ResetToRing();
    }
    const host::nt::File& File() const { return files_.front(); }

  private:
    host::Kernel kernel_;
    host::UsbPortPtr port_;
    std::vector<host::nt::File> files_;
    DEVICE_EXTENSION* extension_ = nullptr;
};

void SetBytes(benchmark::State& state, std::size_t each)
{
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * each));
}

// One full transfer to as many clients as the argument says.
void FanOutOfOneTransfer(benchmark::State& state)
{
    const auto clients = static_cast<std::size_t>(state.range(0));
    Machine machine(clients);
    const std::vector<UCHAR> transfer = Sentences(kReadBufferSize);
    for (auto _ : state) {
        machine.Deliver(transfer);
        machine.EmptyRings();
    }
    SetBytes(state, clients * kReadBufferSize);
}
BENCHMARK(FanOutOfOneTransfer)->Arg(1)->Arg(8)->Arg(64)->Arg(512);

// The same bytes to as many buffers.
void MemcpyOfOneTransfer(benchmark::State& state)
{
    const auto clients = static_cast<std::size_t>(state.range(0));
    const std::vector<UCHAR> transfer = Sentences(kReadBufferSize);
    std::vector<std::vector<UCHAR>> buffers(clients, std::vector<UCHAR>(kReadBufferSize));
    for (auto _ : state) {
        for (std::vector<UCHAR>& buffer : buffers)
            std::memcpy(buffer.data(), transfer.data(), transfer.size());
        benchmark::ClobberMemory();
    }
    SetBytes(state, clients * kReadBufferSize);
}
BENCHMARK(MemcpyOfOneTransfer)->Arg(1)->Arg(8)->Arg(64)->Arg(512);

// The ring alone, wrapping as it goes.
void AppendToOneRing(benchmark::State& state)
{
    const auto size = static_cast<std::size_t>(state.range(0));
    std::vector<UCHAR> storage(kReadBufferSize);
    std::vector<UCHAR> taken(kReadBufferSize);
    const std::vector<UCHAR> bytes = Sentences(size);
    ClientRing ring{};
    ring.Initialise(storage.data(), kReadBufferSize, 0);
    for (auto _ : state) {
        benchmark::DoNotOptimize(ring.Append(bytes.data(), static_cast<ULONG>(size)));
        ring.Account(ring.Take(taken.data(), kReadBufferSize));
        benchmark::ClobberMemory();
    }
    SetBytes(state, size);
}
BENCHMARK(AppendToOneRing)->Arg(70)->Arg(500)->Arg(4096);

// A read that finds its bytes in the ring; a transfer fills it again after every 64.
void ReadFromTheRing(benchmark::State& state)
{
    Machine machine(1);
    const std::vector<UCHAR> transfer = Sentences(kReadBufferSize);
    std::size_t left = 0;
    for (auto _ : state) {
        if (left == 0) {
            machine.Deliver(transfer);
            left = kReadBufferSize;
        }
        left -= machine.File().Read(kRead).information;
    }
    SetBytes(state, kRead);
}
BENCHMARK(ReadFromTheRing);

// A read that waits, and the transfer that fills its buffer and ends it.
void ReadByDirectFill(benchmark::State& state)
{
    Machine machine(1);
    const std::vector<UCHAR> transfer = Sentences(kRead);
    for (auto _ : state) {
        const host::nt::Request read = machine.File().StartRead(kRead);
        machine.Deliver(transfer);
        benchmark::DoNotOptimize(read.Wait().information);
    }
    SetBytes(state, kRead);
}
BENCHMARK(ReadByDirectFill)->UseRealTime();

} // namespace
