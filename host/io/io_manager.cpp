#include "io/io_manager.h"

#include "io/device.h"
#include "io/driver.h"
#include "io/file_object.h"

#include <algorithm>

namespace host {

IoManager::IoManager(Kernel& kernel) : Component(kernel)
{
    KeInitializeSpinLock(&cancel_lock);
    configuration.Version = 1;
}

IoManager::~IoManager() HOST_NO_ANALYSIS
{
    for (const IopFile* file : files_)
        delete file;
    for (const DEVICE_OBJECT* device : devices_)
        delete device->DeviceObjectExtension;
}

void IoManager::AddFile(IopFile* file)
{
    const MutexLock lock(mutex_);
    files_.insert(file);
}

void IoManager::ForgetFile(IopFile* file)
{
    const MutexLock lock(mutex_);
    files_.erase(file);
}

IopDriver* IoManager::FindDriver(std::string_view name)
{
    const MutexLock lock(mutex_);
    auto found = std::find_if(drivers_.begin(), drivers_.end(),
                              [=](const auto& driver) { return driver->name == name; });
    return found == drivers_.end() ? nullptr : found->get();
}

void IoManager::AddDriver(std::unique_ptr<IopDriver> driver)
{
    const MutexLock lock(mutex_);
    drivers_.push_back(std::move(driver));
}

void IoManager::RemoveDriver(IopDriver* driver)
{
    const MutexLock lock(mutex_);
    std::erase_if(drivers_, [=](const auto& loaded) { return loaded.get() == driver; });
}

std::vector<std::string> IoManager::DriverNames()
{
    std::vector<std::string> names;
    const MutexLock lock(mutex_);
    for (const auto& driver : drivers_)
        names.push_back(driver->name);
    return names;
}

void IoManager::AddDevice(PDEVICE_OBJECT device)
{
    const MutexLock lock(mutex_);
    devices_.insert(device);
}

bool IoManager::ForgetDevice(PDEVICE_OBJECT device)
{
    const MutexLock lock(mutex_);
    return devices_.erase(device) != 0;
}

bool IoManager::DeviceExists(const DEVICE_OBJECT* device)
{
    const MutexLock lock(mutex_);
    return devices_.contains(device);
}

bool IoManager::HasDevicesOf(const DRIVER_OBJECT* driver)
{
    const MutexLock lock(mutex_);
    return std::any_of(devices_.begin(), devices_.end(),
                       [=](const DEVICE_OBJECT* device) { return device->DriverObject == driver; });
}

void IoManager::Shutdown()
{
    std::vector<std::string> names = DriverNames();
    for (auto name = names.rbegin(); name != names.rend(); ++name)
        IoUnloadDriver(*name);
}

void IoManager::Audit()
{
    std::vector<const DEVICE_OBJECT*> left;
    {
        const MutexLock lock(mutex_);
        left.assign(devices_.begin(), devices_.end());
    }
    for (const DEVICE_OBJECT* device : left) {
        auto* object = const_cast<PDEVICE_OBJECT>(device);
        const std::string owner = device->DeviceObjectExtension->owner;
        VfReport(Rule::DeviceLeak, owner, IopDescribeDevice(object) + " was not deleted");
    }
}

} // namespace host
