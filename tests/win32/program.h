// A program on the port, as scenarios drive it: the same one on Windows' own API under Wine and on the user-mode
// kernel. What differs between the two is in the virtual routines.
#pragma once

#ifdef _WIN32
#include "tests/windows/kernel32.h"
#else
#include "tests/win32/comm.h"
#endif

#include <array>
#include <string>
#include <string_view>

namespace win32 {

// What a call gives. `result` is an NTSTATUS where the call is one of the system below kernel32, else the error.
struct Outcome {
    DWORD result = 0;
    DWORD count = 0;
    std::string text;
};

inline constexpr DWORD kStillPending = 0x103;

// Ports and calls are named by small numbers. Every wait has a limit.
class Program {
  public:
    Program() = default;
    virtual ~Program() = default;
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    // Of a call that gives nothing else.
    static Outcome Of(bool succeeded, DWORD count = 0, std::string text = {});
    const Handle& operator[](unsigned port) const { return ports_[port]; }

    Outcome Open(unsigned port, bool overlapped);
    Outcome OpenEmpty(unsigned port); // overlapped, and behind the first sentence
    Outcome Close(unsigned port);

    Outcome State(unsigned port) const;
    // 8 data bits, no parity, one stop bit.
    Outcome SetState(unsigned port, DWORD baud_rate, WORD xon_limit, DWORD dtr_control) const;
    Outcome Timeouts(unsigned port) const;
    Outcome SetTimeouts(unsigned port, DWORD interval, DWORD multiplier, DWORD constant) const;
    Outcome Mask(unsigned port) const;
    Outcome Properties(unsigned port) const;
    Outcome Queue(unsigned port) const; // count: bytes received and not read; text: errors
    // Queue, when so many bytes are in it.
    Outcome AwaitQueue(unsigned port, DWORD bytes);
    Outcome ModemStatus(unsigned port) const;
    Outcome Write(unsigned port, std::string_view text) const;
    // NTSTATUS; text: what came back, in hexadecimal.
    Outcome Control(unsigned port, DWORD code, std::string_view input, DWORD room);

    Outcome Read(unsigned port, DWORD length) const; // synchronous
    Outcome StartRead(unsigned call, unsigned port, DWORD length);
    Outcome StartWait(unsigned call, unsigned port);
    // NTSTATUS, kStillPending when the call does not end. The text of a wait is its events in hexadecimal.
    Outcome End(unsigned call);
    Outcome Look(unsigned call);  // the same after a moment
    Outcome Error(unsigned call); // of a call that has ended
    Outcome CancelOne(unsigned port, unsigned call);

    // Since the last StartRead or Feed, up to the end of the last call that was waited for; ms.
    double Took() const { return took_; }

    // For the module to send.
    Outcome Feed(std::string_view text);
    virtual Outcome Unplug() = 0;
    // What the system asks of the device, NTSTATUS.
    virtual Outcome Stop() = 0; // query, then stop
    virtual Outcome Start() = 0;
    virtual Outcome Sleep() = 0; // S3
    virtual Outcome Wake() = 0;  // returns when sentences flow again
    virtual double Now() = 0;    // ms
    virtual void Pause(DWORD milliseconds) = 0;
    virtual DWORD Slack() const = 0; // ms by which a call may be late

  protected:
    virtual void Send(std::string_view text) = 0;
    virtual Outcome SendControl(const Handle& port, DWORD code, std::string_view input,
                                std::string& output) = 0;

  private:
    struct Call {
        unsigned port = 0;
        bool wait = false;
        DWORD events = 0;
        std::array<char, 64> buffer{};
        Overlapped overlapped;
    };
    Outcome EndWithin(Call& call, DWORD milliseconds);

    std::array<Handle, 3> ports_;
    std::array<Call, 4> calls_;
    double since_ = 0;
    double took_ = 0;
};

} // namespace win32
