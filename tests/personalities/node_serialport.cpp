// node-serialport: waits for one byte, then takes what there is behind it.
#include "tests/personalities/libraries.h"

#include <array>

namespace personalities {
namespace {

class NodeSerialport : public Library {
  public:
    using Library::Library;

    void Open() override
    {
        CreatePort(kPrefix, kReadWrite, FILE_FLAG_OVERLAPPED);
        DCB dcb{};
        Must("GetCommState", GetCommState(port_, &dcb));
        SetLine(dcb, 9'600);
        dcb.fDtrControl = DTR_CONTROL_ENABLE;
        dcb.fRtsControl = RTS_CONTROL_ENABLE;
        Must("SetCommState", SetCommState(port_, dcb));
        Must("SetCommTimeouts", SetCommTimeouts(port_, {}));
        May("PurgeComm", PurgeComm(port_, PURGE_RXCLEAR));
        May("PurgeComm", PurgeComm(port_, PURGE_TXCLEAR));
        session_.InputPurged();
        Drain();
    }

    void Run() override
    {
        while (!session_.Stopping()) {
            Must("SetCommTimeouts", SetCommTimeouts(port_, {}));
            MustStart("ReadFileEx", ReadFile(port_, buffer_.data(), 1, nullptr, &read_));
            Flush();
            const std::optional<DWORD> first = MustFinish("ReadFileEx", read_);
            if (!first)
                return;
            session_.Receive(buffer_.data(), *first);
            Must("SetCommTimeouts", SetCommTimeouts(port_, {MAXDWORD, 0, 0, 0, 0}));
            MustStart("ReadFile", ReadFile(port_, buffer_.data(), buffer_.size(), nullptr, &read_));
            if (const std::optional<DWORD> rest = MustFinish("ReadFile", read_))
                session_.Receive(buffer_.data(), *rest);
        }
    }

    void Close() override
    {
        (void)CancelIoEx(port_);
        CloseHandle(port_);
    }

  private:
    void Drain()
    {
        if (!FlushFileBuffers(port_))
            session_.Notice("`drain` fails: " + Failure{"FlushFileBuffers", GetLastError()}.Text());
    }

    // flush() of its user, once, while a read is under way.
    void Flush()
    {
        if (!flushed_)
            May("PurgeComm", PurgeComm(port_, PURGE_RXCLEAR | PURGE_TXCLEAR));
        flushed_ = true;
    }

    bool flushed_ = false;
    Overlapped read_;
    std::array<char, 65'536> buffer_{};
};

} // namespace

std::unique_ptr<Library> MakeNodeSerialport(Session& session)
{
    return std::make_unique<NodeSerialport>(session);
}

} // namespace personalities
