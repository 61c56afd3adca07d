#include "apps/navoxctl/system_windows.h"

#include <windows.h>

#include <initguid.h>
#include <setupapi.h>
#include <winioctl.h>

#include <array>
#include <string_view>

namespace navoxctl {
namespace {

std::wstring Wide(std::string_view text)
{
    const int length = static_cast<int>(text.size());
    std::wstring wide(text.size(), L'\0'); // never longer in UTF-16
    wide.resize(
        static_cast<std::size_t>(MultiByteToWideChar(CP_UTF8, 0, text.data(), length, wide.data(), length)));
    return wide;
}

std::string Narrow(std::wstring_view text)
{
    const int length = static_cast<int>(text.size());
    std::string narrow(text.size() * 3, '\0'); // never longer in UTF-8
    narrow.resize(static_cast<std::size_t>(WideCharToMultiByte(
        CP_UTF8, 0, text.data(), length, narrow.data(), static_cast<int>(narrow.size()), nullptr, nullptr)));
    return narrow;
}

// Text of a registry value: `bytes` long, with or without terminators.
std::string ValueText(const wchar_t* text, DWORD bytes)
{
    const std::wstring_view all(text, bytes / sizeof(wchar_t));
    return Narrow(all.substr(0, all.find(L'\0')));
}

[[noreturn]] void Fail(const std::string& what)
{
    throw SystemError(what, GetLastError());
}

class WindowsPort : public PortHandle {
  public:
    explicit WindowsPort(HANDLE handle) : handle_(handle) {}
    ~WindowsPort() override { CloseHandle(handle_); }

    std::size_t Control(const char* what, std::uint32_t code, std::span<const std::byte> input,
                        std::span<std::byte> output) override
    {
        DWORD returned = 0;
        if (!DeviceIoControl(handle_, code, const_cast<std::byte*>(input.data()),
                             static_cast<DWORD>(input.size()), output.data(),
                             static_cast<DWORD>(output.size()), &returned, nullptr))
            Fail(what);
        return returned;
    }

    std::size_t Read(std::span<char> buffer) override
    {
        DWORD length = 0;
        if (!ReadFile(handle_, buffer.data(), static_cast<DWORD>(buffer.size()), &length, nullptr))
            Fail("reading");
        return length;
    }

  private:
    HANDLE handle_;
};

class RegistryKey {
  public:
    explicit RegistryKey(HKEY key) : key_(key) {}
    ~RegistryKey()
    {
        if (*this)
            RegCloseKey(key_);
    }
    RegistryKey(const RegistryKey&) = delete;
    RegistryKey& operator=(const RegistryKey&) = delete;

    explicit operator bool() const { return key_ != nullptr && key_ != INVALID_HANDLE_VALUE; }

    // Empty when there is no such text.
    std::string Text(const wchar_t* name) const
    {
        std::array<wchar_t, 256> text{};
        DWORD bytes = sizeof(text);
        if (RegGetValueW(key_, nullptr, name, RRF_RT_REG_SZ, nullptr, text.data(), &bytes) != ERROR_SUCCESS)
            return {};
        return ValueText(text.data(), bytes);
    }

    // The value of that number, as name and text; ERROR_NO_MORE_ITEMS behind the last.
    LSTATUS Enumerate(DWORD index, std::string* name, std::string* value) const
    {
        std::array<wchar_t, 256> name_text{};
        std::array<wchar_t, 256> text{};
        DWORD name_length = name_text.size();
        DWORD bytes = sizeof(text);
        DWORD type = 0;
        const LSTATUS status = RegEnumValueW(key_, index, name_text.data(), &name_length, nullptr, &type,
                                             reinterpret_cast<BYTE*>(text.data()), &bytes);
        if (status == ERROR_SUCCESS) {
            *name = Narrow({name_text.data(), name_length});
            *value = type == REG_SZ ? ValueText(text.data(), bytes) : "";
        }
        return status;
    }

