// go.bug.st/serial: a read that brings nothing makes it ask whether the port is still alive.
#include "tests/personalities/libraries.h"

#include <array>

namespace personalities {
namespace {

struct Limits {
    WORD xon;
    WORD xoff;
};

class GoSerial : public Library {
  public:
    GoSerial(Session& session, Limits limits) : Library(session), limits_(limits) {}

    void Open() override
    {
        CreatePort(kPrefix, kReadWrite, FILE_FLAG_OVERLAPPED);
        DCB dcb{};
        Must("GetCommState", GetCommState(port_, &dcb));
        SetLine(dcb, 9'600);
        Must("SetCommState", SetCommState(port_, dcb));
        Must("GetCommState", GetCommState(port_, &dcb));
        dcb.fDtrControl = DTR_CONTROL_ENABLE;
        dcb.fRtsControl = RTS_CONTROL_ENABLE;
        dcb.XonLim = limits_.xon;
        dcb.XoffLim = limits_.xoff;
        dcb.XonChar = 0x11;
        dcb.XoffChar = 0x13;
        Must("SetCommState", SetCommState(port_, dcb));
        Must("SetCommTimeouts", SetCommTimeouts(port_, {MAXDWORD, MAXDWORD, 1'000, 0, 0}));
    }

    void Run() override
    {
        std::array<char, 1024> buffer{};
        while (!session_.Stopping()) {
            MustStart("ReadFile", ReadFile(port_, buffer.data(), buffer.size(), nullptr, &read_));
            DWORD length = 0;
            Must("GetOverlappedResult", GetOverlappedResult(port_, read_, &length, true));
            session_.Receive(buffer.data(), length);
            if (length == 0)
                Probe();
        }
    }

    void Close() override { CloseHandle(port_); }

  private:
    void Probe()
    {
        DCB dcb{};
        Must("GetCommState", GetCommState(port_, &dcb));
        Must("SetCommState", SetCommState(port_, dcb));
    }

    const Limits limits_;
    Overlapped read_;
};

} // namespace

std::unique_ptr<Library> MakeGoSerial(Session& session)
{
    return std::make_unique<GoSerial>(session, Limits{2048, 512});
}

std::unique_ptr<Library> MakeGoSerialWithoutLimits(Session& session)
{
    return std::make_unique<GoSerial>(session, Limits{0, 0});
}

} // namespace personalities
