// The libraries that wait for events of the port.
#include "tests/personalities/libraries.h"

#include "ke/kernel.h"

#include <algorithm>

namespace personalities {
namespace {

// A thread waits for events all the time, reads are asynchronous.
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
        constexpr DWORD kBaudRate = 230'400; // more than the value of the flag for 115200 baud
        constexpr DWORD kInfiniteConstant = static_cast<DWORD>(-2);
        constexpr DWORD kAllEvents = 0x1FB; // all but TXEMPTY
        CreatePort(kPrefix, kReadWrite, FILE_FLAG_OVERLAPPED);
        Must("GetFileType", GetFileType(port_) == FILE_TYPE_CHAR);
        COMMPROP properties{};
        Must("GetCommProperties", GetCommProperties(port_, &properties));
        DWORD pins = 0;
        Must("GetCommModemStatus", GetCommModemStatus(port_, &pins));
        Must("GetCommProperties", properties.MaxBaud == 0 || kBaudRate <= properties.MaxBaud);
        const auto limit = static_cast<WORD>(properties.CurrentRxQueue / 4);
        DCB dcb = Configure(kBaudRate, [&](DCB& d) {
            d.fDtrControl = DTR_CONTROL_DISABLE;
            SetFlow(d, limit, limit);
            d.EofChar = d.EvtChar = 0x1A;
        });
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

    void Run() override { ReadUntilStopped(4096); }

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
    void EventLoop()
    {
        constexpr unsigned kSpin = 1'000; // failures in a row, without a pause
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
    host::ThreadHandle event_thread_;
};

// Waits for RXCHAR, then reads until nothing is left. Its user asks for the pins once.
class Qt : public Library {
  public:
    using Library::Library;

    void Open() override
    {
        CreatePort(kPrefix, kReadWrite, FILE_FLAG_OVERLAPPED);
        Configure(9'600, [this](DCB& d) {
            restored_dcb_ = d;
            SetLines(d, DTR_CONTROL_ENABLE, RTS_CONTROL_ENABLE);
        });
        Must("GetCommTimeouts", GetCommTimeouts(port_, &restored_timeouts_));
        Must("SetCommTimeouts", SetCommTimeouts(port_, {MAXDWORD, 0, 0, 0, 0}));
        Must("SetCommMask", SetCommMask(port_, EV_RXCHAR));
        StartWait();
        PinoutSignals();
    }

    void Run() override
    {
        while (MustFinish("WaitCommEvent", wait_)) {
            // Once more when the buffer was filled: there may be more.
            while (ReadOnce("ReadFile", kChunk) == kChunk || QueuedBytes() > 0) {
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
    static constexpr DWORD kChunk = 32'768;

    void PinoutSignals()
    {
        DWORD pins = 0;
        Must("GetCommModemStatus", GetCommModemStatus(port_, &pins));
        DWORD lines = 0;
        Must("DeviceIoControl(GET_DTRRTS)", Getter<DWORD>{IOCTL_SERIAL_GET_DTRRTS}(port_, &lines));
        if ((lines & (SERIAL_DTR_STATE | SERIAL_RTS_STATE)) == 0)
            session_.Notice("`pinoutSignals` says that DTR and RTS are off after they were switched on");
    }

    DCB restored_dcb_{};
    COMMTIMEOUTS restored_timeouts_{};
};

// A wait is under way before the port is configured, and beside every read.
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
        Flush("sp_drain"); // before anything was written
    }

    // sp_blocking_read_next, again and again.
    void Run() override
    {
        constexpr DWORD kTimeout = 1'000; // ms
        for (bool first = true; !session_.Stopping(); first = false) {
            if (first)
                Must("SetCommTimeouts", SetCommTimeouts(port_, {MAXDWORD, MAXDWORD, kTimeout, 0, 0}));
            if (ReadOnce("GetOverlappedResult", 1024) != 0 && QueuedBytes() == 0)
                RestartWait();
        }
    }

  private:
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

    bool waiting_ = false;
};

// Sets the mask anew before every wait.
class Chromium : public Library {
  public:
    using Library::Library;

    void Open() override
    {
        CreatePort(kPrefix, kReadWrite, FILE_FLAG_OVERLAPPED);
        Must("SetCommTimeouts", SetCommTimeouts(port_, {MAXDWORD, 0, 0, 0, 0}));
        Configure(9'600, [](DCB& d) { SetLines(d, DTR_CONTROL_ENABLE, RTS_CONTROL_ENABLE); });
    }

    void Run() override
    {
        for (;;) {
            May("SetCommMask", SetCommMask(port_, EV_RXCHAR));
            StartWait();
            if (!session_.Await(wait_))
                return;
            (void)QueuedBytes(); // for its errors; a wait that failed is judged by this
            ReadOnce("ReadFile", 4096);
        }
    }

    void Close() override
    {
        (void)CancelIo(port_);
        CloseHandle(port_);
    }
};

// With a listener for data: waits for an event, then reads what there is.
class JSerialComm : public Library {
  public:
    using Library::Library;

    void Open() override
    {
        CreatePort(kPrefix, kReadWrite, FILE_FLAG_OVERLAPPED);
        Must("SetupComm", SetupComm(port_, 4096, 4096));
        Configure(9'600, [](DCB& d) {
            SetLines(d, DTR_CONTROL_ENABLE, RTS_CONTROL_ENABLE);
            SetFlow(d, 2048, 512);
        });
        Must("SetCommTimeouts", SetCommTimeouts(port_, {MAXDWORD, 0, 0, 0, 0}));
        Must("SetCommMask", SetCommMask(port_, EV_ERR | EV_RXCHAR));
    }

    void Run() override
    {
        for (;;) {
            StartWait();
            if (!MustFinish("WaitCommEvent", wait_))
                return;
            ReadOnce("ReadFile", std::min<DWORD>(QueuedBytes(), 4096));
        }
    }

    void Close() override
    {
        May("PurgeComm", PurgeComm(port_, PURGE_ALL));
        (void)CancelIoEx(port_);
        May("SetCommMask", SetCommMask(port_, 0));
        CloseHandle(port_);
    }
};

} // namespace

std::vector<Personality> LibrariesThatWait()
{
    return {{".NET SerialPort", Make<DotNet>},
            {"Qt QSerialPort", Make<Qt>},
            {"libserialport", Make<Libserialport>},
            {"Chromium Web Serial", Make<Chromium>},
            {"jSerialComm", Make<JSerialComm>}};
}

} // namespace personalities
