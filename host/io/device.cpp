#include "io/device.h"

#include "cm/text.h"
#include "io/driver.h"
#include "io/io_manager.h"
#include "io/memory.h"
#include "io/pnp_manager.h"
#include "ke/mutex.h"
#include "po/power_manager.h"
#include "verifier/pnp_rules.h"

#include <cstring>

_DEVOBJ_EXTENSION::_DEVOBJ_EXTENSION() : power(std::make_unique<host::PoDevice>()) {}

_DEVOBJ_EXTENSION::~_DEVOBJ_EXTENSION() = default;

namespace host {
namespace {

constexpr std::size_t kExtensionAlignment = 16;

void FreeDevice(PDEVICE_OBJECT device)
{
    IoManager::Current().ForgetDevice(device);
    delete device->DeviceObjectExtension;
    IopFreeMemory(device);
}

// Of all devices: what keeps a device is given up under it, so that one caller sees the last of it go.
Mutex g_holds;

// Runs `release` and frees the device when nothing keeps it any more.
template <typename Release>
void ReleaseHold(PDEVICE_OBJECT device, Release release)
{
    bool unused;
    {
        const MutexLock lock(g_holds);
        release(*device);
        const auto* extension = device->DeviceObjectExtension;
        unused = extension->delete_pending && device->AttachedDevice == nullptr &&
                 __atomic_load_n(&device->ReferenceCount, __ATOMIC_ACQUIRE) == 0 &&
                 extension->pointer_references == 0;
    }
    if (unused)
        FreeDevice(device);
}

void UnlinkFromDriver(PDEVICE_OBJECT device)
{
    PDEVICE_OBJECT* link = &device->DriverObject->DeviceObject;
    while (*link != nullptr && *link != device)
        link = &(*link)->NextDevice;
    if (*link == device)
        *link = device->NextDevice;
}

PDEVICE_OBJECT MakeDevice(PDRIVER_OBJECT driver, ULONG extension_size, DEVICE_TYPE type,
                          ULONG characteristics, bool exclusive)
{
    static_assert(sizeof(DEVICE_OBJECT) % kExtensionAlignment == 0);
    const std::size_t size = sizeof(DEVICE_OBJECT) + extension_size;
    auto* device = static_cast<PDEVICE_OBJECT>(IopAllocateMemory(size));
    if (device == nullptr)
        return nullptr;
    std::memset(static_cast<void*>(device), 0, size);
    device->Type = IO_TYPE_DEVICE;
    device->Size = static_cast<USHORT>(size);
    device->DriverObject = driver;
    device->NextDevice = driver->DeviceObject;
    device->Flags = DO_DEVICE_INITIALIZING | (exclusive ? DO_EXCLUSIVE : 0U);
    device->Characteristics = characteristics;
    device->DeviceType = type;
    device->StackSize = 1;
    device->DeviceExtension = extension_size == 0 ? nullptr : device + 1;
    device->DeviceObjectExtension = new _DEVOBJ_EXTENSION;
    device->DeviceObjectExtension->owner = IopDriverName(driver);
    driver->DeviceObject = device;
    return device;
}

} // namespace

PDEVICE_OBJECT IopTopOf(PDEVICE_OBJECT device)
{
    while (device->AttachedDevice != nullptr)
        device = device->AttachedDevice;
    return device;
}

PDEVICE_OBJECT IopBottomOf(PDEVICE_OBJECT device)
{
    while (device->DeviceObjectExtension->attached_to != nullptr)
        device = device->DeviceObjectExtension->attached_to;
    return device;
}

std::string IopDescribeDevice(PDEVICE_OBJECT device)
{
    if (device == nullptr)
        return "no device";
    if (!IoManager::Current().DeviceExists(device))
        return "a device that does not exist";
    const std::u16string name = IoManager::Current().Names().NameOf(device);
    return "device " + (name.empty() ? std::string("without a name") : ToUtf8(name)) + " of " +
           device->DeviceObjectExtension->owner;
}

LONG IopReferenceDevice(PDEVICE_OBJECT device)
{
    const MutexLock lock(g_holds);
    return ++device->DeviceObjectExtension->pointer_references;
}

LONG IopDereferenceDevice(PDEVICE_OBJECT device)
{
    LONG left = 0;
    ReleaseHold(device, [&left](DEVICE_OBJECT& held) {
        auto& references = held.DeviceObjectExtension->pointer_references;
        left = references - 1;
        if (left >= 0)
            references = left;
    });
    return left;
}

void IopCountClose(PDEVICE_OBJECT device)
{
    ReleaseHold(device,
                [](DEVICE_OBJECT& held) { __atomic_sub_fetch(&held.ReferenceCount, 1, __ATOMIC_RELEASE); });
}

} // namespace host

using namespace host;

