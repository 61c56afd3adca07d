#include "windows/rig/program/rig_test.h"

namespace {

struct Nothing {};

constexpr unsigned kNothingBytes = 0;

template <class T>
DWORD SizeOf()
{
    return std::is_same_v<T, Nothing> ? kNothingBytes : sizeof(T);
}

} // namespace

HANDLE OpenPort(const std::string& name, DWORD flags)
{
    const HANDLE handle =
        CreateFileA(name.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, flags, nullptr);
    if (handle == INVALID_HANDLE_VALUE)
        return handle;
    OVERLAPPED overlapped{};
    DWORD moved = 0;
    if (DeviceIoControl(handle, RIG_OPEN_STATUS, nullptr, 0, nullptr, 0, &moved, &overlapped))
        return handle;
    const DWORD error = GetLastError();
    CloseHandle(handle);
    SetLastError(error);
    return INVALID_HANDLE_VALUE;
}

void Handle::Close()
{
    if (handle_ != nullptr && handle_ != INVALID_HANDLE_VALUE)
        CloseHandle(handle_);
    handle_ = nullptr;
}

Rig::Rig() : device_(Open())
{
    CHECK(device_ != INVALID_HANDLE_VALUE);
}

HANDLE Rig::Open()
{
    return CreateFileA("\\\\.\\NavoxRig", GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
}

bool Rig::IsThere()
{
    return Handle(Open()) != INVALID_HANDLE_VALUE;
}

template <class In, class Out>
bool Rig::Call(DWORD code, const In& in, Out* out)
{
    DWORD moved = 0;
    In copy = in;
    return DeviceIoControl(device_, code, &copy, SizeOf<In>(), out, SizeOf<Out>(), &moved, nullptr) != 0;
}

void Rig::Plug(const RigPlug& plug)
{
    CHECK(Call(RIG_PLUG, plug, static_cast<Nothing*>(nullptr)));
    WaitUntil("the device starts", [&] { return Counters(plug.port).started != 0; });
}

void Rig::Unplug(unsigned port)
{
    CHECK(Call(RIG_UNPLUG, RigPortRequest{port}, static_cast<Nothing*>(nullptr)));
}

void Rig::WaitGone(unsigned port)
{
    WaitUntil("the device is removed", [&] { return Counters(port).device == 0; });
}

void Rig::Release(unsigned port)
{
    CHECK(Call(RIG_RELEASE, RigPortRequest{port}, static_cast<Nothing*>(nullptr)));
}

void Rig::Feed(const std::string& text, unsigned port)
{
    RigFeed feed{};
    feed.port = port;
    feed.length = static_cast<unsigned>(text.size());
    CHECK(text.size() <= sizeof feed.text);
    text.copy(feed.text, text.size());
    CHECK(Call(RIG_FEED, feed, static_cast<Nothing*>(nullptr)));
}

RigCounters Rig::Counters(unsigned port)
{
    RigCounters counters{};
    CHECK(Call(RIG_COUNTERS, RigPortRequest{port}, &counters));
    return counters;
}

long Rig::SendPnp(unsigned char minor, unsigned port)
{
    RigIrpAnswer answer{};
    CHECK(Call(RIG_SEND_PNP, RigIrpRequest{port, minor, 0, 0}, &answer));
    return answer.status;
}

long Rig::SendPower(unsigned char minor, bool system, unsigned state, unsigned port)
{
    RigIrpAnswer answer{};
    CHECK(
        Call(RIG_SEND_POWER, RigIrpRequest{port, minor, static_cast<unsigned char>(system), state}, &answer));
    return answer.status;
}

RigWmiAnswer Rig::SendWmi(const RigWmiRequest& request)
{
    RigWmiAnswer answer{};
    CHECK(Call(RIG_SEND_WMI, request, &answer));
    return answer;
}

void Rig::SuspendIdle(unsigned port)
{
    CHECK(Call(RIG_SUSPEND_IDLE, RigPortRequest{port}, static_cast<Nothing*>(nullptr)));
}

std::vector<std::string> Rig::TakeFindings()
{
    std::vector<std::string> found;
    for (unsigned n = 0;; ++n) {
        RigFindingText finding{};
        CHECK(Call(RIG_FINDING, RigPortRequest{n}, &finding));
        if (finding.text[0] == '\0')
            break;
        found.emplace_back(finding.text);
    }
    CHECK(Call(RIG_FORGET_FINDINGS, Nothing{}, static_cast<Nothing*>(nullptr)));
    return found;
}

void Rig::Empty()
{
    for (unsigned port = 0; port < kRigPorts; ++port) {
        if (Counters(port).plugged != 0)
            Unplug(port);
        WaitGone(port);
    }
}

Port::Port(const std::string& name, DWORD flags) : handle_(OpenPort(name, flags))
{
    CHECK(handle_ != INVALID_HANDLE_VALUE);
}

void Port::SetTimeouts(DWORD interval, DWORD multiplier, DWORD constant)
{
    COMMTIMEOUTS timeouts{interval, multiplier, constant, 0, 0};
    CHECK(SetCommTimeouts(handle_, &timeouts));
}

std::string Port::Read(DWORD length)
{
    std::string data(length, '\0');
    DWORD moved = 0;
    CHECK(ReadFile(handle_, data.data(), length, &moved, nullptr));
    data.resize(moved);
    return data;
}

std::string Port::ReadAll(std::size_t length)
{
    SetTimeouts(MAXDWORD, MAXDWORD, kPatience);
    std::string data;
    while (data.size() < length) {
        const std::string more = Read(static_cast<DWORD>(length - data.size()));
        CHECK(!more.empty());
        data += more;
    }
    return data;
}

PendingRead::PendingRead(const Port& port, DWORD length)
    : port_(port.handle()), event_(CreateEventA(nullptr, TRUE, FALSE, nullptr)), buffer_(length, '\0')
{
    overlapped_.hEvent = event_;
    if (!ReadFile(port_, buffer_.data(), length, nullptr, &overlapped_) && GetLastError() != ERROR_IO_PENDING)
        error_ = GetLastError();
}

DWORD PendingRead::Wait()
{
    if (error_ != 0)
        return error_;
    CHECK_EQ(WaitForSingleObject(event_, kPatience), WAIT_OBJECT_0);
    return GetOverlappedResult(port_, &overlapped_, &moved_, FALSE) ? 0 : GetLastError();
}
