// A driver whose routines are written in the test, and a kernel to run it in.
#pragma once

#include "io/device.h"
#include "io/driver.h"
#include "io/io_manager.h"
#include "io/irp.h"
#include "ke/kernel.h"
#include "nt/file.h"

#include <gtest/gtest.h>

#include <array>
#include <functional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>
#include <wdm/io.h>

namespace host {
inline void PrintTo(Rule rule, std::ostream* out)
{
    *out << NameOf(rule);
}
} // namespace host

namespace host_test {

using Dispatch = std::function<NTSTATUS(PDEVICE_OBJECT, PIRP)>;

// What the driver does. A request without a routine is completed with success by a device at the bottom of
// its stack, and passed down by others (device power and system power with PoCallDriver).
struct Script {
    std::array<Dispatch, IRP_MJ_MAXIMUM_FUNCTION + 1> on;
    std::function<NTSTATUS(PDRIVER_OBJECT, PDEVICE_OBJECT)> add_device; // default: AttachTo
    bool has_power = true;
    PIRP kept = nullptr;
    std::vector<std::string> seen;   // requests as they came: "IRP_MJ_READ"
    PDEVICE_OBJECT device = nullptr; // the last one made by MakeDevice or AttachTo
    PDEVICE_OBJECT lower = nullptr;  // what AttachTo attached to

    bool Saw(std::string_view name) const;
    std::size_t Count(std::string_view name) const;
};

NTSTATUS NTAPI ScriptedEntry(PDRIVER_OBJECT driver, PUNICODE_STRING registry_path);

// Steps that scripts are made of.
NTSTATUS Complete(PIRP irp, NTSTATUS status, ULONG_PTR information = 0);
NTSTATUS PassDown(PDEVICE_OBJECT device, PIRP irp); // skip and call
PDEVICE_OBJECT Below(PDEVICE_OBJECT device);
// Leaves the request pending; it is Kept() from then on. A cancellable one completes when it is cancelled.
NTSTATUS Keep(PDEVICE_OBJECT device, PIRP irp);
NTSTATUS KeepCancellable(PDEVICE_OBJECT device, PIRP irp);
PIRP& Kept();
// A named, buffered device without a stack. Empty name: none.
PDEVICE_OBJECT MakeDevice(PDRIVER_OBJECT driver, std::u16string name, ULONG extension = 64);
// A device above `pdo`, as AddDevice makes it.
NTSTATUS AttachTo(PDRIVER_OBJECT driver, PDEVICE_OBJECT pdo);
// Detaches and deletes, as IRP_MN_REMOVE_DEVICE has it; the request is passed down first.
NTSTATUS RemoveNow(PDEVICE_OBJECT device, PIRP irp);

UNICODE_STRING Counted(std::u16string& text);
std::vector<std::byte> Bytes(std::string_view text);

// A kernel with a scripted driver loaded and one device \Device\t with the link \??\T. Rules that are broken when it
// goes fail the test.
class Bench {
  public:
    explicit Bench(host::KernelOptions options = Recording(), bool with_device = true);
    ~Bench();

    static host::KernelOptions Recording();

    host::nt::File Open(host::nt::OpenOptions options = {});
    void OnRequest(UCHAR major, Dispatch routine) { script.on[major] = std::move(routine); }
    // Rules that were broken since the last call, each once, in order.
    std::vector<host::Rule> Broken();

    Script script; // outlives the kernel: devices go with it
    host::Kernel kernel;
    PDRIVER_OBJECT driver = nullptr;
};

} // namespace host_test
