#include "tests/win32/program.h"

#include <cstdio>
#include <cstring>

namespace win32 {
namespace {

constexpr DWORD kEnds = 5000;           // ms, for a call that must
constexpr DWORD kMoment = 60;           // ms
constexpr DWORD kFailures = 0x80000000; // statuses

template <class... Values>
std::string Format(const char* format, Values... values)
{
    char text[200];
    std::snprintf(text, sizeof(text), format, values...);
    return text;
}

std::string Hexadecimal(std::string_view bytes)
{
    std::string text;
    for (const char c : bytes)
        text += Format("%02x", static_cast<unsigned char>(c));
    return text;
}

// 32-bit values of a structure.
template <class T>
std::string Words(const T& value)
{
    std::array<DWORD, sizeof(T) / sizeof(DWORD)> words;
    std::memcpy(words.data(), &value, sizeof(words));
    std::string text;
    for (const DWORD word : words)
        text += (text.empty() ? "" : " ") + Format("%lx", static_cast<unsigned long>(word));
    return text;
}

} // namespace

Outcome Program::Of(bool succeeded, DWORD count, std::string text)
{
    return {succeeded ? 0 : GetLastError(), count, std::move(text)};
}

Outcome Program::Open(unsigned port, bool overlapped)
{
    ports_[port] = CreateFile("COM5", GENERIC_READ_ACCESS | GENERIC_WRITE_ACCESS, 0,
                              overlapped ? FILE_FLAG_OVERLAPPED : 0);
    return Of(static_cast<bool>(ports_[port]));
}

Outcome Program::OpenEmpty(unsigned port)
{
    Outcome opened = Open(port, true);
    if (opened.result != 0)
        return opened;
    StartRead(0, port, 32);
    return End(0);
}

Outcome Program::Close(unsigned port)
{
    return Of(CloseHandle(ports_[port]));
}

Outcome Program::State(unsigned port) const
{
    DCB dcb{};
    const bool good = GetCommState(ports_[port], &dcb);
    return Of(good, dcb.BaudRate,
              Format("%d%c%d dtr %d rts %d limits %d %d characters %d %d %d %d %d", dcb.ByteSize,
                     "NOEMS"[dcb.Parity % 5], dcb.StopBits, dcb.fDtrControl, dcb.fRtsControl, dcb.XonLim,
                     dcb.XoffLim, dcb.XonChar, dcb.XoffChar, dcb.ErrorChar, dcb.EofChar, dcb.EvtChar));
}

Outcome Program::SetState(unsigned port, DWORD baud_rate, WORD xon_limit, DWORD dtr_control) const
{
    DCB dcb{};
    if (!GetCommState(ports_[port], &dcb))
        return Of(false);
    dcb.BaudRate = baud_rate;
    dcb.ByteSize = 8;
    dcb.Parity = 0;
    dcb.StopBits = 0;
    dcb.XonLim = xon_limit;
    dcb.XonChar = 0x11;
    dcb.XoffChar = 0x13;
    dcb.fDtrControl = dtr_control;
    return Of(SetCommState(ports_[port], dcb));
}

Outcome Program::Timeouts(unsigned port) const
{
    COMMTIMEOUTS timeouts{};
    const bool good = GetCommTimeouts(ports_[port], &timeouts);
    return Of(good, 0, Words(timeouts));
}

Outcome Program::SetTimeouts(unsigned port, DWORD interval, DWORD multiplier, DWORD constant) const
{
    return Of(SetCommTimeouts(ports_[port], {interval, multiplier, constant, 7, 8}));
}

Outcome Program::Mask(unsigned port) const
{
    DWORD mask = 0;
    const bool good = GetCommMask(ports_[port], &mask);
    return Of(good, mask);
}

Outcome Program::Properties(unsigned port) const
{
    COMMPROP properties{};
    const bool good = GetCommProperties(ports_[port], &properties);
    return Of(good, 0, Words(properties));
}

Outcome Program::Queue(unsigned port) const
{
    DWORD errors = 0;
    COMSTAT status{};
    const bool good = ClearCommError(ports_[port], &errors, &status);
    return Of(good, status.cbInQue, Words(errors) + ", " + Words(status.cbOutQue));
}

Outcome Program::AwaitQueue(unsigned port, DWORD bytes)
{
    const double end = Now() + kEnds;
    Outcome outcome = Queue(port);
    for (; outcome.result == 0 && outcome.count < bytes && Now() < end; outcome = Queue(port))
        Pause(1);
    return outcome;
}

Outcome Program::ModemStatus(unsigned port) const
{
    DWORD status = 0x1234;
    const bool good = GetCommModemStatus(ports_[port], &status);
    return Of(good, status);
}

Outcome Program::Write(unsigned port, std::string_view text) const
{
    DWORD written = 0;
    const bool good =
        WriteFile(ports_[port], text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
    return Of(good, written);
}

Outcome Program::Control(unsigned port, DWORD code, std::string_view input, DWORD room)
{
    std::string output(room, '\0');
    Outcome outcome = SendControl(ports_[port], code, input, output);
    if (outcome.result == 0)
        outcome.text = Hexadecimal(std::string_view(output).substr(0, outcome.count));
    return outcome;
}

Outcome Program::Read(unsigned port, DWORD length) const
{
    std::string text(length, '\0');
    DWORD read = 0;
    const bool good = ReadFile(ports_[port], text.data(), length, &read, nullptr);
    return Of(good, read, text.substr(0, read));
}

Outcome Program::StartRead(unsigned call, unsigned port, DWORD length)
{
    Call& c = calls_[call];
    c.port = port;
    c.wait = false;
    since_ = Now();
    return Of(ReadFile(ports_[port], c.buffer.data(), length, nullptr, &c.overlapped));
}

Outcome Program::StartWait(unsigned call, unsigned port)
{
    Call& c = calls_[call];
    c.port = port;
    c.wait = true;
    c.events = 0x1234;
    return Of(WaitCommEvent(ports_[port], &c.events, &c.overlapped));
}

Outcome Program::EndWithin(Call& call, DWORD milliseconds)
{
    if (WaitForSingleObject(call.overlapped, milliseconds) != WAIT_OBJECT_0)
        return {kStillPending, 0, {}};
    took_ = Now() - since_;
    DWORD moved = 0;
    GetOverlappedResult(ports_[call.port], call.overlapped, &moved, true);
    Outcome outcome{StatusOf(call.overlapped), moved, {}};
    if (outcome.result < kFailures)
        outcome.text = call.wait ? Format("%lx", static_cast<unsigned long>(call.events))
                                 : std::string(call.buffer.data(), moved);
    return outcome;
}

Outcome Program::End(unsigned call)
{
    return EndWithin(calls_[call], kEnds);
}

Outcome Program::Look(unsigned call)
{
    return EndWithin(calls_[call], kMoment);
}

Outcome Program::Error(unsigned call)
{
    Call& c = calls_[call];
    DWORD moved = 0;
    return Of(GetOverlappedResult(ports_[c.port], c.overlapped, &moved, false));
}

Outcome Program::Feed(std::string_view text)
{
    since_ = Now();
    Send(text);
    return {};
}

Outcome Program::CancelOne(unsigned port, unsigned call)
{
    return Of(CancelIoEx(ports_[port], calls_[call].overlapped));
}

} // namespace win32
