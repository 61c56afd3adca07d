#include "io/driver.h"

#include "cm/configuration_manager.h"
#include "cm/text.h"
#include "io/device.h"
#include "io/io_manager.h"
#include "io/irp.h"
#include "io/names.h"
#include "verifier/pnp_rules.h"

#include <algorithm>

namespace host {
namespace {

thread_local PDRIVER_OBJECT t_driver = nullptr;

constexpr Time kUnloadPatience = kSecond;
constexpr std::u16string_view kServices = u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\";

UNICODE_STRING CountedString(std::u16string& text)
{
    const auto bytes = static_cast<USHORT>(text.size() * sizeof(WCHAR));
    return {bytes, static_cast<USHORT>(bytes + sizeof(WCHAR)), reinterpret_cast<PWSTR>(text.data())};
}

std::unique_ptr<IopDriver> MakeDriver(std::string_view name, PDRIVER_INITIALIZE entry)
{
    auto driver = std::make_unique<IopDriver>();
    driver->name = name;
    driver->object_name = u"\\Driver\\" + Wide(name);
    driver->service_path = std::u16string(kServices) + Wide(name);
    driver->service_name = Wide(name);
    driver->extension.DriverObject = &driver->object;
    driver->extension.ServiceKeyName = CountedString(driver->service_name);
    driver->object.Type = IO_TYPE_DRIVER;
    driver->object.Size = sizeof(DRIVER_OBJECT);
    driver->object.DriverExtension = &driver->extension;
    driver->object.DriverName = CountedString(driver->object_name);
    driver->object.DriverInit = entry;
    std::fill(std::begin(driver->object.MajorFunction), std::end(driver->object.MajorFunction),
              &IopInvalidDeviceRequest);
    return driver;
}

} // namespace

DriverScope::DriverScope(PDRIVER_OBJECT driver) : before_(t_driver)
{
    t_driver = driver;
}

DriverScope::~DriverScope()
{
    t_driver = before_;
}

PDRIVER_OBJECT DriverScope::Current()
{
    return t_driver;
}

std::string IopDriverName(const DRIVER_OBJECT* driver)
{
    return driver == nullptr ? "?"
                             : CONTAINING_RECORD(const_cast<PDRIVER_OBJECT>(driver), IopDriver, object)->name;
}

PDRIVER_OBJECT IoDriverByName(std::string_view name)
{
    IopDriver* driver = IoManager::Current().FindDriver(name);
    return driver == nullptr ? nullptr : &driver->object;
}

NTSTATUS IoLoadDriver(std::string_view name, PDRIVER_INITIALIZE entry, PDRIVER_OBJECT* driver_object)
{
    IoManager& io = IoManager::Current();
    if (io.FindDriver(name) != nullptr)
        return STATUS_IMAGE_ALREADY_LOADED;
    std::unique_ptr<IopDriver> made = MakeDriver(name, entry);
    IopDriver* driver = made.get();
    ConfigurationManager::Current().Registry().Create(driver->service_path);
    io.AddDriver(std::move(made));
    Kernel::Current().Log().Begin("driver", "load", driver->name);
    UNICODE_STRING registry_path = CountedString(driver->service_path);
    const CallbackState before = VfEnterCallback();
    NTSTATUS status = STATUS_SUCCESS;
    {
        const DriverScope scope(&driver->object);
        status = entry(&driver->object, &registry_path);
    }
    VfLeaveCallback(before, "DriverEntry", reinterpret_cast<const void*>(entry));
    Kernel::Current().Log().End("driver", "load", IopStatusText(status));
    if (!NT_SUCCESS(status)) {
        VfAuditUnload(driver->name);
        io.RemoveDriver(driver);
        return status;
    }
    VfDriverLoaded(&driver->object);
    // Entry code runs once; the routines it left are what counts from now on.
    for (PDRIVER_DISPATCH& routine : driver->object.MajorFunction) {
        if (routine == nullptr)
            routine = &IopInvalidDeviceRequest;
    }
    if (driver_object != nullptr)
        *driver_object = &driver->object;
    return status;
}

NTSTATUS IoUnloadDriver(std::string_view name)
{
    IoManager& io = IoManager::Current();
    IopDriver* driver = io.FindDriver(name);
    if (driver == nullptr)
        return STATUS_OBJECT_NAME_NOT_FOUND;
    if (driver->object.DeviceObject != nullptr)
        return STATUS_DEVICE_BUSY;
    if (driver->object.DriverUnload == nullptr)
        return STATUS_INVALID_DEVICE_REQUEST;
    // A deleted device object stays while somebody refers to it, a work item say; and the driver with it.
    for (Time waited = 0; io.HasDevicesOf(&driver->object); waited += kMillisecond) {
        if (waited == kUnloadPatience)
            return STATUS_DEVICE_BUSY;
        Kernel::Current().RunFor(kMillisecond);
    }
    Kernel::Current().Log().Begin("driver", "unload", driver->name);
    const CallbackState before = VfEnterCallback();
    {
        const DriverScope scope(&driver->object);
        VfBeginUnload();
        driver->object.DriverUnload(&driver->object);
        VfEndUnload();
    }
    VfLeaveCallback(before, "DriverUnload", reinterpret_cast<const void*>(driver->object.DriverUnload));
    VfAuditUnload(driver->name);
    for (const ObjectNames::Link& link : io.Names().TakeDanglingLinks())
        VfReport(Rule::SymbolicLinkLeak, ToUtf8(link.name),
                 ToUtf8(link.name) + " leads to " + ToUtf8(link.target));
    Kernel::Current().Log().End("driver", "unload");
    io.RemoveDriver(driver);
    return STATUS_SUCCESS;
}

} // namespace host
