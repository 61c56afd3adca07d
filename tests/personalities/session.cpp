#include "tests/personalities/session.h"

#include <algorithm>

namespace personalities {
namespace {

constexpr DWORD kLook = 50; // ms, between looks at the user
constexpr std::string_view kEmptySentence = "$GPGGA,,,,,,0,";

} // namespace

bool Session::Await(const Overlapped& overlapped) const
{
    while (WaitForSingleObject(overlapped, kLook) == WAIT_TIMEOUT) {
        if (Stopping())
            return false;
    }
    return true;
}

void Session::Receive(const void* bytes, DWORD length)
{
    empty_reads += length == 0 ? 1 : 0;
    const bool told = received.size() >= kEmptySentence.size();
    received.append(static_cast<const char*>(bytes), length);
    if (purged_ && !told && received.starts_with(kEmptySentence))
        Notice("`PurgeComm` empties nothing: the empty first sentence is read all the same");
}

void Session::Notice(const std::string& what)
{
    if (std::ranges::find(notices, what) == notices.end())
        notices.push_back(what);
}

void Library::Must(const char* call, bool succeeded)
{
    if (!succeeded)
        throw CallFailed({call, GetLastError()});
}

void Library::May(const char* call, bool succeeded)
{
    if (!succeeded)
        session_.Notice(Failure{call, GetLastError()}.Text() + ", and it goes on");
}

void Library::CreatePort(std::string_view prefix, DWORD access, DWORD flags)
{
    port_ = CreateFile(std::string(prefix) + session_.port, access, 0, flags);
    Must("CreateFile", static_cast<bool>(port_));
}

void Library::MustStart(const char* call, bool succeeded)
{
    Must(call, succeeded || GetLastError() == ERROR_IO_PENDING);
}

std::optional<DWORD> Library::MustFinish(const char* call, Overlapped& overlapped)
{
    if (!session_.Await(overlapped))
        return {};
    DWORD length = 0;
    Must(call, GetOverlappedResult(port_, overlapped, &length, true));
    return length;
}

DWORD Library::QueuedBytes() const
{
    DWORD errors = 0;
    COMSTAT status{};
    Must("ClearCommError", ClearCommError(port_, &errors, &status));
    return status.cbInQue;
}

DCB Library::Configure(DWORD baud_rate, const std::function<void(DCB&)>& change)
{
    DCB dcb{};
    Must("GetCommState", GetCommState(port_, &dcb));
    SetLine(dcb, baud_rate);
    if (change)
        change(dcb);
    Must("SetCommState", SetCommState(port_, dcb));
    return dcb;
}

void Library::StartWait()
{
    MustStart("WaitCommEvent", WaitCommEvent(port_, &events_, &wait_));
}

DWORD Library::ReadOnce(const char* end, DWORD length)
{
    MustStart("ReadFile", ReadFile(port_, buffer_.data(), length, nullptr, &read_));
    DWORD read = 0;
    Must(end, GetOverlappedResult(port_, read_, &read, true));
    session_.Receive(buffer_.data(), read);
    return read;
}

void Library::ReadUntilStopped(DWORD length)
{
    while (!session_.Stopping()) {
        MustStart("ReadFile", ReadFile(port_, buffer_.data(), length, nullptr, &read_));
        if (const std::optional<DWORD> read = MustFinish("ReadFile", read_))
            session_.Receive(buffer_.data(), *read);
    }
}

bool Library::ReadNow(DWORD length)
{
    DWORD read = 0;
    if (!ReadFile(port_, buffer_.data(), length, &read, nullptr))
        return false;
    session_.Receive(buffer_.data(), read);
    return true;
}

void Library::Flush(const std::string& what)
{
    if (!FlushFileBuffers(port_))
        session_.Notice("`" + what + "` fails: " + Failure{"FlushFileBuffers", GetLastError()}.Text());
}

void SetLine(DCB& dcb, DWORD baud_rate)
{
    dcb.BaudRate = baud_rate;
    dcb.ByteSize = 8;
    dcb.Parity = NO_PARITY;
    dcb.StopBits = STOP_BIT_1;
    dcb.fBinary = 1;
    dcb.fParity = dcb.fErrorChar = dcb.fNull = dcb.fAbortOnError = 0;
    dcb.fOutxCtsFlow = dcb.fOutxDsrFlow = dcb.fDsrSensitivity = dcb.fOutX = dcb.fInX = 0;
}

void SetLines(DCB& dcb, DWORD dtr_control, DWORD rts_control)
{
    dcb.fDtrControl = dtr_control;
    dcb.fRtsControl = rts_control;
}

void SetFlow(DCB& dcb, WORD xon_limit, WORD xoff_limit)
{
    dcb.XonLim = xon_limit;
    dcb.XoffLim = xoff_limit;
    dcb.XonChar = 0x11;
    dcb.XoffChar = 0x13;
}

} // namespace personalities
