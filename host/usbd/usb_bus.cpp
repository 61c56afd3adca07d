#include "usbd/usb_bus.h"

#include "io/driver.h"
#include "io/io_manager.h"
#include "io/pnp_manager.h"
#include "po/power_manager.h"
#include "usbd/hub.h"
#include "usbd/usb_port.h"

#include <algorithm>

namespace host {
namespace {

constexpr const char* kDriverName = "usbhub";
constexpr std::size_t kRequestsKept = 100'000;

} // namespace

UsbBus::UsbBus(Kernel& kernel) : Component(kernel), hub_("hub")
{
    PnpManager::Current();
    PowerManager::Current();
}

UsbBus::~UsbBus() = default;

NTSTATUS UsbBus::LoadDriver()
{
    return driver_ != nullptr ? STATUS_SUCCESS : IoLoadDriver(kDriverName, UsbHubDriverEntry, &driver_);
}

UsbPortPtr UsbBus::Plug(std::shared_ptr<module::Device> device, UsbPortOptions options)
{
    auto port = std::make_shared<UsbPort>(*this, std::move(device), std::move(options));
    PDEVICE_OBJECT pdo = nullptr;
    std::uint64_t number = 0;
    {
        const MutexLock lock(mutex_);
        number = next_port_++;
    }
    if (!port->Enumerate() || !NT_SUCCESS(LoadDriver()) ||
        !NT_SUCCESS(UsbMakePdo(driver_, port.get(), number, &pdo)))
        return nullptr;
    port->SetDeviceObject(pdo);
    {
        const MutexLock lock(mutex_);
        ports_.push_back(port);
    }
    PnpManager::Current().Arrive(pdo,
                                 {port->DeviceId(), port->Options().instance_id, port->Options().class_guid});
    port->Poke();
    return port;
}

void UsbBus::Unplug(const UsbPortPtr& port)
{
    port->Disconnect();
    // The PnP manager knows of it when this returns.
    KeFlushQueuedDpcs();
}

std::vector<UsbPortPtr> UsbBus::Ports()
{
    const MutexLock lock(mutex_);
    return ports_;
}

void UsbBus::Forget(const UsbPort* port)
{
    UsbPortPtr last; // released after the lock
    const MutexLock lock(mutex_);
    auto found =
        std::find_if(ports_.begin(), ports_.end(), [=](const auto& item) { return item.get() == port; });
    if (found == ports_.end())
        return;
    last = std::move(*found);
    ports_.erase(found);
}

std::vector<UsbRequest> UsbBus::Log()
{
    const MutexLock lock(mutex_);
    return {log_.begin(), log_.end()};
}

void UsbBus::ClearLog()
{
    const MutexLock lock(mutex_);
    log_.clear();
}

std::uint64_t UsbBus::NewRequest(UsbRequest request)
{
    const MutexLock lock(mutex_);
    request.number = next_request_++;
    log_.push_back(std::move(request));
    if (log_.size() > kRequestsKept)
        log_.pop_front();
    return log_.back().number;
}

void UsbBus::UpdateRequest(std::uint64_t number, const std::function<void(UsbRequest&)>& change)
{
    const MutexLock lock(mutex_);
    if (!log_.empty() && number >= log_.front().number && number < log_.front().number + log_.size())
        change(log_[number - log_.front().number]);
}

void UsbBus::Shutdown()
{
    for (const UsbPortPtr& port : Ports())
        Unplug(port);
    // Stacks with open handles stay; the I/O manager's audit names them.
    kernel_.RunUntilIdle();
    PnpManager::Current().Settle();
    hub_.Stop();
}

} // namespace host
