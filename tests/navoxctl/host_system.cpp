#include "tests/navoxctl/host_system.h"

#include "cm/configuration_manager.h"
#include "cm/text.h"
#include "io/driver.h"
#include "io/pnp_manager.h"
#include "tests/win32/file.h"

#include <algorithm>
#include <initguid.h>
#include <ntddser.h>

namespace {

using navoxctl::InterfaceEntry;
using navoxctl::MapEntry;
using navoxctl::PortHandle;
using navoxctl::SystemError;

class HostPort : public PortHandle {
  public:
    explicit HostPort(win32::Handle handle) : handle_(std::move(handle)) {}

    std::size_t Control(const char* what, std::uint32_t code, std::span<const std::byte> input,
                        std::span<std::byte> output) override
    {
        win32::DWORD returned = 0;
        if (!win32::DeviceIoControl(handle_, code, input.data(), static_cast<win32::DWORD>(input.size()),
                                    output.data(), static_cast<win32::DWORD>(output.size()), &returned,
                                    nullptr))
            throw SystemError(what, win32::GetLastError());
        return returned;
    }

    std::size_t Read(std::span<char> buffer) override
    {
        win32::DWORD length = 0;
        if (!win32::ReadFile(handle_, buffer.data(), static_cast<win32::DWORD>(buffer.size()), &length,
                             nullptr))
            throw SystemError("reading", win32::GetLastError());
        return length;
    }

  private:
    win32::Handle handle_;
};

host::CmRegistry& Registry()
{
    return host::ConfigurationManager::Current().Registry();
}

// The device whose interface has that name.
host::PnpNodePtr NodeOf(const std::string& interface_path)
{
    for (const host::PnpNodePtr& node : host::PnpManager::Current().Nodes()) {
        std::string path = node->Path();
        std::ranges::replace(path, '\\', '#');
        if (interface_path.find(path) != std::string::npos)
            return node;
    }
    return nullptr;
}

} // namespace

std::unique_ptr<PortHandle> HostSystem::Open(const std::string& port)
{
    win32::Handle handle =
        win32::CreateFile("\\\\.\\" + port, win32::GENERIC_READ_ACCESS | win32::GENERIC_WRITE_ACCESS, 0, 0);
    if (!handle)
        throw SystemError("opening the port", win32::GetLastError());
    return std::make_unique<HostPort>(std::move(handle));
}

std::vector<MapEntry> HostSystem::SerialMap()
{
    std::vector<MapEntry> entries;
    const host::CmKeyPtr key = Registry().Open(u"\\Registry\\Machine\\HARDWARE\\DEVICEMAP\\SERIALCOMM");
    if (key == nullptr)
        return entries;
    for (const host::CmValue& value : Registry().Values(key))
        entries.push_back({host::ToUtf8(value.name), host::ToUtf8(host::CmStringText(value.data))});
    return entries;
}

std::vector<InterfaceEntry> HostSystem::ComInterfaces()
{
    std::vector<InterfaceEntry> entries;
    for (const std::string& path : host::nt::Interfaces(GUID_DEVINTERFACE_COMPORT)) {
        const host::PnpNodePtr node = NodeOf(path);
        if (node == nullptr)
            throw SystemError("no device has the interface " + path, win32::ERROR_NOT_FOUND);
        entries.push_back({path, Registry().String(node->HardwareKey(), u"PortName").value_or(""),
                           host::IopDriverName(node->pdo->AttachedDevice->DriverObject)});
    }
    return entries;
}

std::string HostSystem::ErrorText(std::uint32_t error)
{
    return win32::ErrorName(error);
}
