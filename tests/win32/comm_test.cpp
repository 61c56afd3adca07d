#include "tests/host_io/scripted_driver.h"
#include "tests/win32/comm.h"

#include <gtest/gtest.h>

#include <cstring>
#include <ntstatus.h>

using namespace win32;

namespace {

// A port that writes down the controls it gets. It answers with zeros, as long as asked for.
class Recorder {
  public:
    Recorder()
    {
        bench.OnRequest(IRP_MJ_DEVICE_CONTROL, [this](PDEVICE_OBJECT, PIRP irp) { return Answer(irp); });
        handle = CreateFile("\\\\.\\T", GENERIC_READ_ACCESS | GENERIC_WRITE_ACCESS, 0, 0);
        EXPECT_TRUE(handle);
    }

    std::vector<DWORD> Take() { return std::exchange(codes_, {}); }
    // The control of that number from now on, counted from 0, fails.
    void Fail(std::size_t number) { fail_ = number; }
    // What a control carries, or what it is answered with.
    template <class T>
    T Sent(DWORD code)
    {
        T value{};
        EXPECT_EQ(sent_[code].size(), sizeof(value));
        std::memcpy(&value, sent_[code].data(), std::min(sent_[code].size(), sizeof(value)));
        return value;
    }
    template <class T>
    void Give(DWORD code, const T& value)
    {
        const auto bytes = host::nt::BytesOf(value);
        answers_[code].assign(bytes.begin(), bytes.end());
    }

    host_test::Bench bench;
    Handle handle;

  private:
    NTSTATUS Answer(PIRP irp)
    {
        const auto& parameters = IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl;
        const DWORD code = parameters.IoControlCode;
        auto* buffer = static_cast<std::byte*>(irp->AssociatedIrp.SystemBuffer);
        const bool fails = codes_.size() == fail_;
        codes_.push_back(code);
        sent_[code].assign(buffer, buffer + parameters.InputBufferLength);
        if (fails)
            return host_test::Complete(irp, STATUS_INVALID_PARAMETER);
        if (const auto found = answers_.find(code); found != answers_.end()) {
            std::ranges::copy(found->second, buffer);
            return host_test::Complete(irp, STATUS_SUCCESS, found->second.size());
        }
        std::fill_n(buffer, parameters.OutputBufferLength, std::byte{0});
        return host_test::Complete(irp, STATUS_SUCCESS, parameters.OutputBufferLength);
    }

