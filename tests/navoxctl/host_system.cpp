#include "tests/navoxctl/host_system.h"

#include "tests/win32/file.h"

namespace {

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

} // namespace

std::unique_ptr<PortHandle> HostSystem::Open(const std::string& port)
{
    win32::Handle handle =
        win32::CreateFile("\\\\.\\" + port, win32::GENERIC_READ_ACCESS | win32::GENERIC_WRITE_ACCESS, 0, 0);
    if (!handle)
        throw SystemError("opening the port", win32::GetLastError());
    return std::make_unique<HostPort>(std::move(handle));
}

std::string HostSystem::ErrorText(std::uint32_t error)
{
    return win32::ErrorName(error);
}
