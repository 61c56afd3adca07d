#include "rig.h"

#include "apps/kept_on_purpose.h"
#include "cm/configuration_manager.h"
#include "io/driver.h"
#include "module/nmea_generator.h"
#include "navox_entry.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace navox_test {
namespace {

constexpr const char* kDriverName = "navox";

std::u16string Wide(std::string_view text)
{
    return {text.begin(), text.end()};
}

// Writes the events of a run that failed to the folder that NAVOX_TRACE_DIR names.
void KeepTrace()
{
    host::Kernel& kernel = host::Kernel::Current();
    const char* const folder = std::getenv("NAVOX_TRACE_DIR");
    const ::testing::TestInfo* const test = ::testing::UnitTest::GetInstance()->current_test_info();
    if (folder == nullptr || test == nullptr ||
        (kernel.GetVerifier().Clean() && !::testing::Test::HasFailure()))
        return;
    std::string name = std::string(test->test_suite_name()) + '.' + test->name() + ".json";
    std::replace(name.begin(), name.end(), '/', '.');
    const std::filesystem::path path = std::filesystem::path(folder) / name;
    std::ofstream out(path);
    kernel.Log().WriteJson(out);
    std::fprintf(stderr, "%s %s\n", out.flush() ? "trace" : "could not write the trace", path.c_str());
}

// What every run of the driver's tests has.
host::KernelOptions ForTests(host::KernelOptions options)
{
    options.on_end = [inner = std::move(options.on_end)](const host::Kernel& kernel) {
        KeepTrace();
        if (inner != nullptr)
            inner(kernel);
    };
    options.clock_tick = 156'250; // 15.625 ms, so that a timer due "at once" does not come at every 100 ns
    for (host::Excuse& excuse : app::KeptOnPurpose())
        options.excuses.push_back(std::move(excuse));
    return options;
}

std::string ControlName(const module::SetupPacket& setup, const std::vector<std::uint8_t>& data)
{
    const auto value = std::to_string(setup.wValue);
    switch (setup.bRequest) {
    case 0x02: return "SET_COMM_FEATURE(" + std::to_string(data.empty() ? 0 : data[0]) + ")";
    case 0x03: return "GET_COMM_FEATURE";
    case 0x04: return "CLEAR_COMM_FEATURE";
    case 0x22: return "SET_CONTROL_LINE_STATE(" + value + ")";
    default: return "control " + std::to_string(setup.bRequest);
    }
}

} // namespace

std::string DescribeRequest(const host::UsbRequest& request)
{
    char endpoint[8];
    std::snprintf(endpoint, sizeof(endpoint), " %02X", request.endpoint);
    switch (request.function) {
    case URB_FUNCTION_CLASS_INTERFACE:
        return request.setup.empty() ? "class" : ControlName(request.setup.back(), request.data);
    case URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL: return std::string("reset") + endpoint;
    case URB_FUNCTION_ABORT_PIPE: return std::string("abort") + endpoint;
    case URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER:
        if ((request.endpoint & 0x80) != 0)
            return std::string("in") + endpoint;
        return std::string("out") + endpoint + " " + std::string(request.data.begin(), request.data.end());
    default: return request.name;
    }
}

std::unique_ptr<module::NmeaSource> RigOptions::DefaultSource()
{
    return std::make_unique<module::NmeaGenerator>(1);
}

std::optional<module::Time> ScriptedSource::Due() const
{
    if (!start_ || next_ == script_.bursts.size())
        return std::nullopt;
    return *start_ + script_.bursts[next_].first;
}

std::string ScriptedSource::Take()
{
    return script_.bursts[next_++].second;
}

NTSTATUS Port::SetTimeouts(ULONG interval, ULONG multiplier, ULONG constant) const
{
    const SERIAL_TIMEOUTS timeouts = {interval, multiplier, constant, 0, 0};
    return Control(IOCTL_SERIAL_SET_TIMEOUTS, host::nt::BytesOf(timeouts)).status;
}

NTSTATUS Port::SetWaitMask(ULONG mask) const
{
    return Control(IOCTL_SERIAL_SET_WAIT_MASK, host::nt::BytesOf(mask)).status;
}

