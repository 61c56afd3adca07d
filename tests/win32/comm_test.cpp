// What the communication functions send, and in which order; that they give what Windows' own do is for the table of
// expectations to say.
#include "tests/host_io/scripted_driver.h"
#include "tests/win32/comm.h"

#include <gtest/gtest.h>

#include <ntstatus.h>

using namespace win32;

namespace {

using Codes = std::vector<DWORD>;

const Codes kGetState = {IOCTL_SERIAL_GET_BAUD_RATE, IOCTL_SERIAL_GET_LINE_CONTROL, IOCTL_SERIAL_GET_CHARS,
                         IOCTL_SERIAL_GET_HANDFLOW};

// SetCommState's controls, with those that set the lines by hand.
Codes SettingState(const Codes& lines)
{
    Codes codes = kGetState;
    codes.push_back(IOCTL_SERIAL_SET_BAUD_RATE);
    codes.insert(codes.end(), lines.begin(), lines.end());
    for (const DWORD code :
         {IOCTL_SERIAL_SET_LINE_CONTROL, IOCTL_SERIAL_SET_CHARS, IOCTL_SERIAL_SET_HANDFLOW})
        codes.push_back(code);
    return codes;
}

template <DWORD Rts, DWORD Dtr>
bool SetLines(const Handle& handle)
{
    DCB dcb{};
    dcb.fRtsControl = Rts;
    dcb.fDtrControl = Dtr;
    return SetCommState(handle, dcb);
}

bool GetState(const Handle& handle)
{
    DCB dcb{};
    return GetCommState(handle, &dcb);
}

// Each control is refused once: the call ends there and fails. Only a line that is set by hand may refuse.
TEST(Comm, EveryCallSendsItsControlsInTheirOrderAndFailsWithOneOfThem)
{
    const struct {
        bool (*make)(const Handle&);
        Codes controls;
        bool lines_by_hand = false; // the controls 5 and 6 may fail
    } calls[] = {
        {GetState, kGetState},
        {SetLines<1, 0>, SettingState({IOCTL_SERIAL_SET_RTS, IOCTL_SERIAL_CLR_DTR}), true},
        {SetLines<0, 1>, SettingState({IOCTL_SERIAL_CLR_RTS, IOCTL_SERIAL_SET_DTR}), true},
        {SetLines<RTS_CONTROL_TOGGLE, DTR_CONTROL_HANDSHAKE>, SettingState({})},
        {SetLines<0, 3>, kGetState}, // kernel32 refuses it
    };
    for (const auto& call : calls) {
        for (std::size_t number = 0; number <= call.controls.size(); ++number) {
            SCOPED_TRACE(std::to_string(&call - calls) + ", control " + std::to_string(number));
            Codes sent;
            host_test::Bench bench;
            bench.OnRequest(IRP_MJ_DEVICE_CONTROL, [&](PDEVICE_OBJECT, PIRP irp) {
                const auto& parameters = IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl;
                sent.push_back(parameters.IoControlCode);
                const bool fails = sent.size() == number + 1;
                return host_test::Complete(irp, fails ? STATUS_INVALID_PARAMETER : STATUS_SUCCESS,
                                           fails ? 0 : parameters.OutputBufferLength);
            });
            const Handle handle = CreateFile("\\\\.\\T", GENERIC_READ_ACCESS | GENERIC_WRITE_ACCESS, 0, 0);
            const bool by_hand = call.lines_by_hand && (number == 5 || number == 6);
            const bool all = number == call.controls.size() || by_hand;
            const bool refused = call.make == SetLines<0, 3>;
            EXPECT_EQ(call.make(handle), all && !refused);
            EXPECT_EQ(sent, all ? call.controls
                                : Codes(call.controls.begin(),
                                        call.controls.begin() + static_cast<std::ptrdiff_t>(number) + 1));
        }
    }
}

} // namespace
