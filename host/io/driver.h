// Drivers: loading, unloading, and which of them a thread is inside of.
#pragma once

#include "ke/kernel.h"

#include <string>
#include <string_view>
#include <wdm/io.h>

namespace host {

// A loaded driver. The object that it sees is a part of this.
struct IopDriver {
    DRIVER_OBJECT object{};
    DRIVER_EXTENSION extension{};
    std::string name;
    std::u16string object_name;  // \Driver\<name>
    std::u16string service_path; // \Registry\Machine\System\CurrentControlSet\Services\<name>
    std::u16string service_name;
};

// Loads the driver whose entry point is `entry`: makes its services key and its driver object, and runs the
// entry. On failure nothing stays. IRQL PASSIVE_LEVEL.
NTSTATUS IoLoadDriver(std::string_view name, PDRIVER_INITIALIZE entry, PDRIVER_OBJECT* driver = nullptr);

// Runs the driver's unload routine and audits what it leaves behind. STATUS_OBJECT_NAME_NOT_FOUND when it is
// not loaded, STATUS_DEVICE_BUSY while it has devices, STATUS_INVALID_DEVICE_REQUEST when it cannot be
// unloaded. IRQL PASSIVE_LEVEL.
NTSTATUS IoUnloadDriver(std::string_view name);

// The driver object of a loaded driver; nullptr when there is none of that name.
PDRIVER_OBJECT IoDriverByName(std::string_view name);

std::string IopDriverName(const DRIVER_OBJECT* driver);

// While it lives, the calling thread counts as being inside `driver`.
class DriverScope {
  public:
    explicit DriverScope(PDRIVER_OBJECT driver);
    ~DriverScope();
    DriverScope(const DriverScope&) = delete;
    DriverScope& operator=(const DriverScope&) = delete;

    static PDRIVER_OBJECT Current();

  private:
    PDRIVER_OBJECT before_;
};

} // namespace host