host::nt::Request Port::StartWait() const
{
    return StartControl(IOCTL_SERIAL_WAIT_ON_MASK, {}, sizeof(ULONG));
}

ULONG Port::InQueue() const
{
    return Get<SERIAL_STATUS>(IOCTL_SERIAL_GET_COMMSTATUS).AmountInInQueue;
}

Rig::Rig(RigOptions options) : kernel(ForTests(options.kernel)), options_(std::move(options))
{
    host::PnpManager::Current().SetInstaller([this](host::PnpNode& node) {
        if (options_.port_name)
            Registry().SetString(node.HardwareKey(), u"PortName", Wide(*options_.port_name));
        for (const auto& [name, value] : options_.settings)
            Registry().SetDword(node.DriverKey(), Wide(name), value);
        Registry().ClearWrites();
        if (options_.on_arrival)
            options_.on_arrival(node);
    });
    host::PnpManager::Current().SetFunctionDriver(kDriverName);
    if (options_.load && NT_SUCCESS(Load()) && options_.plug)
        Plug();
}

Rig::~Rig()
{
    if (usb_port != nullptr)
        Unplug();
    // Handles that were closed last keep the device a little longer.
    EXPECT_TRUE(kernel.RunUntil([this] { return Node() == nullptr; }, 60 * kSecond))
        << "a handle is still open";
    if (loaded_)
        EXPECT_EQ(Unload(), STATUS_SUCCESS);
}

NTSTATUS Rig::Load()
{
    const NTSTATUS status = host::IoLoadDriver(kDriverName, DriverEntry);
    loaded_ = NT_SUCCESS(status);
    return status;
}

NTSTATUS Rig::Unload()
{
    loaded_ = false;
    return host::IoUnloadDriver(kDriverName);
}

bool Rig::TryPlug()
{
    module =
        std::make_shared<module::GpsModule>(options_.module, options_.source ? options_.source() : nullptr);
    usb_port = host::UsbBus::Current().Plug(module, options_.port);
    return usb_port != nullptr;
}

void Rig::Plug()
{
    ASSERT_TRUE(TryPlug()) << "the bus did not take the module";
    host::PnpManager::Current().Settle();
}

void Rig::Unplug()
{
    host::UsbBus::Current().Unplug(usb_port);
    host::PnpManager::Current().Settle();
    usb_port = nullptr;
}

NTSTATUS Rig::TryOpen(Port* port, const host::nt::OpenOptions& options)
{
    host::nt::File file;
    const NTSTATUS status =
        host::nt::File::Open("\\\\.\\" + options_.port_name.value_or("COM5"), &file, options);
    *port = Port(std::move(file));
    return status;
}

Port Rig::Open()
{
    Port port;
    EXPECT_EQ(TryOpen(&port), STATUS_SUCCESS);
    return port;
}

Port Rig::OpenStreaming()
{
    Port port = Open();
    EXPECT_TRUE(kernel.RunUntil([this] { return module->Look().nmea_flowing; }, 10 * kSecond));
    return port;
}

void ExpectStream(const Port& port)
{
    EXPECT_EQ(port.Read(kEmptyFix.size()).Text(), kEmptyFix);
    EXPECT_EQ(port.Read(6).Text(), "$GPGGA");
}

host::CmRegistry& Rig::Registry()
{
    return host::ConfigurationManager::Current().Registry();
}

std::optional<std::uint32_t> Rig::OpenHandles()
{
    return Registry().Dword(Node()->HardwareKey(), u"OpenHandles");
}

host::PnpNodePtr Rig::Node()
{
    const auto nodes = host::PnpManager::Current().Nodes();
    return nodes.empty() ? nullptr : nodes.back();
}

std::vector<std::string> Rig::TakeBusLog()
{
    std::vector<std::string> log;
    for (const host::UsbRequest& request : host::UsbBus::Current().Log())
        log.push_back(DescribeRequest(request));
    host::UsbBus::Current().ClearLog();
    return log;
}

} // namespace navox_test
