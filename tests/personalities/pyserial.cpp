// pyserial, with its own reader loop: read(in_waiting or 1), a time-out of one second.
#include "tests/personalities/libraries.h"

#include <algorithm>
#include <array>

namespace personalities {
namespace {

class Pyserial : public Library {
  public:
    using Library::Library;

    void Open() override
    {
        const bool needs_prefix = session_.port.size() > 4 || session_.port.back() > '8';
        CreatePort(needs_prefix ? kPrefix : "", kReadWrite, FILE_FLAG_OVERLAPPED);
        May("SetupComm", SetupComm(port_, 4096, 4096));
        May("GetCommTimeouts", GetCommTimeouts(port_, &original_));
        May("SetCommTimeouts", SetCommTimeouts(port_, {0, 0, 1'000, 0, 0}));
        May("SetCommMask", SetCommMask(port_, EV_ERR));
        DCB dcb{};
        May("GetCommState", GetCommState(port_, &dcb));
        SetLine(dcb, 9'600);
        dcb.fRtsControl = RTS_CONTROL_ENABLE;
        dcb.fDtrControl = DTR_CONTROL_ENABLE;
        dcb.XonChar = 0x11;
        dcb.XoffChar = 0x13;
        Must("SetCommState", SetCommState(port_, dcb));
        May("PurgeComm", PurgeComm(port_, PURGE_ALL));
        session_.InputPurged();
    }

    void Run() override
    {
        while (!session_.Stopping())
            Read(std::max<DWORD>(QueuedBytes(), 1));
    }

    void Close() override
    {
        (void)SetCommTimeouts(port_, original_);
        (void)CancelIoEx(port_);
        CloseHandle(port_);
    }

  private:
    void Read(DWORD length)
    {
        std::array<char, 4096> buffer{};
        (void)QueuedBytes(); // each read begins with it
        MustStart("ReadFile",
                  ReadFile(port_, buffer.data(), std::min<DWORD>(length, buffer.size()), nullptr, &read_));
        DWORD read = 0;
        const bool finished = GetOverlappedResult(port_, read_, &read, true);
        Must("GetOverlappedResult", finished || GetLastError() == ERROR_OPERATION_ABORTED);
        session_.Receive(buffer.data(), read);
    }

    COMMTIMEOUTS original_{};
    Overlapped read_;
};

} // namespace

std::unique_ptr<Library> MakePyserial(Session& session)
{
    return std::make_unique<Pyserial>(session);
}

} // namespace personalities
