// Writes the seed corpus of the driver's fuzzer: what each of the known libraries does to the port in its first seconds,
// and every control with buffers of some lengths.
//
//     driver_corpus <folder>
#include "apps/system.h"
#include "fuzz/driver_steps.h"
#include "include/navox/gps_ioctl.h"
#include "io/driver.h"
#include "module/nmea_generator.h"
#include "tests/personalities/libraries.h"

#include <ntddser.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace {

using fuzz::Step;

// What has been seen; recorded by the dispatch routine that stands before the driver's.
std::string g_steps;
PDRIVER_DISPATCH g_dispatch[IRP_MJ_MAXIMUM_FUNCTION + 1];
host::Time g_last;

void Put(Step step)
{
    g_steps += static_cast<char>(step);
}

void PutNumber(std::uint64_t value, int bytes)
{
    for (int i = 0; i < bytes; ++i)
        g_steps += static_cast<char>(value >> (8 * i));
}

// Time passes, and the module speaks once in a while.
void PutTime()
{
    const host::Time now = host::Kernel::Current().Now();
    const auto units = std::min<host::Time>((now - g_last) / (20 * host::kMillisecond), 0xFF);
    if (units == 0)
        return;
    g_last = now;
    Put(Step::Pass);
    PutNumber(static_cast<std::uint64_t>(units), 1);
    constexpr std::string_view kSaid = "$GPTXT,1\r\n";
    Put(Step::Arrive);
    PutNumber(kSaid.size(), 1);
    g_steps += kSaid;
}

void PutControl(PIRP irp, const IO_STACK_LOCATION& stack)
{
    const auto& control = stack.Parameters.DeviceIoControl;
    const ULONG length = std::min<ULONG>(control.InputBufferLength, 0xFF);
    Put(Step::Control);
    PutNumber(control.IoControlCode, 4);
    PutNumber(length, 1);
    PutNumber(control.OutputBufferLength, 2);
    if (length != 0)
        g_steps.append(static_cast<const char*>(irp->AssociatedIrp.SystemBuffer), length);
}

NTSTATUS NTAPI Record(PDEVICE_OBJECT device, PIRP irp)
{
    const IO_STACK_LOCATION stack = *IoGetCurrentIrpStackLocation(irp);
    PutTime();
    switch (stack.MajorFunction) {
    case IRP_MJ_CREATE: Put(Step::Open); break;
    case IRP_MJ_CLEANUP: Put(Step::Close); break;
    case IRP_MJ_READ:
        Put(Step::Read);
        PutNumber(stack.Parameters.Read.Length, 2);
        break;
    case IRP_MJ_WRITE:
        Put(Step::Write);
        PutNumber(0, 1);
        break;
    default: PutControl(irp, stack); break;
    }
    return g_dispatch[stack.MajorFunction](device, irp);
}

std::string StepsOf(const personalities::Personality& personality)
{
    host::KernelOptions options;
    options.clock_tick = 156'250;
    app::System system({.kernel = options, .source = std::make_unique<module::NmeaGenerator>(1)});
    PDRIVER_OBJECT driver = host::IoDriverByName("navox");
    for (const UCHAR major :
         {IRP_MJ_CREATE, IRP_MJ_CLEANUP, IRP_MJ_READ, IRP_MJ_WRITE, IRP_MJ_DEVICE_CONTROL}) {
        g_dispatch[major] = driver->MajorFunction[major];
        driver->MajorFunction[major] = Record;
    }
    g_steps.assign(1, '\0'); // first in, first out
    g_last = system.Kernel().Now();
    system.Plug();
    personalities::Session session(system.PortName());
    {
        host::ThreadHandle program = system.Kernel().Spawn(personality.name, [&] {
            const auto library = personality.make(session);
            try {
                library->Open();
                library->Run();
                library->Close();
            } catch (const personalities::CallFailed&) {
                // It refuses the port: its calls up to there are the seed.
            }
            host::nt::CancelThreadIo();
        });
        system.Kernel().RunFor(5 * host::kSecond);
        session.Stop();
    }
    system.Unplug();
    if (!system.AwaitRemoval() || !system.Unload())
        std::abort();
    constexpr std::size_t kMost = 400;
    return g_steps.substr(0, kMost);
}

// Of the serial interface and of the private one; each file has a few of them.
std::vector<std::string> ControlSteps()
{
    std::vector<ULONG> codes;
    for (ULONG function = 1; function <= 40; ++function) {
        codes.push_back(CTL_CODE(FILE_DEVICE_SERIAL_PORT, function, METHOD_BUFFERED, FILE_ANY_ACCESS));
        codes.push_back(GPS_READ_CODE(function));
        codes.push_back(GPS_WRITE_CODE(function));
    }
    std::vector<std::string> files;
    for (std::size_t i = 0; i < codes.size(); ++i) {
        if (i % 8 == 0) {
            g_steps = {'\0', static_cast<char>(Step::Open)};
            files.emplace_back();
        }
        for (const std::uint16_t output : {0, 1, 5, 80}) {
            constexpr std::size_t kInput = 4;
            Put(Step::Control);
            PutNumber(codes[i], 4);
            PutNumber(kInput, 1);
            PutNumber(output, 2);
            g_steps.append(kInput, static_cast<char>(output));
        }
        files.back() = g_steps;
    }
    return files;
}

bool Save(const std::filesystem::path& path, const std::string& steps)
{
    std::ofstream file(path, std::ios::binary);
    return static_cast<bool>((file << steps).flush());
}

} // namespace

int main(int count, char** arguments)
{
    if (count != 2) {
        std::fprintf(stderr, "usage: driver_corpus <folder>\n");
        return 2;
    }
    const std::filesystem::path folder = arguments[1];
    std::filesystem::create_directories(folder);
    int number = 0;
    bool saved = true;
    for (const personalities::Personality& personality : personalities::kPersonalities)
        saved = Save(folder / ("library-" + std::to_string(number++)), StepsOf(personality)) && saved;
    for (const std::string& steps : ControlSteps())
        saved = Save(folder / ("controls-" + std::to_string(number++)), steps) && saved;
    if (!saved)
        std::fprintf(stderr, "cannot write to %s\n", folder.c_str());
    return saved ? 0 : 1;
}
