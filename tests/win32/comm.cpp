#include "tests/win32/comm.h"

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
    *size = sizeof(*config);
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
    if (errors != nullptr)
        *errors = status.Errors;
    if (stat != nullptr)
        *stat = {0, status.AmountInInQueue, status.AmountInOutQueue};
    return true;
}

bool SetupComm(const Handle& handle, DWORD in_size, DWORD out_size)
{
    return Set(handle, IOCTL_SERIAL_SET_QUEUE_SIZE, SERIAL_QUEUE_SIZE{in_size, out_size});
}

bool EscapeCommFunction(const Handle& handle, Escape function)
{
    return Send(handle, static_cast<DWORD>(function));
}

} // namespace win32
