#include "apps/system.h"

#include "apps/kept_on_purpose.h"
#include "cm/configuration_manager.h"
#include "cm/reg_file.h"
#include "io/driver.h"
#include "po/power_manager.h"
#include "usbd/usb_port.h"

#include <cerrno>
#include <filesystem>
#include <fmt/core.h>
#include <fstream>
#include <stdexcept>
#include <system_error>
#include <utility>

extern "C" DRIVER_INITIALIZE DriverEntry;

namespace app {
namespace {

constexpr const char* kDriverName = "navox";
constexpr std::u16string_view kMachine = u"\\Registry\\Machine";
constexpr host::Time kRemovalPatience = 10 * host::kSecond;

host::CmRegistry& Registry()
{
    return host::ConfigurationManager::Current().Registry();
}

} // namespace

// Adds the excuses, and keeps a copy of each finding that outlives the kernel.
host::KernelOptions System::Complete(host::KernelOptions options)
{
    for (host::Excuse& excuse : KeptOnPurpose())
        options.excuses.push_back(std::move(excuse));
    options.on_finding = [this, tell = std::move(options.on_finding)](const host::Finding& finding) {
        {
            const std::lock_guard lock(findings_mutex_);
            findings_.push_back(finding);
        }
        if (tell)
            tell(finding);
    };
    return options;
}

System::System(SystemOptions options)
    : kernel_(std::make_unique<host::Kernel>(Complete(std::move(options.kernel)))),
      module_(std::make_shared<module::GpsModule>(std::move(options.module), std::move(options.source)))
{
    if (!options.registry_file.empty()) {
        if (const auto error = host::CmLoadRegFile(Registry(), options.registry_file))
            throw RegistryError(error->Text());
    }
    const NTSTATUS status = host::IoLoadDriver(kDriverName, DriverEntry);
    if (!NT_SUCCESS(status))
        throw std::runtime_error(fmt::format("the driver did not load: 0x{:08x}", std::uint32_t(status)));
    loaded_ = true;

    host::PnpManager& pnp = host::PnpManager::Current();
    pnp.SetFunctionDriver(kDriverName);
    pnp.SetInstaller([name = options.port_name, rename = options.rename,
                      settings = std::move(options.settings)](host::PnpNode& node) {
        if (rename || !Registry().String(node.HardwareKey(), u"PortName"))
            Registry().SetString(node.HardwareKey(), u"PortName", std::u16string(name.begin(), name.end()));
        for (const auto& [setting, value] : settings)
            Registry().SetDword(node.DriverKey(), setting, value);
    });
}

System::~System()
{
    if (kernel_ == nullptr || !loaded_)
        return;
    Unplug();
    (void)Unload(); // what cannot go, the kernel's audit names
}

void System::Plug()
{
    module_->BusReset();
    port_ = host::UsbBus::Current().Plug(module_);
    if (port_ == nullptr)
        throw std::runtime_error("the module does not answer on the bus");
    host::PnpManager& pnp = host::PnpManager::Current();
    pnp.Settle();
    node_ = pnp.NodeOf(port_->DeviceObject());
    if (node_ == nullptr || node_->state != host::PnpState::Started)
        throw std::runtime_error(fmt::format("the port did not start: the device is {}", PortState()));
    port_name_ = Registry().String(node_->HardwareKey(), u"PortName").value_or("");
}

void System::Unplug()
{
    if (port_ == nullptr)
        return;
    host::UsbBus::Current().Unplug(std::exchange(port_, nullptr));
    kernel_->RunUntilIdle(); // the hub notices
    host::PnpManager::Current().Settle();
}

bool System::AwaitRemoval()
{
    const auto gone = [] { return host::PnpManager::Current().Nodes().empty(); };
    const bool removed = kernel_->RunUntil(gone, kRemovalPatience);
    if (removed)
        node_.reset();
    return removed;
}

NTSTATUS System::Stop()
{
    host::PnpManager& pnp = host::PnpManager::Current();
    const NTSTATUS status = pnp.QueryStop(node_);
    if (NT_SUCCESS(status))
        return pnp.Stop(node_);
    pnp.CancelStop(node_);
    return status;
}

NTSTATUS System::Start()
{
    return host::PnpManager::Current().Start(node_);
}

NTSTATUS System::Sleep(SYSTEM_POWER_STATE state)
{
    return host::PowerManager::Current().Sleep(state);
}

NTSTATUS System::Wake()
{
    return host::PowerManager::Current().Wake();
}

bool System::Awake() const
{
    return host::PowerManager::Current().SystemState() == PowerSystemWorking;
}

bool System::Powered() const
{
    return Awake() && port_ != nullptr && port_->PowerState() == PowerDeviceD0;
}

std::string System::PowerText() const
{
    const int state = host::PowerManager::Current().SystemState() - PowerSystemWorking;
    return fmt::format("system in S{}, {}", state,
                       port_ != nullptr ? fmt::format("device in D{}", port_->PowerState() - PowerDeviceD0)
                                        : "no device");
}

bool System::SelectiveSuspend() const
{
    return Registry().Dword(node_->DriverKey(), u"EnableSelectiveSuspend").value_or(0) != 0;
}

bool System::IdleRequested() const
{
    return port_->IdleRequested();
}

bool System::Unload()
{
    const auto unload = [this] {
        loaded_ = loaded_ && host::IoUnloadDriver(kDriverName) != STATUS_SUCCESS;
        return !loaded_;
    };
    return kernel_->RunUntil(unload, kRemovalPatience);
}

std::string System::PortState() const
{
    if (node_ == nullptr)
        return "absent";
    return node_->state == host::PnpState::Reported ? "there, but not started"
                                                    : host::PnpStateName(node_->state);
}

std::vector<host::Finding> System::Findings() const
{
    const std::lock_guard lock(findings_mutex_);
    return findings_;
}

void System::SaveRegistry(const std::string& file)
{
    if (const auto error = host::CmSaveRegFile(Registry(), kMachine, file))
        throw std::runtime_error(error->Text());
}

void System::SaveTrace(const std::string& file)
{
    // A file is replaced only by a whole one.
    const std::string draft = file + ".new";
    errno = 0;
    std::ofstream out(draft, std::ios::binary | std::ios::trunc);
    kernel_->Log().WriteJson(out);
    out.close();
    std::error_code error(out ? 0 : errno, std::generic_category());
    if (out)
        std::filesystem::rename(draft, file, error);
    if (out && !error)
        return;
    const std::string why = error.message();
    std::filesystem::remove(draft, error);
    throw std::runtime_error(fmt::format("cannot write the trace {}: {}", file, why));
}

} // namespace app
