// PuTTY: a read of up to 4096 bytes ends one millisecond after the last byte.
#include "tests/personalities/libraries.h"

#include <array>

namespace personalities {
namespace {

class Putty : public Library {
  public:
    using Library::Library;

    void Open() override
    {
        CreatePort(kPrefix, kReadWrite, FILE_FLAG_OVERLAPPED);
        DCB dcb{};
        if (GetCommState(port_, &dcb)) { // a device that is no serial port is welcome, too
            SetLine(dcb, 9'600);
            dcb.fDtrControl = DTR_CONTROL_ENABLE;
            dcb.fRtsControl = RTS_CONTROL_ENABLE;
            dcb.fTXContinueOnXoff = 0;
            Must("SetCommState", SetCommState(port_, dcb));
            Must("SetCommTimeouts", SetCommTimeouts(port_, {1, 0, 0, 0, 0}));
        } else {
            session_.Notice(Failure{"GetCommState", GetLastError()}.Text());
        }
    }

    void Run() override
    {
        std::array<char, 4096> buffer{};
        while (!session_.Stopping()) {
            MustStart("ReadFile", ReadFile(port_, buffer.data(), buffer.size(), nullptr, &read_));
            if (const std::optional<DWORD> length = MustFinish("ReadFile", read_))
                session_.Receive(buffer.data(), *length);
        }
        (void)CancelIo(port_); // the buffer goes
    }

    void Close() override { CloseHandle(port_); }

  private:
    Overlapped read_;
};

} // namespace

std::unique_ptr<Library> MakePutty(Session& session)
{
    return std::make_unique<Putty>(session);
}

} // namespace personalities
