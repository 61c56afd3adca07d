// wjwwood/serial: a synchronous handle, reads of what is available or of one byte.
#include "tests/personalities/libraries.h"

#include <algorithm>
#include <array>

namespace personalities {
namespace {

class Wjwwood : public Library {
  public:
    using Library::Library;

    void Open() override
    {
        CreatePort(kPrefix, kReadWrite, 0);
        DCB dcb{};
        Must("GetCommState", GetCommState(port_, &dcb));
        SetLine(dcb, 9'600);
        dcb.fRtsControl = RTS_CONTROL_DISABLE;
        Must("SetCommState", SetCommState(port_, dcb));
        Must("SetCommTimeouts", SetCommTimeouts(port_, {MAXDWORD, 0, 1'000, 0, 1'000}));
    }

    void Run() override
    {
        std::array<char, 4096> buffer{};
        while (!session_.Stopping()) {
            const DWORD wanted = std::clamp<DWORD>(QueuedBytes(), 1, buffer.size());
            DWORD length = 0;
            Must("ReadFile", ReadFile(port_, buffer.data(), wanted, &length, nullptr));
            session_.Receive(buffer.data(), length);
        }
    }

    void Close() override { CloseHandle(port_); }
};

} // namespace

std::unique_ptr<Library> MakeWjwwood(Session& session)
{
    return std::make_unique<Wjwwood>(session);
}

} // namespace personalities
