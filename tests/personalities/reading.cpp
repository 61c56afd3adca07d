// The libraries that just read.
#include "tests/personalities/libraries.h"

#include "ke/kernel.h"

#include <algorithm>

namespace personalities {
namespace {

// With its own reader loop: read(in_waiting or 1), a time-out of one second.
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
        SetLines(dcb, DTR_CONTROL_ENABLE, RTS_CONTROL_ENABLE);
        SetFlow(dcb, dcb.XonLim, dcb.XoffLim);
        Must("SetCommState", SetCommState(port_, dcb));
        May("PurgeComm", PurgeComm(port_, PURGE_ALL));
        session_.InputPurged();
    }

    void Run() override
    {
        while (!session_.Stopping()) {
            const DWORD length = std::clamp<DWORD>(QueuedBytes(), 1, 4096);
            (void)QueuedBytes(); // each read begins with it
            MustStart("ReadFile", ReadFile(port_, buffer_.data(), length, nullptr, &read_));
            DWORD read = 0;
            const bool finished = GetOverlappedResult(port_, read_, &read, true);
            Must("GetOverlappedResult", finished || GetLastError() == ERROR_OPERATION_ABORTED);
            session_.Receive(buffer_.data(), read);
        }
    }

    void Close() override
    {
        (void)SetCommTimeouts(port_, original_);
        (void)CancelIoEx(port_);
        CloseHandle(port_);
    }

  private:
    COMMTIMEOUTS original_{};
};

// Waits for one byte, then takes what there is behind it.
class NodeSerialport : public Library {
  public:
    using Library::Library;

