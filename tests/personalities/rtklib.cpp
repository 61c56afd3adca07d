// RTKLIB: an input stream, opened for reading only and asked for data in every cycle.
#include "tests/personalities/libraries.h"

#include "ke/kernel.h"

#include <array>

namespace personalities {
namespace {

constexpr host::Time kCycle = 10 * host::kMillisecond;

class Rtklib : public Library {
  public:
    using Library::Library;

    void Open() override
    {
        CreatePort(kPrefix, GENERIC_READ_ACCESS, 0);
        COMMCONFIG config{};
        DWORD size = sizeof(config);
        Must("GetCommConfig", GetCommConfig(port_, &config, &size));
        SetLine(config.dcb, 9'600);
        config.dcb.fDtrControl = DTR_CONTROL_ENABLE;
        config.dcb.fRtsControl = RTS_CONTROL_ENABLE;
        May("SetCommConfig", SetCommConfig(port_, config));
        May("SetCommTimeouts", SetCommTimeouts(port_, {MAXDWORD, 0, 0, 0, 0}));
        May("ClearCommError", ClearCommError(port_, nullptr, nullptr));
        May("PurgeComm", PurgeComm(port_, PURGE_ALL));
        session_.InputPurged();
    }

    void Run() override
    {
        std::array<char, 1024> buffer{};
        while (!session_.Stopping()) {
            DWORD length = 0;
            if (ReadFile(port_, buffer.data(), buffer.size(), &length,
                         nullptr)) // a failure counts as no data
                session_.Receive(buffer.data(), length);
            host::Kernel::Current().RunFor(kCycle);
        }
    }

    void Close() override { CloseHandle(port_); }
};

} // namespace

std::unique_ptr<Library> MakeRtklib(Session& session)
{
    return std::make_unique<Rtklib>(session);
}

} // namespace personalities
