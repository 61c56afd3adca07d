#include "tests/win32/comm.h"

namespace win32 {
namespace {

constexpr unsigned kRtsShift = 6; // FlowReplace has the RTS control in these two bits
static_assert(RTS_CONTROL_TOGGLE << kRtsShift == SERIAL_TRANSMIT_TOGGLE);

ULONG If(ULONG condition, ULONG bit)
{
    return condition != 0 ? bit : 0;
}

} // namespace

DCB ToDcb(const SerialState& state)
{
    const ULONG control = state.flow.ControlHandShake;
    const ULONG replace = state.flow.FlowReplace;
    DCB dcb{};
    dcb.DCBlength = sizeof(dcb);
    dcb.BaudRate = state.baud_rate;
    dcb.fBinary = 1;
    dcb.fParity = state.line.Parity != NO_PARITY;
    dcb.fOutxCtsFlow = (control & SERIAL_CTS_HANDSHAKE) != 0;
    dcb.fOutxDsrFlow = (control & SERIAL_DSR_HANDSHAKE) != 0;
    dcb.fDtrControl = control & SERIAL_DTR_MASK;
    dcb.fDsrSensitivity = (control & SERIAL_DSR_SENSITIVITY) != 0;
    dcb.fTXContinueOnXoff = (replace & SERIAL_XOFF_CONTINUE) != 0;
    dcb.fOutX = (replace & SERIAL_AUTO_TRANSMIT) != 0;
    dcb.fInX = (replace & SERIAL_AUTO_RECEIVE) != 0;
    dcb.fErrorChar = (replace & SERIAL_ERROR_CHAR) != 0;
    dcb.fNull = (replace & SERIAL_NULL_STRIPPING) != 0;
    dcb.fRtsControl = (replace & SERIAL_RTS_MASK) >> kRtsShift;
    dcb.fAbortOnError = (control & SERIAL_ERROR_ABORT) != 0;
    dcb.XonLim = static_cast<WORD>(state.flow.XonLimit);
    dcb.XoffLim = static_cast<WORD>(state.flow.XoffLimit);
    dcb.ByteSize = state.line.WordLength;
    dcb.Parity = state.line.Parity;
    dcb.StopBits = state.line.StopBits;
    dcb.XonChar = static_cast<char>(state.chars.XonChar);
    dcb.XoffChar = static_cast<char>(state.chars.XoffChar);
    dcb.ErrorChar = static_cast<char>(state.chars.ErrorChar);
    dcb.EofChar = static_cast<char>(state.chars.EofChar);
    dcb.EvtChar = static_cast<char>(state.chars.EventChar);
    return dcb;
}

std::optional<SerialState> FromDcb(const DCB& dcb)
{
    if (dcb.fDtrControl > DTR_CONTROL_HANDSHAKE)
        return {};
    SerialState state;
    state.baud_rate = dcb.BaudRate;
    state.line = {dcb.StopBits, dcb.Parity, dcb.ByteSize};
    state.chars.XonChar = static_cast<UCHAR>(dcb.XonChar);
    state.chars.XoffChar = static_cast<UCHAR>(dcb.XoffChar);
    state.chars.ErrorChar = static_cast<UCHAR>(dcb.ErrorChar);
    state.chars.EofChar = static_cast<UCHAR>(dcb.EofChar);
    state.chars.EventChar = static_cast<UCHAR>(dcb.EvtChar);
    state.flow.ControlHandShake = dcb.fDtrControl | If(dcb.fOutxCtsFlow, SERIAL_CTS_HANDSHAKE) |
                                  If(dcb.fOutxDsrFlow, SERIAL_DSR_HANDSHAKE) |
                                  If(dcb.fDsrSensitivity, SERIAL_DSR_SENSITIVITY) |
                                  If(dcb.fAbortOnError, SERIAL_ERROR_ABORT);
    state.flow.FlowReplace = static_cast<ULONG>(dcb.fRtsControl) << kRtsShift |
                             If(dcb.fOutX, SERIAL_AUTO_TRANSMIT) | If(dcb.fInX, SERIAL_AUTO_RECEIVE) |
                             If(dcb.fErrorChar, SERIAL_ERROR_CHAR) | If(dcb.fNull, SERIAL_NULL_STRIPPING) |
                             If(dcb.fTXContinueOnXoff, SERIAL_XOFF_CONTINUE);
    state.flow.XonLimit = dcb.XonLim;
    state.flow.XoffLimit = dcb.XoffLim;
    return state;
}

} // namespace win32