    std::vector<DWORD> codes_;
    std::map<DWORD, std::vector<std::byte>> sent_;
    std::map<DWORD, std::vector<std::byte>> answers_;
    std::size_t fail_ = SIZE_MAX;
};

constexpr DWORD kGetState[] = {IOCTL_SERIAL_GET_BAUD_RATE, IOCTL_SERIAL_GET_LINE_CONTROL,
                               IOCTL_SERIAL_GET_CHARS, IOCTL_SERIAL_GET_HANDFLOW};

std::vector<DWORD> BehindGetState(std::initializer_list<DWORD> more)
{
    std::vector<DWORD> codes(std::begin(kGetState), std::end(kGetState));
    codes.insert(codes.end(), more);
    return codes;
}

DCB WithLines(DWORD rts, DWORD dtr)
{
    DCB dcb{};
    dcb.fRtsControl = rts;
    dcb.fDtrControl = dtr;
    return dcb;
}

struct Call {
    const char* name;
    std::function<bool(const Handle&)> make;
    std::vector<DWORD> controls;
    bool lines_by_hand = false; // the controls 5 and 6 may fail
};

// SetCommState's controls, with those that set the lines by hand.
std::vector<DWORD> SettingState(std::initializer_list<DWORD> lines)
{
    std::vector<DWORD> codes = BehindGetState({IOCTL_SERIAL_SET_BAUD_RATE});
    codes.insert(codes.end(), lines);
    codes.insert(codes.end(),
                 {IOCTL_SERIAL_SET_LINE_CONTROL, IOCTL_SERIAL_SET_CHARS, IOCTL_SERIAL_SET_HANDFLOW});
    return codes;
}

std::function<bool(const Handle&)> SetsLines(DWORD rts, DWORD dtr)
{
    return [=](const Handle& handle) { return SetCommState(handle, WithLines(rts, dtr)); };
}

template <class T, class Function>
std::function<bool(const Handle&)> Gets(Function call)
{
    return [=](const Handle& handle) {
        T value{};
        return call(handle, &value);
    };
}

const std::vector<Call> kCalls = {
    {"GetCommState", Gets<DCB>(GetCommState), BehindGetState({})},
    {"SetCommState", SetsLines(RTS_CONTROL_ENABLE, DTR_CONTROL_DISABLE),
     SettingState({IOCTL_SERIAL_SET_RTS, IOCTL_SERIAL_CLR_DTR}), true},
    {"SetCommState with the lines the other way", SetsLines(RTS_CONTROL_DISABLE, DTR_CONTROL_ENABLE),
     SettingState({IOCTL_SERIAL_CLR_RTS, IOCTL_SERIAL_SET_DTR}), true},
    {"SetCommState with handshakes", SetsLines(RTS_CONTROL_TOGGLE, DTR_CONTROL_HANDSHAKE), SettingState({})},
    {"GetCommConfig",
     [](const Handle& h) {
         COMMCONFIG config;
         DWORD size = sizeof(config);
         return GetCommConfig(h, &config, &size);
     },
     BehindGetState({IOCTL_SERIAL_CONFIG_SIZE})},
    {"GetCommMask", Gets<DWORD>(GetCommMask), {IOCTL_SERIAL_GET_WAIT_MASK}},
    {"SetupComm", [](const Handle& h) { return SetupComm(h, 4096, 4096); }, {IOCTL_SERIAL_SET_QUEUE_SIZE}},
    {"WaitCommEvent",
     [](const Handle& h) {
         DWORD events = 0;
         return WaitCommEvent(h, &events, nullptr);
     },
     {IOCTL_SERIAL_WAIT_ON_MASK}},
    {"ClearCommError",
     [](const Handle& h) { return ClearCommError(h, nullptr, nullptr); },
     {IOCTL_SERIAL_GET_COMMSTATUS}},
    {"EscapeCommFunction, the first",
     [](const Handle& h) { return EscapeCommFunction(h, Escape::SETXOFF); },
     {IOCTL_SERIAL_SET_XOFF}},
    {"EscapeCommFunction, the last",
     [](const Handle& h) { return EscapeCommFunction(h, Escape::CLRBREAK); },
     {IOCTL_SERIAL_SET_BREAK_OFF}},
};

TEST(Comm, EveryCallSendsItsControlsInTheirOrder)
{
    for (const Call& call : kCalls) {
        Recorder port;
        EXPECT_TRUE(call.make(port.handle)) << call.name;
        EXPECT_EQ(port.Take(), call.controls) << call.name;
    }
}

TEST(Comm, ARefusedControlFailsItsCall)
{
    for (const Call& call : kCalls) {
        for (std::size_t number = 0; number < call.controls.size(); ++number) {
            const bool by_hand = call.lines_by_hand && (number == 5 || number == 6);
            Recorder port;
            port.Fail(number);
            SetLastError(ERROR_SUCCESS);
            EXPECT_EQ(call.make(port.handle), by_hand) << call.name << ", control " << number;
            if (!by_hand) {
                EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER) << call.name << ", control " << number;
                EXPECT_EQ(port.Take().size(), number + 1) << call.name << " goes on";
            }
        }
    }
}

TEST(Comm, Kernel32RefusesSomeCallsItself)
{
    Recorder port;
    EXPECT_FALSE(SetCommState(port.handle, WithLines(RTS_CONTROL_DISABLE, 3)));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(port.Take(), BehindGetState({})) << "nothing was set";

    EXPECT_FALSE(EscapeCommFunction(port.handle, static_cast<Escape>(0)));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    EXPECT_FALSE(EscapeCommFunction(port.handle, static_cast<Escape>(10)));

    COMMCONFIG config;
    DWORD size = sizeof(config) - 1;
    EXPECT_FALSE(GetCommConfig(port.handle, &config, &size));
    EXPECT_EQ(GetLastError(), ERROR_INSUFFICIENT_BUFFER);
    EXPECT_EQ(size, sizeof(config));
    EXPECT_EQ(port.Take(), std::vector<DWORD>{});
}