  private:
    HKEY key_;
};

// The interfaces of a class whose devices are present.
class DeviceSet {
  public:
    explicit DeviceSet(const GUID& interface_class)
        : class_(interface_class),
          set_(SetupDiGetClassDevsW(&class_, nullptr, nullptr, DIGCF_PRESENT | DIGCF_DEVICEINTERFACE))
    {
        if (set_ == INVALID_HANDLE_VALUE)
            Fail("listing the interfaces");
    }
    ~DeviceSet() { SetupDiDestroyDeviceInfoList(set_); }
    DeviceSet(const DeviceSet&) = delete;
    DeviceSet& operator=(const DeviceSet&) = delete;

    // False behind the last.
    bool Get(DWORD index, InterfaceEntry* entry) const
    {
        SP_DEVICE_INTERFACE_DATA interface_data{};
        interface_data.cbSize = sizeof(interface_data);
        if (!SetupDiEnumDeviceInterfaces(set_, nullptr, &class_, index, &interface_data))
            return false;
        struct Detail {
            SP_DEVICE_INTERFACE_DETAIL_DATA_W data;
            wchar_t rest_of_path[1024];
        } detail{};
        detail.data.cbSize = sizeof(detail.data);
        SP_DEVINFO_DATA device{};
        device.cbSize = sizeof(device);
        if (!SetupDiGetDeviceInterfaceDetailW(set_, &interface_data, &detail.data, sizeof(detail), nullptr,
                                              &device))
            Fail("asking for an interface");
        *entry = {Narrow(detail.data.DevicePath), PortName(device), Service(device)};
        return true;
    }

  private:
    std::string PortName(SP_DEVINFO_DATA& device) const
    {
        const RegistryKey key(
            SetupDiOpenDevRegKey(set_, &device, DICS_FLAG_GLOBAL, 0, DIREG_DEV, KEY_QUERY_VALUE));
        return key ? key.Text(L"PortName") : "";
    }

    std::string Service(SP_DEVINFO_DATA& device) const
    {
        std::array<wchar_t, 256> text{};
        DWORD bytes = 0;
        if (!SetupDiGetDeviceRegistryPropertyW(set_, &device, SPDRP_SERVICE, nullptr,
                                               reinterpret_cast<BYTE*>(text.data()), sizeof(text), &bytes))
            return {};
        return ValueText(text.data(), bytes);
    }

    GUID class_;
    HDEVINFO set_;
};

} // namespace

std::unique_ptr<PortHandle> WindowsSystem::Open(const std::string& port)
{
    HANDLE handle = CreateFileW((L"\\\\.\\" + Wide(port)).c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                OPEN_EXISTING, 0, nullptr);
    if (handle == INVALID_HANDLE_VALUE)
        Fail("opening the port");
    return std::make_unique<WindowsPort>(handle);
}

std::vector<MapEntry> WindowsSystem::SerialMap()
{
    HKEY opened = nullptr;
    const LSTATUS status =
        RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"HARDWARE\\DEVICEMAP\\SERIALCOMM", 0, KEY_QUERY_VALUE, &opened);
    if (status == ERROR_FILE_NOT_FOUND)
        return {}; // no port was ever there
    if (status != ERROR_SUCCESS)
        throw SystemError("reading the device map", static_cast<std::uint32_t>(status));
    const RegistryKey key(opened);
    std::vector<MapEntry> entries;
    for (DWORD index = 0;; ++index) {
        MapEntry entry;
        const LSTATUS step = key.Enumerate(index, &entry.device, &entry.port);
        if (step == ERROR_NO_MORE_ITEMS)
            return entries;
        if (step == ERROR_SUCCESS) // others have longer names or texts than a port has
            entries.push_back(std::move(entry));
    }
}

std::vector<InterfaceEntry> WindowsSystem::ComInterfaces()
{
    const DeviceSet set(GUID_DEVINTERFACE_COMPORT);
    std::vector<InterfaceEntry> entries;
    InterfaceEntry entry;
    for (DWORD index = 0; set.Get(index, &entry); ++index)
        entries.push_back(entry);
    return entries;
}

std::string WindowsSystem::ErrorText(std::uint32_t error)
{
    std::array<wchar_t, 512> text{};
    const DWORD length = FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                                        error, 0, text.data(), text.size(), nullptr);
    std::string narrow = Narrow({text.data(), length});
    while (!narrow.empty() && static_cast<unsigned char>(narrow.back()) <= ' ')
        narrow.pop_back();
    return narrow.empty() ? "unknown error" : narrow;
}

} // namespace navoxctl
