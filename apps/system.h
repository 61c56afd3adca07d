// A whole machine: kernel, registry, bus, GPS module and the driver, put together in the order in which a
// real one comes up.
#pragma once

#include "io/pnp_manager.h"
#include "ke/kernel.h"
#include "module/gps_module.h"
#include "usbd/usb_bus.h"

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace app {

struct SystemOptions {
    host::KernelOptions kernel{};
    std::string registry_file{}; // .reg to begin with; empty: an empty registry
    // Written to the device's hardware key before the driver sees the device, where `rename` is set or the
    // registry has none.
    std::string port_name = "COM5";
    bool rename = false;
    std::map<std::u16string, std::uint32_t> settings{}; // written to the driver key
    module::GpsModuleOptions module{};
    std::unique_ptr<module::NmeaSource> source{}; // null: a module that says nothing
};

// All members are called on the thread that made it, the kernel's main, at PASSIVE_LEVEL.
class System {
  public:
    // Starts the kernel, loads the registry and the driver. The driver's excuses join those in `options`.
    // Throws RegistryError or std::runtime_error.
    explicit System(SystemOptions options);
    // Pulls the module and unloads the driver first, where nobody has: what was begun and did not start leaves
    // nothing behind.
    ~System();
    System(const System&) = delete;
    System& operator=(const System&) = delete;

    // Connects the module; returns when the port has started. std::runtime_error when it has not.
    void Plug();
    // Pulls the module; returns when the driver has been told. Handles that are open keep the device.
    void Unplug();
    bool Plugged() const { return port_ != nullptr; }
    // Waits until the device of a pulled module has gone. False when it does not, as with a handle still open.
    [[nodiscard]] bool AwaitRemoval();

    // The two halves of a rebalance; the module must be plugged in. Every handle must be closed: the driver
    // lets a stop wait for their requests, however long.
    NTSTATUS Stop();
    NTSTATUS Start(); // when it fails the device goes, until the module is plugged in anew
    bool Stopped() const { return node_ != nullptr && node_->state == host::PnpState::Stopped; }
    bool Started() const { return node_ != nullptr && node_->state == host::PnpState::Started; }

    // The whole system; refused by a driver: it stays awake.
    NTSTATUS Sleep(SYSTEM_POWER_STATE state);
    NTSTATUS Wake();
    bool Awake() const;
    bool Powered() const;          // the system is awake, and the device in D0
    std::string PowerText() const; // "system in S0, device in D0"

    // The setting of the driver key, and whether the driver has asked the hub to suspend the module.
    bool SelectiveSuspend() const;
    bool IdleRequested() const;

    // Waits until the device has gone, and unloads the driver, which is then audited. False when it cannot be
    // unloaded. Every handle must be closed. Once done, does nothing.
    [[nodiscard]] bool Unload();
    // Ends the kernel, which audits what is left. Of no use after it is all but Module and Findings.
    void End() { kernel_.reset(); }

    host::Kernel& Kernel() { return *kernel_; }
    module::GpsModule& Module() { return *module_; }
    const std::string& PortName() const { return port_name_; } // as the registry has it, once plugged
    std::string PortState() const;                             // of the device
    // What the verifier has found up to now, under a policy that records it. From any thread.
    std::vector<host::Finding> Findings() const;

    // Throws std::runtime_error.
    void SaveRegistry(const std::string& file);
    void SaveTrace(const std::string& file);

  private:
    host::KernelOptions Complete(host::KernelOptions options);

    mutable std::mutex findings_mutex_;
    std::vector<host::Finding> findings_;
    std::unique_ptr<host::Kernel> kernel_;
    std::shared_ptr<module::GpsModule> module_;
    host::UsbPortPtr port_;
    host::PnpNodePtr node_;
    std::string port_name_;
    bool loaded_ = false;
};

// The registry file cannot be used: its name, the line, and why.
class RegistryError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

} // namespace app
