// jSerialComm with a listener for data: waits for an event, then reads what there is.
#include "tests/personalities/libraries.h"

#include <algorithm>
#include <array>

namespace personalities {
namespace {

class JSerialComm : public Library {
  public:
    using Library::Library;

    void Open() override
    {
        CreatePort(kPrefix, kReadWrite, FILE_FLAG_OVERLAPPED);
        Must("SetupComm", SetupComm(port_, 4096, 4096));
        DCB dcb{};
        Must("GetCommState", GetCommState(port_, &dcb));
        SetLine(dcb, 9'600);
        dcb.fDtrControl = DTR_CONTROL_ENABLE;
        dcb.fRtsControl = RTS_CONTROL_ENABLE;
        dcb.XonLim = 2048;
        dcb.XoffLim = 512;
        dcb.XonChar = 0x11;
        dcb.XoffChar = 0x13;
        Must("SetCommState", SetCommState(port_, dcb));
        Must("SetCommTimeouts", SetCommTimeouts(port_, {MAXDWORD, 0, 0, 0, 0}));
        Must("SetCommMask", SetCommMask(port_, EV_ERR | EV_RXCHAR));
    }

    void Run() override
    {
        std::array<char, 4096> buffer{};
        for (;;) {
            MustStart("WaitCommEvent", WaitCommEvent(port_, &events_, &wait_));
            if (!MustFinish("WaitCommEvent", wait_))
                return;
            const DWORD available = std::min<DWORD>(QueuedBytes(), buffer.size());
            MustStart("ReadFile", ReadFile(port_, buffer.data(), available, nullptr, &read_));
            DWORD length = 0;
            Must("ReadFile", GetOverlappedResult(port_, read_, &length, true));
            session_.Receive(buffer.data(), length);
        }
    }

    void Close() override
    {
        May("PurgeComm", PurgeComm(port_, PURGE_ALL));
        (void)CancelIoEx(port_);
        May("SetCommMask", SetCommMask(port_, 0));
        CloseHandle(port_);
    }

  private:
    DWORD events_ = 0;
    Overlapped wait_;
    Overlapped read_;
};

} // namespace

std::unique_ptr<Library> MakeJSerialComm(Session& session)
{
    return std::make_unique<JSerialComm>(session);
}

} // namespace personalities
