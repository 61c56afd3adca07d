// Boost.Asio, as the releases that open a port with 0 baud; its user then sets the rate.
#include "tests/personalities/libraries.h"

#include <array>

namespace personalities {
namespace {

class BoostAsio : public Library {
  public:
    using Library::Library;

    void Open() override
    {
        CreatePort(kPrefix, kReadWrite, FILE_FLAG_OVERLAPPED);
        Configure(0);
        Must("SetCommTimeouts", SetCommTimeouts(port_, {1, 0, 0, 0, 0}));
        Configure(9'600); // set_option
    }

    void Run() override
    {
        std::array<char, 512> buffer{};
        while (!session_.Stopping()) {
            MustStart("ReadFile", ReadFile(port_, buffer.data(), buffer.size(), nullptr, &read_));
            if (const std::optional<DWORD> length = MustFinish("ReadFile", read_))
                session_.Receive(buffer.data(), *length);
        }
        (void)CancelIoEx(port_); // cancel()
    }

    void Close() override { CloseHandle(port_); }

  private:
    void Configure(DWORD baud_rate)
    {
        DCB dcb{};
        Must("GetCommState", GetCommState(port_, &dcb));
        SetLine(dcb, baud_rate);
        Must("SetCommState", SetCommState(port_, dcb));
    }

    Overlapped read_;
};

} // namespace

std::unique_ptr<Library> MakeBoostAsio(Session& session)
{
    return std::make_unique<BoostAsio>(session);
}

} // namespace personalities
