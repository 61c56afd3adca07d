// The communication functions of the Windows API: which controls each of them sends, and in which order.
#pragma once

#include "tests/win32/file.h"

#include <ntddser.h>
#include <optional>

namespace win32 {

using WORD = std::uint16_t;

inline constexpr DWORD DTR_CONTROL_DISABLE = 0;
inline constexpr DWORD DTR_CONTROL_ENABLE = 1;
inline constexpr DWORD DTR_CONTROL_HANDSHAKE = 2;
inline constexpr DWORD RTS_CONTROL_DISABLE = 0;
inline constexpr DWORD RTS_CONTROL_ENABLE = 1;
inline constexpr DWORD RTS_CONTROL_TOGGLE = 3;

struct DCB {
    DWORD DCBlength;
    DWORD BaudRate;
    DWORD fBinary : 1;
    DWORD fParity : 1;
    DWORD fOutxCtsFlow : 1;
    DWORD fOutxDsrFlow : 1;
    DWORD fDtrControl : 2;
    DWORD fDsrSensitivity : 1;
    DWORD fTXContinueOnXoff : 1;
    DWORD fOutX : 1;
    DWORD fInX : 1;
    DWORD fErrorChar : 1;
    DWORD fNull : 1;
    DWORD fRtsControl : 2;
    DWORD fAbortOnError : 1;
    DWORD fDummy2 : 17;
    WORD wReserved;
    WORD XonLim;
    WORD XoffLim;
    UCHAR ByteSize;
    UCHAR Parity;   // NO_PARITY ...
    UCHAR StopBits; // STOP_BIT_1 ...
    char XonChar;
    char XoffChar;
    char ErrorChar;
    char EofChar;
    char EvtChar;
    WORD wReserved1;
};
static_assert(sizeof(DCB) == 28);

struct COMMCONFIG {
    DWORD dwSize;
    WORD wVersion;
    WORD wReserved;
    DCB dcb;
    DWORD dwProviderSubType;
    DWORD dwProviderOffset;
    DWORD dwProviderSize;
    WCHAR wcProviderData[1];
};
static_assert(sizeof(COMMCONFIG) == 52);

struct COMSTAT {
    DWORD flags; // why nothing is sent
    DWORD cbInQue;
    DWORD cbOutQue;
};
static_assert(sizeof(COMSTAT) == 12);

using COMMTIMEOUTS = SERIAL_TIMEOUTS;
using COMMPROP = SERIAL_COMMPROP;

inline constexpr DWORD EV_RXCHAR = SERIAL_EV_RXCHAR;
inline constexpr DWORD EV_ERR = SERIAL_EV_ERR;

inline constexpr DWORD PURGE_TXABORT = SERIAL_PURGE_TXABORT;
inline constexpr DWORD PURGE_RXABORT = SERIAL_PURGE_RXABORT;
inline constexpr DWORD PURGE_TXCLEAR = SERIAL_PURGE_TXCLEAR;
inline constexpr DWORD PURGE_RXCLEAR = SERIAL_PURGE_RXCLEAR;
inline constexpr DWORD PURGE_ALL = PURGE_TXABORT | PURGE_RXABORT | PURGE_TXCLEAR | PURGE_RXCLEAR;

enum class Escape : DWORD {
    SETRTS = IOCTL_SERIAL_SET_RTS,
    SETDTR = IOCTL_SERIAL_SET_DTR,
    CLRDTR = IOCTL_SERIAL_CLR_DTR
};

// Calls that are one control each, which carries or fills a `T`. kernel32 has an event of its own: the control is waited
// for on an overlapped handle, too.
template <class T>
struct Setter {
    DWORD code;
    bool operator()(const Handle& handle, const T& value) const
    {
        return DeviceIoControl(handle, code, &value, sizeof(value), nullptr, 0, nullptr, nullptr);
    }
};
template <class T>
struct Getter {
    DWORD code;
    bool operator()(const Handle& handle, T* value) const
    {
        return DeviceIoControl(handle, code, nullptr, 0, value, sizeof(*value), nullptr, nullptr);
    }
};
inline constexpr Getter<COMMTIMEOUTS> GetCommTimeouts{IOCTL_SERIAL_GET_TIMEOUTS};
inline constexpr Setter<COMMTIMEOUTS> SetCommTimeouts{IOCTL_SERIAL_SET_TIMEOUTS};
inline constexpr Getter<DWORD> GetCommMask{IOCTL_SERIAL_GET_WAIT_MASK};
inline constexpr Setter<DWORD> SetCommMask{IOCTL_SERIAL_SET_WAIT_MASK};
inline constexpr Setter<DWORD> PurgeComm{IOCTL_SERIAL_PURGE};
inline constexpr Getter<COMMPROP> GetCommProperties{IOCTL_SERIAL_GET_PROPERTIES};
inline constexpr Getter<DWORD> GetCommModemStatus{IOCTL_SERIAL_GET_MODEMSTATUS};
inline constexpr Setter<char> TransmitCommChar{IOCTL_SERIAL_IMMEDIATE_CHAR};

bool GetCommState(const Handle& handle, DCB* dcb);
bool SetCommState(const Handle& handle, const DCB& dcb);
bool GetCommConfig(const Handle& handle, COMMCONFIG* config, DWORD* size); // the room is never too small
bool SetCommConfig(const Handle& handle, const COMMCONFIG& config);
// `events` is filled as an overlapped call's buffer is.
bool WaitCommEvent(const Handle& handle, DWORD* events, Overlapped* overlapped);
// Either may be null. The bits of errors are the port's, which has none.
bool ClearCommError(const Handle& handle, DWORD* errors, COMSTAT* status);
bool SetupComm(const Handle& handle, DWORD in_size, DWORD out_size);
bool EscapeCommFunction(const Handle& handle, Escape function);

// What a DCB stands for among the serial controls.
struct SerialState {
    ULONG baud_rate = 0;
    SERIAL_LINE_CONTROL line{};
    SERIAL_CHARS chars{};
    SERIAL_HANDFLOW flow{};
};
DCB ToDcb(const SerialState& state);
// Nothing for a DCB that kernel32 itself refuses.
std::optional<SerialState> FromDcb(const DCB& dcb);

} // namespace win32
