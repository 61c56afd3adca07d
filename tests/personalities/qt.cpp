// Qt QSerialPort: waits for RXCHAR, then reads until nothing is left. Its user asks for the pins once.
#include "tests/personalities/libraries.h"

#include <array>

namespace personalities {
namespace {

class Qt : public Library {
  public:
    using Library::Library;

    void Open() override
    {
        CreatePort(kPrefix, kReadWrite, FILE_FLAG_OVERLAPPED);
        Must("GetCommState", GetCommState(port_, &restored_dcb_));
        DCB dcb = restored_dcb_;
        SetLine(dcb, 9'600);
        dcb.fDtrControl = DTR_CONTROL_ENABLE;
        dcb.fRtsControl = RTS_CONTROL_ENABLE;
        Must("SetCommState", SetCommState(port_, dcb));
        Must("GetCommTimeouts", GetCommTimeouts(port_, &restored_timeouts_));
        Must("SetCommTimeouts", SetCommTimeouts(port_, {MAXDWORD, 0, 0, 0, 0}));
        Must("SetCommMask", SetCommMask(port_, EV_RXCHAR));
        StartWait();
        PinoutSignals();
    }

    void Run() override
    {
        while (MustFinish("WaitCommEvent", wait_)) {
            while (ReadOnce() || QueuedBytes() > 0) {
            }
            StartWait();
        }
    }

    void Close() override
    {
        (void)CancelIo(port_);
        (void)SetCommState(port_, restored_dcb_);
        (void)SetCommTimeouts(port_, restored_timeouts_);
        CloseHandle(port_);
    }

  private:
    void StartWait() { MustStart("WaitCommEvent", WaitCommEvent(port_, &events_, &wait_)); }

    // True when the buffer was filled: there may be more.
    bool ReadOnce()
    {
        MustStart("ReadFile", ReadFile(port_, chunk_.data(), chunk_.size(), nullptr, &read_));
        DWORD length = 0;
        Must("ReadFile", GetOverlappedResult(port_, read_, &length, true));
        session_.Receive(chunk_.data(), length);
        return length == chunk_.size();
    }

    void PinoutSignals()
    {
        DWORD pins = 0;
        Must("GetCommModemStatus", GetCommModemStatus(port_, &pins));
        DWORD lines = 0;
        Must("DeviceIoControl(GET_DTRRTS)", DeviceIoControl(port_, IOCTL_SERIAL_GET_DTRRTS, nullptr, 0,
                                                            &lines, sizeof(lines), nullptr, nullptr));
        if ((lines & (SERIAL_DTR_STATE | SERIAL_RTS_STATE)) == 0)
            session_.Notice("`pinoutSignals` says that DTR and RTS are off after they were switched on");
    }

    DCB restored_dcb_{};
    COMMTIMEOUTS restored_timeouts_{};
    DWORD events_ = 0;
    Overlapped wait_;
    Overlapped read_;
    std::array<char, 32'768> chunk_{};
};

} // namespace

std::unique_ptr<Library> MakeQt(Session& session)
{
    return std::make_unique<Qt>(session);
}

} // namespace personalities
