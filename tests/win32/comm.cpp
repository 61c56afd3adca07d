#include "tests/win32/comm.h"

#include <array>

namespace win32 {
namespace {

bool Send(const Handle& handle, DWORD code)
{
    return DeviceIoControl(handle, code, nullptr, 0, nullptr, 0, nullptr, nullptr);
}

template <class T>
bool Set(const Handle& handle, DWORD code, const T& value)
{
    return Setter<T>{code}(handle, value);
}

template <class T>
bool Get(const Handle& handle, DWORD code, T* value)
{
    return Getter<T>{code}(handle, value);
}

bool ReadState(const Handle& handle, SerialState* state)
{
    return Get(handle, IOCTL_SERIAL_GET_BAUD_RATE, &state->baud_rate) &&
           Get(handle, IOCTL_SERIAL_GET_LINE_CONTROL, &state->line) &&
           Get(handle, IOCTL_SERIAL_GET_CHARS, &state->chars) &&
           Get(handle, IOCTL_SERIAL_GET_HANDFLOW, &state->flow);
}

constexpr std::array kEscapeControls = {
    IOCTL_SERIAL_SET_XOFF,     IOCTL_SERIAL_SET_XON,      IOCTL_SERIAL_SET_RTS,
    IOCTL_SERIAL_CLR_RTS,      IOCTL_SERIAL_SET_DTR,      IOCTL_SERIAL_CLR_DTR,
    IOCTL_SERIAL_RESET_DEVICE, IOCTL_SERIAL_SET_BREAK_ON, IOCTL_SERIAL_SET_BREAK_OFF,
};

struct Bit {
    ULONG serial;
    DWORD win32;
};
constexpr Bit kErrorBits[] = {
    {SERIAL_ERROR_QUEUEOVERRUN, CE_RXOVER}, {SERIAL_ERROR_OVERRUN, CE_OVERRUN},
    {SERIAL_ERROR_PARITY, CE_RXPARITY},     {SERIAL_ERROR_FRAMING, CE_FRAME},
    {SERIAL_ERROR_BREAK, CE_BREAK},
};

COMSTAT ToComStat(const SERIAL_STATUS& status)
{
    COMSTAT stat{};
    stat.fCtsHold = (status.HoldReasons & SERIAL_TX_WAITING_FOR_CTS) != 0;
    stat.fDsrHold = (status.HoldReasons & SERIAL_TX_WAITING_FOR_DSR) != 0;
    stat.fRlsdHold = (status.HoldReasons & SERIAL_TX_WAITING_FOR_DCD) != 0;
    stat.fXoffHold = (status.HoldReasons & SERIAL_TX_WAITING_FOR_XON) != 0;
    stat.fXoffSent = (status.HoldReasons & SERIAL_TX_WAITING_XOFF_SENT) != 0;
    stat.fEof = status.EofReceived != FALSE;
    stat.fTxim = status.WaitForImmediate != FALSE;
    stat.cbInQue = status.AmountInInQueue;
    stat.cbOutQue = status.AmountInOutQueue;
    return stat;
}

} // namespace

bool GetCommState(const Handle& handle, DCB* dcb)
{
    SerialState state;
    if (!ReadState(handle, &state))
        return false;
    *dcb = ToDcb(state);
    return true;
}

bool SetCommState(const Handle& handle, const DCB& dcb)
{
    SerialState before;
    if (!ReadState(handle, &before))
        return false;
    const std::optional<SerialState> state = FromDcb(dcb);
    if (!state) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    if (!Set(handle, IOCTL_SERIAL_SET_BAUD_RATE, state->baud_rate))
        return false;
    // A line that is still under the handshake of before refuses to be set by hand; that fails nothing.
    if (dcb.fRtsControl <= RTS_CONTROL_ENABLE)
        (void)Send(handle, dcb.fRtsControl != 0 ? IOCTL_SERIAL_SET_RTS : IOCTL_SERIAL_CLR_RTS);
    if (dcb.fDtrControl <= DTR_CONTROL_ENABLE)
        (void)Send(handle, dcb.fDtrControl != 0 ? IOCTL_SERIAL_SET_DTR : IOCTL_SERIAL_CLR_DTR);
    return Set(handle, IOCTL_SERIAL_SET_LINE_CONTROL, state->line) &&
           Set(handle, IOCTL_SERIAL_SET_CHARS, state->chars) &&
           Set(handle, IOCTL_SERIAL_SET_HANDFLOW, state->flow);
}

bool GetCommConfig(const Handle& handle, COMMCONFIG* config, DWORD* size)
{
    const DWORD given = *size;
    *size = sizeof(*config);
    if (given < sizeof(*config)) {
        SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return false;
    }
    DWORD provider = 0;
    if (!GetCommState(handle, &config->dcb) || !Get(handle, IOCTL_SERIAL_CONFIG_SIZE, &provider))
        return false;
    config->dwSize = sizeof(*config);
    config->wVersion = 1;
    config->dwProviderSubType = SERIAL_SP_RS232;
    config->dwProviderOffset = 0;
    config->dwProviderSize = provider;
    return true;
}

bool SetCommConfig(const Handle& handle, const COMMCONFIG& config)
{
    return SetCommState(handle, config.dcb);
}

bool WaitCommEvent(const Handle& handle, DWORD* events, Overlapped* overlapped)
{
    return DeviceIoControl(handle, IOCTL_SERIAL_WAIT_ON_MASK, nullptr, 0, events, sizeof(*events), nullptr,
                           overlapped);
}

bool ClearCommError(const Handle& handle, DWORD* errors, COMSTAT* stat)
{
    SERIAL_STATUS status{};
    if (!Get(handle, IOCTL_SERIAL_GET_COMMSTATUS, &status))
        return false;
    if (errors != nullptr) {
        *errors = 0;
        for (const Bit& bit : kErrorBits)
            *errors |= (status.Errors & bit.serial) != 0 ? bit.win32 : 0;
    }
    if (stat != nullptr)
        *stat = ToComStat(status);
    return true;
}

bool SetupComm(const Handle& handle, DWORD in_size, DWORD out_size)
{
    return Set(handle, IOCTL_SERIAL_SET_QUEUE_SIZE, SERIAL_QUEUE_SIZE{in_size, out_size});
}

bool EscapeCommFunction(const Handle& handle, Escape function)
{
    const std::size_t index = static_cast<std::size_t>(function) - 1;
    if (index >= kEscapeControls.size()) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    return Send(handle, kEscapeControls[index]);
}

} // namespace win32
