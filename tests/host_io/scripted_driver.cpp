#include "scripted_driver.h"

#include "cm/text.h"
#include "io/names.h"

#include <algorithm>

namespace host_test {
namespace {

Script* g_script = nullptr;

NTSTATUS NTAPI DispatchAny(PDEVICE_OBJECT device, PIRP irp)
{
    const PIO_STACK_LOCATION location = IoGetCurrentIrpStackLocation(irp);
    const UCHAR major = location->MajorFunction;
    g_script->seen.push_back(host::IopRequestName(major, location->MinorFunction));
    if (const Dispatch& routine = g_script->on[major])
        return routine(device, irp);
    if (major == IRP_MJ_PNP && location->MinorFunction == IRP_MN_REMOVE_DEVICE && Below(device) != nullptr)
        return RemoveNow(device, irp);
    if (Below(device) != nullptr)
        return PassDown(device, irp);
    if (major == IRP_MJ_POWER)
        PoStartNextPowerIrp(irp);
    return Complete(irp, STATUS_SUCCESS);
}

NTSTATUS NTAPI AddDevice(PDRIVER_OBJECT driver, PDEVICE_OBJECT pdo)
{
    return g_script->add_device ? g_script->add_device(driver, pdo) : AttachTo(driver, pdo);
}

VOID NTAPI Cancel(PDEVICE_OBJECT, PIRP irp)
{
    g_script->kept = nullptr;
    IoReleaseCancelSpinLock(irp->CancelIrql);
    Complete(irp, STATUS_CANCELLED);
}

VOID NTAPI Unload(PDRIVER_OBJECT) {}

} // namespace

bool Script::Saw(std::string_view name) const
{
    return Count(name) != 0;
}

std::size_t Script::Count(std::string_view name) const
{
    return static_cast<std::size_t>(std::count(seen.begin(), seen.end(), name));
}

NTSTATUS NTAPI ScriptedEntry(PDRIVER_OBJECT driver, PUNICODE_STRING)
{
    std::fill(std::begin(driver->MajorFunction), std::end(driver->MajorFunction), &DispatchAny);
    if (!g_script->has_power)
        driver->MajorFunction[IRP_MJ_POWER] = nullptr;
    driver->DriverExtension->AddDevice = AddDevice;
    driver->DriverUnload = Unload;
    return STATUS_SUCCESS;
}

NTSTATUS Complete(PIRP irp, NTSTATUS status, ULONG_PTR information)
{
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = information;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

PDEVICE_OBJECT Below(PDEVICE_OBJECT device)
{
    return device->DeviceObjectExtension->attached_to;
}

NTSTATUS PassDown(PDEVICE_OBJECT device, PIRP irp)
{
    const bool power = IoGetCurrentIrpStackLocation(irp)->MajorFunction == IRP_MJ_POWER;
    if (power)
        PoStartNextPowerIrp(irp);
    IoSkipCurrentIrpStackLocation(irp);
    return power ? PoCallDriver(Below(device), irp) : IoCallDriver(Below(device), irp);
}

PIRP& Kept()
{
    return g_script->kept;
}

NTSTATUS Keep(PDEVICE_OBJECT, PIRP irp)
{
    IoMarkIrpPending(irp);
    Kept() = irp;
    return STATUS_PENDING;
}

NTSTATUS KeepCancellable(PDEVICE_OBJECT device, PIRP irp)
{
    KIRQL irql = PASSIVE_LEVEL;
    IoAcquireCancelSpinLock(&irql);
    IoSetCancelRoutine(irp, Cancel);
    const NTSTATUS status = Keep(device, irp);
    IoReleaseCancelSpinLock(irql);
    return status;
}

UNICODE_STRING Counted(std::u16string& text)
{
    const auto bytes = static_cast<USHORT>(text.size() * sizeof(WCHAR));
    return {bytes, bytes, reinterpret_cast<PWSTR>(text.data())};
}

std::vector<std::byte> Bytes(std::string_view text)
{
    const auto bytes = std::as_bytes(std::span(text));
    return {bytes.begin(), bytes.end()};
}

PDEVICE_OBJECT MakeDevice(PDRIVER_OBJECT driver, std::u16string name, ULONG extension)
{
    UNICODE_STRING counted = Counted(name);
    PDEVICE_OBJECT device = nullptr;
    const NTSTATUS status = IoCreateDevice(driver, extension, name.empty() ? nullptr : &counted,
                                           FILE_DEVICE_SERIAL_PORT, FILE_DEVICE_SECURE_OPEN, FALSE, &device);
    if (!NT_SUCCESS(status))
        return nullptr;
    device->Flags |= DO_BUFFERED_IO;
    device->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
    g_script->device = device;
    return device;
}

NTSTATUS AttachTo(PDRIVER_OBJECT driver, PDEVICE_OBJECT pdo)
{
    PDEVICE_OBJECT device = MakeDevice(driver, u"");
    if (device == nullptr)
        return STATUS_INSUFFICIENT_RESOURCES;
    g_script->lower = IoAttachDeviceToDeviceStack(device, pdo);
    device->Flags |= DO_POWER_PAGABLE;
    return STATUS_SUCCESS;
}

NTSTATUS RemoveNow(PDEVICE_OBJECT device, PIRP irp)
{
    PDEVICE_OBJECT lower = Below(device);
    irp->IoStatus.Status = STATUS_SUCCESS;
    const NTSTATUS status = PassDown(device, irp);
    IoDetachDevice(lower);
    IoDeleteDevice(device);
    return status;
}

Bench::Bench(host::KernelOptions options, bool with_device) : kernel(std::move(options))
{
    g_script = &script;
    EXPECT_EQ(host::IoLoadDriver("scripted", ScriptedEntry, &driver), STATUS_SUCCESS);
    if (with_device) {
        MakeDevice(driver, u"\\Device\\t");
        host::IoManager::Current().Names().AddLink(u"\\??\\T", u"\\Device\\t");
    }
}

Bench::~Bench()
{
    EXPECT_EQ(Broken(), std::vector<host::Rule>{}) << "broken and not expected";
    if (driver->DeviceObject != nullptr &&
        driver->DeviceObject->DeviceObjectExtension->attached_to == nullptr)
        IoDeleteDevice(driver->DeviceObject);
    host::IoManager::Current().Names().RemoveLink(u"\\??\\T");
}

host::KernelOptions Bench::Recording()
{
    host::KernelOptions options;
    options.policy = host::Policy::Record;
    return options;
}

host::nt::File Bench::Open(host::nt::OpenOptions options)
{
    host::nt::File file;
    EXPECT_EQ(host::nt::File::Open("\\\\.\\T", &file, options), STATUS_SUCCESS);
    return file;
}

std::vector<host::Rule> Bench::Broken()
{
    std::vector<host::Rule> rules;
    for (const host::Finding& finding : kernel.GetVerifier().TakeFindings()) {
        if (std::find(rules.begin(), rules.end(), finding.rule) == rules.end())
            rules.push_back(finding.rule);
    }
    return rules;
}

} // namespace host_test
