// Device interfaces: names that clients find devices by, class by class.
#pragma once

#include "ke/kernel.h"
#include "ke/mutex.h"

#include <string>
#include <vector>
#include <wdm/io.h>

namespace host {

class DeviceInterfaces : public Component {
  public:
    explicit DeviceInterfaces(Kernel& kernel);

    static DeviceInterfaces& Current() { return Kernel::Current().Get<DeviceInterfaces>(); }

    // The name of the interface, registered now or before.
    std::u16string Register(PDEVICE_OBJECT pdo, const GUID& interface_class, std::u16string_view reference);
    NTSTATUS SetState(std::u16string_view name, bool enable);
    // Takes down what a removed device left enabled; whether its driver had not even tried.
    bool DisableAll(PDEVICE_OBJECT pdo);

    // Enabled interfaces of a class, in the order of their registration: "\??\USB#VID_...#{...}".
    std::vector<std::string> Enabled(const GUID& interface_class);

  private:
    struct Interface {
        std::u16string name;
        GUID interface_class{};
        PDEVICE_OBJECT pdo = nullptr;
        bool enabled = false;
        bool wanted = false; // what the driver last asked for, done or not
    };
    Interface* FindLocked(std::u16string_view name) HOST_REQUIRES(mutex_);

    Mutex mutex_;
    std::vector<Interface> interfaces_ HOST_GUARDED_BY(mutex_);
};

} // namespace host
