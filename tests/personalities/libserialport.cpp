// libserialport: a wait is under way before the port is configured, and beside every read.
#include "tests/personalities/libraries.h"

#include <array>

namespace personalities {
namespace {

constexpr DWORD kTimeout = 1'000; // ms, of a read

class Libserialport : public Library {
  public:
    using Library::Library;

    void Open() override
    {
        CreatePort(kPrefix, kReadWrite, FILE_FLAG_OVERLAPPED);
        Must("SetCommTimeouts", SetCommTimeouts(port_, {}));
        Must("SetCommMask", SetCommMask(port_, EV_RXCHAR | EV_ERR));
        RestartWait();
        DCB dcb{};
        Must("GetCommState", GetCommState(port_, &dcb));
        if (dcb.BaudRate == 0) {
            session_.Notice("the port reports 0 baud, and it takes 9600");
            dcb.BaudRate = 9'600;
        }
        SetLine(dcb, dcb.BaudRate);
        (void)QueuedBytes();
        Must("SetCommState", SetCommState(port_, dcb));
        Drain();
    }

    // sp_blocking_read_next, again and again.
    void Run() override
    {
        std::array<char, 1024> buffer{};
        while (!session_.Stopping()) {
            UseReadTimeouts();
            MustStart("ReadFile", ReadFile(port_, buffer.data(), buffer.size(), nullptr, &read_));
            DWORD length = 0;
            Must("GetOverlappedResult", GetOverlappedResult(port_, read_, &length, true));
            session_.Receive(buffer.data(), length);
            if (length != 0 && QueuedBytes() == 0)
                RestartWait();
        }
    }

    void Close() override { CloseHandle(port_); }

  private:
    // sp_drain, before anything was written.
    void Drain()
    {
        if (!FlushFileBuffers(port_))
            session_.Notice("`sp_drain` fails: " + Failure{"FlushFileBuffers", GetLastError()}.Text());
    }

    void UseReadTimeouts()
    {
        if (!timeouts_set_)
            Must("SetCommTimeouts", SetCommTimeouts(port_, {MAXDWORD, MAXDWORD, kTimeout, 0, 0}));
        timeouts_set_ = true;
    }

    void RestartWait()
    {
        if (waiting_) {
            DWORD length = 0;
            waiting_ = !GetOverlappedResult(port_, wait_, &length, false);
            Must("GetOverlappedResult", !waiting_ || GetLastError() == ERROR_IO_INCOMPLETE);
        }
        if (!waiting_) {
            waiting_ = !WaitCommEvent(port_, &events_, &wait_);
            Must("WaitCommEvent", !waiting_ || GetLastError() == ERROR_IO_PENDING);
        }
    }

    bool timeouts_set_ = false;
    bool waiting_ = false;
    DWORD events_ = 0;
    Overlapped wait_;
    Overlapped read_;
};

} // namespace

std::unique_ptr<Library> MakeLibserialport(Session& session)
{
    return std::make_unique<Libserialport>(session);
}

} // namespace personalities
