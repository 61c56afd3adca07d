// serialport-rs: a synchronous handle, reads with a total time-out.
#include "tests/personalities/libraries.h"

#include <array>

namespace personalities {
namespace {

class SerialportRs : public Library {
  public:
    using Library::Library;

    void Open() override
    {
        CreatePort(kPrefix, kReadWrite, 0);
        DCB dcb{};
        Must("GetCommState", GetCommState(port_, &dcb));
        SetLine(dcb, 9'600);
        dcb.fDtrControl = DTR_CONTROL_DISABLE;
        dcb.fRtsControl = RTS_CONTROL_DISABLE;
        dcb.XonChar = 0x11;
        dcb.XoffChar = 0x13;
        dcb.EofChar = 0x1A;
        Must("SetCommState", SetCommState(port_, dcb));
        // A time-out of 0 first, as its builder has it before its user gives one.
        for (const DWORD timeout : {0u, 500u})
            Must("SetCommTimeouts", SetCommTimeouts(port_, {MAXDWORD, MAXDWORD, timeout, 0, timeout}));
        if (!FlushFileBuffers(port_))
            session_.Notice("`flush` fails: " + Failure{"FlushFileBuffers", GetLastError()}.Text());
    }

    void Run() override
    {
        std::array<char, 1000> buffer{};
        while (!session_.Stopping()) {
            DWORD length = 0;
            Must("ReadFile", ReadFile(port_, buffer.data(), buffer.size(), &length, nullptr));
            session_.Receive(buffer.data(), length); // 0: ErrorKind::TimedOut, and its user reads again
        }
    }

    void Close() override { CloseHandle(port_); }
};

} // namespace

std::unique_ptr<Library> MakeSerialportRs(Session& session)
{
    return std::make_unique<SerialportRs>(session);
}

} // namespace personalities
