// .NET SerialPort: a thread waits for events all the time, reads are asynchronous.
#include "tests/personalities/libraries.h"

#include "ke/kernel.h"

#include <array>

namespace personalities {
namespace {

constexpr DWORD kInfiniteConstant = static_cast<DWORD>(-2);
constexpr DWORD kAllEvents = 0x1FB; // all but TXEMPTY
constexpr char kEndOfFile = 0x1A;
constexpr unsigned kSpin = 1'000; // failures in a row, without a pause

class DotNet : public Library {
  public:
    using Library::Library;
    ~DotNet() override
    {
        end_event_loop_ = true;
        // Ends the wait where SetCommMask was refused, as the end of the handle does.
        while (event_thread_.Joinable() && !event_thread_.Done()) {
            (void)CancelIoEx(port_);
            host::Kernel::Current().RunFor(10 * host::kMillisecond);
        }
    }

    void Open() override
    {
        CreatePort(kPrefix, kReadWrite, FILE_FLAG_OVERLAPPED);
        Must("GetFileType", GetFileType(port_) == FILE_TYPE_CHAR);
        COMMPROP properties{};
        Must("GetCommProperties", GetCommProperties(port_, &properties));
        DWORD pins = 0;
        Must("GetCommModemStatus", GetCommModemStatus(port_, &pins));
        Must("GetCommProperties", properties.MaxBaud == 0 || kBaudRate <= properties.MaxBaud);

        DCB dcb{};
        Must("GetCommState", GetCommState(port_, &dcb));
        SetLine(dcb, kBaudRate);
        dcb.fDtrControl = DTR_CONTROL_DISABLE;
        dcb.XonChar = 0x11;
        dcb.XoffChar = 0x13;
        dcb.XonLim = dcb.XoffLim = static_cast<WORD>(properties.CurrentRxQueue / 4);
        dcb.EofChar = dcb.EvtChar = kEndOfFile;
        Must("SetCommState", SetCommState(port_, dcb));
        dcb.fDtrControl = DTR_CONTROL_ENABLE;
        Must("SetCommState", SetCommState(port_, dcb));
        Must("EscapeCommFunction(SETDTR)", EscapeCommFunction(port_, Escape::SETDTR));
        dcb.fRtsControl = RTS_CONTROL_ENABLE;
        Must("SetCommState", SetCommState(port_, dcb));
        Must("EscapeCommFunction(SETRTS)", EscapeCommFunction(port_, Escape::SETRTS));
        Must("SetCommTimeouts", SetCommTimeouts(port_, {MAXDWORD, MAXDWORD, kInfiniteConstant, 0, 0}));
        May("SetCommMask", SetCommMask(port_, kAllEvents));
        event_thread_ = host::Kernel::Current().Spawn("events", [this] {
            EventLoop();
            host::nt::CancelThreadIo();
        });
    }

    void Run() override
    {
        std::array<char, 4096> buffer{};
        while (!session_.Stopping()) {
            MustStart("ReadFile", ReadFile(port_, buffer.data(), buffer.size(), nullptr, &read_));
            if (const std::optional<DWORD> length = MustFinish("ReadFile", read_))
                session_.Receive(buffer.data(), *length);
        }
    }

    void Close() override
    {
        end_event_loop_ = true;
        (void)SetCommMask(port_, 0);
        Must("EscapeCommFunction(CLRDTR)", EscapeCommFunction(port_, Escape::CLRDTR));
        May("FlushFileBuffers", FlushFileBuffers(port_));
        Must("PurgeComm", PurgeComm(port_, PURGE_RXCLEAR | PURGE_RXABORT));
        Must("PurgeComm", PurgeComm(port_, PURGE_TXCLEAR | PURGE_TXABORT));
        event_thread_.Join();
        CloseHandle(port_);
    }

  private:
    static constexpr DWORD kBaudRate = 230'400; // more than the value of the flag for 115200 baud

    void EventLoop()
    {
        for (unsigned failures = 0; !end_event_loop_;) {
            DWORD events = 0;
            Overlapped wait;
            DWORD error = ERROR_SUCCESS;
            if (!WaitCommEvent(port_, &events, &wait))
                error = GetLastError();
            if (error == ERROR_ACCESS_DENIED || error == ERROR_BAD_COMMAND || error == ERROR_DEVICE_REMOVED)
                return;
            if (error == ERROR_IO_PENDING) {
                DWORD length = 0;
                (void)GetOverlappedResult(port_, wait, &length, true);
            } else if (error != ERROR_SUCCESS && ++failures == kSpin) {
                return session_.Notice("the event thread spins: " + Failure{"WaitCommEvent", error}.Text());
            }
            if (!end_event_loop_ && (events & (EV_RXCHAR | EV_ERR)) != 0 &&
                !ClearCommError(port_, nullptr, nullptr))
                return;
        }
    }

    std::atomic<bool> end_event_loop_ = false;
    Overlapped read_;
    host::ThreadHandle event_thread_;
};

} // namespace

std::unique_ptr<Library> MakeDotNet(Session& session)
{
    return std::make_unique<DotNet>(session);
}

} // namespace personalities
