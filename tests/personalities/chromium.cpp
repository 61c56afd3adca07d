// Chromium Web Serial: sets the mask anew before every wait.
#include "tests/personalities/libraries.h"

#include <array>

namespace personalities {
namespace {

class Chromium : public Library {
  public:
    using Library::Library;

    void Open() override
    {
        CreatePort(kPrefix, kReadWrite, FILE_FLAG_OVERLAPPED);
        Must("SetCommTimeouts", SetCommTimeouts(port_, {MAXDWORD, 0, 0, 0, 0}));
        DCB dcb{};
        Must("GetCommState", GetCommState(port_, &dcb));
        SetLine(dcb, 9'600);
        dcb.fDtrControl = DTR_CONTROL_ENABLE;
        dcb.fRtsControl = RTS_CONTROL_ENABLE;
        Must("SetCommState", SetCommState(port_, dcb));
    }

    void Run() override
    {
        std::array<char, 4096> buffer{};
        for (;;) {
            May("SetCommMask", SetCommMask(port_, EV_RXCHAR));
            MustStart("WaitCommEvent", WaitCommEvent(port_, &events_, &wait_));
            if (!session_.Await(wait_))
                return;
            (void)QueuedBytes(); // for its errors; a wait that failed is judged by this
            MustStart("ReadFile", ReadFile(port_, buffer.data(), buffer.size(), nullptr, &read_));
            DWORD length = 0;
            Must("ReadFile", GetOverlappedResult(port_, read_, &length, true));
            session_.Receive(buffer.data(), length);
        }
    }

    void Close() override
    {
        (void)CancelIo(port_);
        CloseHandle(port_);
    }

  private:
    DWORD events_ = 0;
    Overlapped wait_;
    Overlapped read_;
};

} // namespace

std::unique_ptr<Library> MakeChromium(Session& session)
{
    return std::make_unique<Chromium>(session);
}

} // namespace personalities