extern "C" {

NTSTATUS NTAPI IoCreateDevice(PDRIVER_OBJECT DriverObject, ULONG DeviceExtensionSize,
                              PUNICODE_STRING DeviceName, DEVICE_TYPE DeviceType, ULONG DeviceCharacteristics,
                              BOOLEAN Exclusive, PDEVICE_OBJECT* DeviceObject)
{
    VfRequireIrqlAtMost(APC_LEVEL, Rule::IrqlKeApcLte, "IoCreateDevice", __builtin_return_address(0));
    *DeviceObject = nullptr;
    IoManager& io = IoManager::Current();
    if (auto fault = Kernel::Current().Faults().Hit(FaultPoint::DeviceCreate))
        return fault->status != 0 ? fault->status : STATUS_INSUFFICIENT_RESOURCES;
    const std::optional<std::u16string> name = IopText(DeviceName);
    if (!name)
        return STATUS_OBJECT_NAME_INVALID;
    PDEVICE_OBJECT device =
        MakeDevice(DriverObject, DeviceExtensionSize, DeviceType, DeviceCharacteristics, Exclusive != FALSE);
    if (device == nullptr)
        return STATUS_INSUFFICIENT_RESOURCES;
    const NTSTATUS status = name->empty() ? STATUS_SUCCESS : io.Names().AddDevice(*name, device);
    if (!NT_SUCCESS(status)) {
        UnlinkFromDriver(device);
        FreeDevice(device);
        return status;
    }
    io.AddDevice(device);
    *DeviceObject = device;
    return STATUS_SUCCESS;
}

VOID NTAPI IoDeleteDevice(PDEVICE_OBJECT DeviceObject)
{
    const void* caller = __builtin_return_address(0);
    VfRequireIrqlAtMost(APC_LEVEL, Rule::IrqlKeApcLte, "IoDeleteDevice", caller);
    if (!VfDeviceDelete(DeviceObject, caller))
        return;
    IoManager::Current().Names().RemoveDevice(DeviceObject);
    UnlinkFromDriver(DeviceObject);
    ReleaseHold(DeviceObject, [](DEVICE_OBJECT& held) { held.DeviceObjectExtension->delete_pending = true; });
}

PDEVICE_OBJECT NTAPI IoAttachDeviceToDeviceStack(PDEVICE_OBJECT SourceDevice, PDEVICE_OBJECT TargetDevice)
{
    const void* caller = __builtin_return_address(0);
    VfRequireIrqlAtMost(DISPATCH_LEVEL, Rule::IrqlKeDispatchLte, "IoAttachDeviceToDeviceStack", caller);
    if (!VfDeviceAttach(SourceDevice, TargetDevice, caller))
        return nullptr;
    PDEVICE_OBJECT top = IopTopOf(TargetDevice);
    if ((top->Flags & DO_DEVICE_INITIALIZING) != 0 || top->DeviceObjectExtension->delete_pending)
        return nullptr;
    top->AttachedDevice = SourceDevice;
    SourceDevice->DeviceObjectExtension->attached_to = top;
    SourceDevice->StackSize = static_cast<CCHAR>(top->StackSize + 1);
    SourceDevice->AlignmentRequirement = top->AlignmentRequirement;
    SourceDevice->SectorSize = top->SectorSize;
    return top;
}

VOID NTAPI IoDetachDevice(PDEVICE_OBJECT TargetDevice)
{
    const void* caller = __builtin_return_address(0);
    VfRequireIrqlAtMost(PASSIVE_LEVEL, Rule::IrqlPassive, "IoDetachDevice", caller);
    if (!VfDeviceDetach(TargetDevice, caller))
        return;
    TargetDevice->AttachedDevice->DeviceObjectExtension->attached_to = nullptr;
    ReleaseHold(TargetDevice, [](DEVICE_OBJECT& held) { held.AttachedDevice = nullptr; });
}

PDEVICE_OBJECT NTAPI IoGetAttachedDeviceReference(PDEVICE_OBJECT DeviceObject)
{
    PDEVICE_OBJECT top = IopTopOf(DeviceObject);
    IopReferenceDevice(top);
    return top;
}

NTSTATUS NTAPI IoCreateSymbolicLink(PUNICODE_STRING SymbolicLinkName, PUNICODE_STRING DeviceName)
{
    VfRequireIrqlAtMost(PASSIVE_LEVEL, Rule::IrqlPassive, "IoCreateSymbolicLink",
                        __builtin_return_address(0));
    if (auto fault = Kernel::Current().Faults().Hit(FaultPoint::SymbolicLink, "IoCreateSymbolicLink"))
        return fault->status != 0 ? fault->status : STATUS_INSUFFICIENT_RESOURCES;
    const std::optional<std::u16string> name = IopText(SymbolicLinkName);
    const std::optional<std::u16string> target = IopText(DeviceName);
    if (!name || !target || name->empty())
        return STATUS_OBJECT_NAME_INVALID;
    return IoManager::Current().Names().AddLink(*name, *target);
}

NTSTATUS NTAPI IoDeleteSymbolicLink(PUNICODE_STRING SymbolicLinkName)
{
    VfRequireIrqlAtMost(PASSIVE_LEVEL, Rule::IrqlPassive, "IoDeleteSymbolicLink",
                        __builtin_return_address(0));
    if (auto fault = Kernel::Current().Faults().Hit(FaultPoint::SymbolicLink, "IoDeleteSymbolicLink"))
        return fault->status != 0 ? fault->status : STATUS_INSUFFICIENT_RESOURCES;
    const std::optional<std::u16string> name = IopText(SymbolicLinkName);
    if (!name || name->empty())
        return STATUS_OBJECT_NAME_INVALID;
    return IoManager::Current().Names().RemoveLink(*name);
}

} // extern "C"
