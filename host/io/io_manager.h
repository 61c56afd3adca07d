// The I/O manager of the running kernel: names, drivers, and the locks and counts that are the system's.
#pragma once

#include "io/object_names.h"
#include "ke/kernel.h"
#include "ke/mutex.h"

#include <atomic>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>
#include <wdm/io.h>

namespace host {

class IopFile;
struct IopDriver;

class IoManager : public Component {
  public:
    explicit IoManager(Kernel& kernel);
    ~IoManager() override;

    static IoManager& Current() { return Kernel::Current().Get<IoManager>(); }

    ObjectNames& Names() { return names_; }

    // What every fresh system buffer is filled with: two runs with two patterns show a driver that lets
    // a client see bytes it never wrote.
    void SetSystemBufferFill(std::byte fill) { fill_ = fill; }
    std::byte SystemBufferFill() const { return fill_; }

    // Drivers in the order of loading. IRQL PASSIVE_LEVEL.
    IopDriver* FindDriver(std::string_view name);
    void AddDriver(std::unique_ptr<IopDriver> driver);
    void RemoveDriver(IopDriver* driver);
    std::vector<std::string> DriverNames();

    // Device objects that exist (deleted ones that are still referenced too).
    void AddDevice(PDEVICE_OBJECT device);
    bool ForgetDevice(PDEVICE_OBJECT device);
    bool DeviceExists(const DEVICE_OBJECT* device);
    bool HasDevicesOf(const DRIVER_OBJECT* driver);
    // File objects that exist; the manager destroys those that nobody closes.
    void AddFile(IopFile* file);
    void ForgetFile(IopFile* file);

    void Shutdown() override;
    void Audit() override;

    // The cancel spin lock, and who has it.
    KSPIN_LOCK cancel_lock;
    std::atomic<PKTHREAD> cancel_owner{nullptr};
    bool CancelLockHeldByCaller() const { return cancel_owner == KeGetCurrentThread(); }

    CONFIGURATION_INFORMATION configuration{};

  private:
    ObjectNames names_;
    std::atomic<std::byte> fill_{std::byte{0xCD}};
    Mutex mutex_;
    std::vector<std::unique_ptr<IopDriver>> drivers_ HOST_GUARDED_BY(mutex_);
    std::unordered_set<const DEVICE_OBJECT*> devices_ HOST_GUARDED_BY(mutex_);
    std::unordered_set<IopFile*> files_ HOST_GUARDED_BY(mutex_);
};

} // namespace host
