// A machine with one GPS module: kernel, registry, bus, module, driver. A test is a short scenario on it.
//
//     Rig rig;
//     Port port = rig.Open();
//     EXPECT_EQ(port.Read(32).Text(), kEmptyFix);
#pragma once

#include "cm/registry.h"
#include "io/pnp_manager.h"
#include "ke/kernel.h"
#include "module/gps_module.h"
#include "nt/file.h"
#include "usbd/usb_bus.h"

#include <gtest/gtest.h>

#include <ntddk.h>
#include <ntddser.h>

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace navox_test {

inline constexpr std::string_view kEmptyFix = "$GPGGA,,,,,,0,00,0.5,,M,,,,*00\r\n";
inline constexpr host::Time kMillisecond = host::kMillisecond;
inline constexpr host::Time kSecond = host::kSecond;

// The driver's settings, as an installation would leave them.
struct RigOptions {
    host::KernelOptions kernel{};
    module::GpsModuleOptions module{};
    host::UsbPortOptions port{};
    // Sentences of the module; null: none. The default is one fix a second.
    std::function<std::unique_ptr<module::NmeaSource>()> source = DefaultSource;
    std::optional<std::string> port_name = "COM5";
    std::map<std::string, std::uint32_t> settings{}; // of the driver key
    bool load = true;                                // the driver
    bool plug = true;                                // the module
    // Runs on the PnP thread for each arrival, before the driver hears of it.
    std::function<void(host::PnpNode&)> on_arrival{};

    static std::unique_ptr<module::NmeaSource> DefaultSource();
};

// A source that says what the test tells it to, when the test tells it to.
class ScriptedSource : public module::NmeaSource {
  public:
    struct Script {
        std::vector<std::pair<host::Time, std::string>> bursts; // after output was switched on; ascending
    };
    explicit ScriptedSource(Script script) : script_(std::move(script)) {}
    void Start(module::Time now) override { start_ = start_.value_or(now); }
    std::optional<module::Time> Due() const override;
    std::string Take() override;

  private:
    Script script_;
    std::size_t next_ = 0;
    std::optional<module::Time> start_;
};

// An open handle of the port, with the calls that serial programs make.
class Port : public host::nt::File {
  public:
    Port() = default;
    explicit Port(host::nt::File file) : File(std::move(file)) {}

    NTSTATUS SetTimeouts(ULONG interval, ULONG multiplier, ULONG constant) const;
    NTSTATUS SetWaitMask(ULONG mask) const;
    host::nt::Request StartWait() const;
    // What the port says is in its ring.
    ULONG InQueue() const;
    // A control that takes and gives one value each.
    template <class T>
    NTSTATUS Set(ULONG code, const T& value) const
    {
        return Control(code, host::nt::BytesOf(value)).status;
    }
    template <class T>
    T Get(ULONG code) const
    {
        const host::nt::Result result = Control(code, {}, sizeof(T));
        EXPECT_EQ(result.status, STATUS_SUCCESS);
        EXPECT_EQ(result.information, sizeof(T));
        T value{};
        if (result.data.size() == sizeof(T))
            std::memcpy(&value, result.data.data(), sizeof(T));
        return value;
    }
};

class Rig {
  public:
    explicit Rig(RigOptions options = {});
    // Unplugs, unloads, and lets the kernel audit.
    ~Rig();

    NTSTATUS Load();
    void Plug();
    // Plugs the module in and waits for nothing; false when the bus did not take it.
    bool TryPlug();
    // Pulls the module; returns when Plug and Play has settled.
    void Unplug();
    NTSTATUS Unload();

    // Opens the port; the test fails where it cannot.
    Port Open();
    NTSTATUS TryOpen(Port* port, const host::nt::OpenOptions& options = {});
    // Opens, and waits until sentences flow.
    Port OpenStreaming();

    void RunFor(host::Time time) { kernel.RunFor(time); }

    host::CmRegistry& Registry();
    std::optional<std::uint32_t> OpenHandles();
    host::PnpNodePtr Node();
    // The requests on the bus since the last call, in order, each as one short text:
    // "SET_COMM_FEATURE(3)", "reset 81", "out 01 AT*Q7GPSNPD\r\n", "in 81" ...
    std::vector<std::string> TakeBusLog();

    host::Kernel kernel;
    std::shared_ptr<module::GpsModule> module;
    host::UsbPortPtr usb_port;

  private:
    RigOptions options_;
    bool loaded_ = false;
};

// The port gives the fix of a fresh client first, and then what the module says.
void ExpectStream(const Port& port);

inline std::vector<std::string> operator+(std::vector<std::string> left,
                                          const std::vector<std::string>& right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

// A request on the bus as one short text, as TakeBusLog gives it.
std::string DescribeRequest(const host::UsbRequest& request);

} // namespace navox_test