    void Open() override
    {
        CreatePort(kPrefix, kReadWrite, FILE_FLAG_OVERLAPPED);
        Configure(9'600, [](DCB& d) { SetLines(d, DTR_CONTROL_ENABLE, RTS_CONTROL_ENABLE); });
        Must("SetCommTimeouts", SetCommTimeouts(port_, {}));
        May("PurgeComm", PurgeComm(port_, PURGE_RXCLEAR));
        May("PurgeComm", PurgeComm(port_, PURGE_TXCLEAR));
        session_.InputPurged();
        Flush("drain");
    }

    void Run() override
    {
        for (bool first = true; !session_.Stopping(); first = false) {
            Must("SetCommTimeouts", SetCommTimeouts(port_, {}));
            MustStart("ReadFileEx", ReadFile(port_, buffer_.data(), 1, nullptr, &read_));
            if (first) // flush() of its user, while a read is under way
                May("PurgeComm", PurgeComm(port_, PURGE_RXCLEAR | PURGE_TXCLEAR));
            const std::optional<DWORD> byte = MustFinish("ReadFileEx", read_);
            if (!byte)
                return;
            session_.Receive(buffer_.data(), *byte);
            Must("SetCommTimeouts", SetCommTimeouts(port_, {MAXDWORD, 0, 0, 0, 0}));
            MustStart("ReadFile", ReadFile(port_, buffer_.data(), 65'536, nullptr, &read_));
            if (const std::optional<DWORD> rest = MustFinish("ReadFile", read_))
                session_.Receive(buffer_.data(), *rest);
        }
    }

    void Close() override
    {
        (void)CancelIoEx(port_);
        CloseHandle(port_);
    }
};

// A read of up to 4096 bytes ends one millisecond after the last byte.
class Putty : public Library {
  public:
    using Library::Library;

    void Open() override
    {
        CreatePort(kPrefix, kReadWrite, FILE_FLAG_OVERLAPPED);
        DCB dcb{};
        if (!GetCommState(port_, &dcb)) // a device that is no serial port is welcome, too
            return session_.Notice(Failure{"GetCommState", GetLastError()}.Text());
        SetLine(dcb, 9'600);
        SetLines(dcb, DTR_CONTROL_ENABLE, RTS_CONTROL_ENABLE);
        dcb.fTXContinueOnXoff = 0;
        Must("SetCommState", SetCommState(port_, dcb));
        Must("SetCommTimeouts", SetCommTimeouts(port_, {1, 0, 0, 0, 0}));
    }

    void Run() override
    {
        ReadUntilStopped(4096);
        (void)CancelIo(port_); // the buffer goes
    }
};

// As the releases that open a port with 0 baud; its user then sets the rate.
class BoostAsio : public Library {
  public:
    using Library::Library;

    void Open() override
    {
        CreatePort(kPrefix, kReadWrite, FILE_FLAG_OVERLAPPED);
        Configure(0);
        Must("SetCommTimeouts", SetCommTimeouts(port_, {1, 0, 0, 0, 0}));
        Configure(9'600); // set_option
    }

    void Run() override
    {
        ReadUntilStopped(512);
        (void)CancelIoEx(port_); // cancel()
    }
};

// A read that brings nothing makes it ask whether the port is still alive.
class GoSerial : public Library {
  public:
    explicit GoSerial(Session& session, WORD xon_limit = 2048, WORD xoff_limit = 512)
        : Library(session), xon_limit_(xon_limit), xoff_limit_(xoff_limit)
    {}

    void Open() override
    {
        CreatePort(kPrefix, kReadWrite, FILE_FLAG_OVERLAPPED);
        Configure(9'600);
        Configure(9'600, [this](DCB& d) {
            SetLines(d, DTR_CONTROL_ENABLE, RTS_CONTROL_ENABLE);
            SetFlow(d, xon_limit_, xoff_limit_);
        });
        Must("SetCommTimeouts", SetCommTimeouts(port_, {MAXDWORD, MAXDWORD, 1'000, 0, 0}));
    }

    void Run() override
    {
        while (!session_.Stopping()) {
            if (ReadOnce("GetOverlappedResult", 1024) != 0)
                continue;
            DCB dcb{};
            Must("GetCommState", GetCommState(port_, &dcb));
            Must("SetCommState", SetCommState(port_, dcb));
        }
    }

  private:
    const WORD xon_limit_, xoff_limit_;
};

// A synchronous handle, reads with a total time-out.
class SerialportRs : public Library {
  public:
    using Library::Library;

    void Open() override
    {
        CreatePort(kPrefix, kReadWrite, 0);
        Configure(9'600, [](DCB& d) {
            SetLines(d, DTR_CONTROL_DISABLE, RTS_CONTROL_DISABLE);
            SetFlow(d, d.XonLim, d.XoffLim);
            d.EofChar = 0x1A;
        });
        // A time-out of 0 first, as its builder has it before its user gives one.
        for (const DWORD timeout : {0u, 500u})
            Must("SetCommTimeouts", SetCommTimeouts(port_, {MAXDWORD, MAXDWORD, timeout, 0, timeout}));
        Flush("flush");
    }

    void Run() override
    {
        while (!session_.Stopping())
            Must("ReadFile", ReadNow(1000)); // 0 bytes: ErrorKind::TimedOut, and its user reads again
    }
};

// An input stream, opened for reading only and asked for data in every cycle.
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
        SetLines(config.dcb, DTR_CONTROL_ENABLE, RTS_CONTROL_ENABLE);
        May("SetCommConfig", SetCommConfig(port_, config));
        May("SetCommTimeouts", SetCommTimeouts(port_, {MAXDWORD, 0, 0, 0, 0}));
        May("ClearCommError", ClearCommError(port_, nullptr, nullptr));
        May("PurgeComm", PurgeComm(port_, PURGE_ALL));
        session_.InputPurged();
    }

    void Run() override
    {
        while (!session_.Stopping()) {
            (void)ReadNow(1024); // a failure counts as no data
            host::Kernel::Current().RunFor(10 * host::kMillisecond);
        }
    }
};

// A synchronous handle, reads of what is available or of one byte.
class Wjwwood : public Library {
  public:
    using Library::Library;

    void Open() override
    {
        CreatePort(kPrefix, kReadWrite, 0);
        Configure(9'600, [](DCB& d) { d.fRtsControl = RTS_CONTROL_DISABLE; });
        Must("SetCommTimeouts", SetCommTimeouts(port_, {MAXDWORD, 0, 1'000, 0, 1'000}));
    }

    void Run() override
    {
        while (!session_.Stopping())
            Must("ReadFile", ReadNow(std::clamp<DWORD>(QueuedBytes(), 1, 4096)));
    }
};

std::unique_ptr<Library> MakeGoSerialWithoutLimits(Session& session)
{
    return std::make_unique<GoSerial>(session, WORD{0}, WORD{0});
}

} // namespace

std::vector<Personality> LibrariesThatRead()
{
    return {{"pyserial", Make<Pyserial>},
            {"node-serialport", Make<NodeSerialport>},
            {"PuTTY", Make<Putty>},
            {"Boost.Asio", Make<BoostAsio>},
            {"serialport-rs", Make<SerialportRs>},
            {"go.bug.st/serial", Make<GoSerial>},
            {kGoSerialWithoutLimits.data(), MakeGoSerialWithoutLimits},
            {"RTKLIB", Make<Rtklib>},
            {"wjwwood/serial", Make<Wjwwood>}};
}

} // namespace personalities