TEST(Comm, ADcbStandsForTheSameStateOnTheWayBack)
{
    const struct {
        const char* what;
        ULONG control, replace; // of the SERIAL_HANDFLOW
        void (*set)(DCB&);
    } cases[] = {
        {"nothing", 0, 0, [](DCB&) {}},
        {"CTS", SERIAL_CTS_HANDSHAKE, 0, [](DCB& d) { d.fOutxCtsFlow = 1; }},
        {"DSR", SERIAL_DSR_HANDSHAKE, 0, [](DCB& d) { d.fOutxDsrFlow = 1; }},
        {"DTR on", SERIAL_DTR_CONTROL, 0, [](DCB& d) { d.fDtrControl = DTR_CONTROL_ENABLE; }},
        {"DTR handshake", SERIAL_DTR_HANDSHAKE, 0, [](DCB& d) { d.fDtrControl = DTR_CONTROL_HANDSHAKE; }},
        {"DSR sensitivity", SERIAL_DSR_SENSITIVITY, 0, [](DCB& d) { d.fDsrSensitivity = 1; }},
        {"abort", SERIAL_ERROR_ABORT, 0, [](DCB& d) { d.fAbortOnError = 1; }},
        {"continue", 0, SERIAL_XOFF_CONTINUE, [](DCB& d) { d.fTXContinueOnXoff = 1; }},
        {"XON/XOFF out", 0, SERIAL_AUTO_TRANSMIT, [](DCB& d) { d.fOutX = 1; }},
        {"XON/XOFF in", 0, SERIAL_AUTO_RECEIVE, [](DCB& d) { d.fInX = 1; }},
        {"error char", 0, SERIAL_ERROR_CHAR, [](DCB& d) { d.fErrorChar = 1; }},
        {"null", 0, SERIAL_NULL_STRIPPING, [](DCB& d) { d.fNull = 1; }},
        {"RTS on", 0, SERIAL_RTS_CONTROL, [](DCB& d) { d.fRtsControl = RTS_CONTROL_ENABLE; }},
        {"RTS handshake", 0, SERIAL_RTS_HANDSHAKE, [](DCB& d) { d.fRtsControl = RTS_CONTROL_HANDSHAKE; }},
        {"RTS toggle", 0, SERIAL_TRANSMIT_TOGGLE, [](DCB& d) { d.fRtsControl = RTS_CONTROL_TOGGLE; }},
    };
    for (const auto& c : cases) {
        DCB dcb{};
        dcb.DCBlength = sizeof(dcb);
        dcb.fBinary = 1;
        dcb.fParity = 1;
        dcb.BaudRate = 4800;
        dcb.ByteSize = 7;
        dcb.Parity = EVEN_PARITY;
        dcb.StopBits = STOP_BITS_2;
        dcb.XonChar = 0x11;
        dcb.XoffChar = 0x13;
        dcb.EofChar = 0x1A;
        dcb.ErrorChar = '?';
        dcb.EvtChar = '\n';
        dcb.XonLim = 2048;
        dcb.XoffLim = 512;
        c.set(dcb);
        const std::optional<SerialState> state = FromDcb(dcb);
        ASSERT_TRUE(state);
        EXPECT_EQ(state->flow.ControlHandShake, c.control) << c.what;
        EXPECT_EQ(state->flow.FlowReplace, c.replace) << c.what;
        EXPECT_EQ(state->flow.XonLimit, 2048);
        EXPECT_EQ(state->baud_rate, 4800u);
        EXPECT_EQ(state->line.StopBits, STOP_BITS_2);
        EXPECT_EQ(state->line.WordLength, 7);
        EXPECT_EQ(state->chars.EventChar, '\n');
        const DCB back = ToDcb(*state);
        EXPECT_EQ(0, std::memcmp(&back, &dcb, sizeof(dcb))) << c.what;
    }
}

TEST(Comm, WhatThePortAnswersArrives)
{
    Recorder port;
    SERIAL_STATUS status{};
    status.Errors = SERIAL_ERROR_QUEUEOVERRUN | SERIAL_ERROR_BREAK;
    status.HoldReasons = SERIAL_TX_WAITING_FOR_XON;
    status.AmountInInQueue = 77;
    port.Give(IOCTL_SERIAL_GET_COMMSTATUS, status);
    DWORD errors = 0;
    COMSTAT stat{};
    ASSERT_TRUE(ClearCommError(port.handle, &errors, &stat));
    EXPECT_EQ(errors, CE_RXOVER | CE_BREAK);
    EXPECT_EQ(stat.cbInQue, 77u);
    EXPECT_TRUE(stat.fXoffHold);
    EXPECT_FALSE(stat.fCtsHold);

    ASSERT_TRUE(SetupComm(port.handle, 4096, 128));
    EXPECT_EQ(port.Sent<SERIAL_QUEUE_SIZE>(IOCTL_SERIAL_SET_QUEUE_SIZE).InSize, 4096u);

    // A port that succeeds without giving anything leaves the caller's variable alone.
    DWORD lines = 0xABCD;
    port.bench.OnRequest(IRP_MJ_DEVICE_CONTROL, [](PDEVICE_OBJECT, PIRP irp) {
        return host_test::Complete(irp, STATUS_SUCCESS, 0);
    });
    ASSERT_TRUE(GetCommModemStatus(port.handle, &lines));
    EXPECT_EQ(lines, 0xABCDu);
}

} // namespace
