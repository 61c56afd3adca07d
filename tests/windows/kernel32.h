// Windows' own API in the shape that tests/win32 gives it on the user-mode kernel, so that a test can be written once.
#pragma once

#include "windows/rig/program/rig_test.h" // and with it the API

#include <utility>

namespace win32 {

inline constexpr DWORD GENERIC_READ_ACCESS = GENERIC_READ;
inline constexpr DWORD GENERIC_WRITE_ACCESS = GENERIC_WRITE;
inline constexpr DWORD PURGE_ALL = PURGE_TXABORT | PURGE_RXABORT | PURGE_TXCLEAR | PURGE_RXCLEAR;
inline constexpr DWORD kSetDtr = SETDTR;
#undef SETDTR
enum class Escape : DWORD { SETDTR = kSetDtr };

struct Handle {
    Handle() = default;
    explicit Handle(HANDLE handle) : value(handle) {}
    Handle(Handle&& other) noexcept : value(std::exchange(other.value, INVALID_HANDLE_VALUE)) {}
    Handle& operator=(Handle&& other) noexcept
    {
        std::swap(value, other.value);
        return *this;
    }
    ~Handle()
    {
        if (*this)
            ::CloseHandle(value);
    }
    explicit operator bool() const { return value != INVALID_HANDLE_VALUE; }

    HANDLE value = INVALID_HANDLE_VALUE;
};

struct Overlapped {
    Overlapped() { value.hEvent = CreateEventA(nullptr, TRUE, FALSE, nullptr); }
    Overlapped(const Overlapped&) = delete;
    Overlapped& operator=(const Overlapped&) = delete;
    ~Overlapped() { ::CloseHandle(value.hEvent); }

    OVERLAPPED value{};
};

inline DWORD StatusOf(const Overlapped& overlapped)
{
    return static_cast<DWORD>(overlapped.value.Internal);
}

// For a new call.
inline OVERLAPPED* Prepare(Overlapped* overlapped)
{
    if (overlapped == nullptr)
        return nullptr;
    overlapped->value = {.hEvent = overlapped->value.hEvent};
    return &overlapped->value;
}

inline Handle CreateFile(const char* name, DWORD, DWORD, DWORD flags)
{
    return Handle(OpenPort(name, flags)); // which asks for both kinds of access, and shares
}
inline bool CloseHandle(Handle& handle)
{
    return ::CloseHandle(std::exchange(handle.value, INVALID_HANDLE_VALUE)) != 0;
}
inline bool ReadFile(const Handle& handle, void* buffer, DWORD length, DWORD* read, Overlapped* overlapped)
{
    return ::ReadFile(handle.value, buffer, length, read, Prepare(overlapped)) != 0;
}
inline bool WriteFile(const Handle& handle, const void* data, DWORD length, DWORD* written,
                      Overlapped* overlapped)
{
    return ::WriteFile(handle.value, data, length, written, Prepare(overlapped)) != 0;
}
inline bool FlushFileBuffers(const Handle& handle)
{
    return ::FlushFileBuffers(handle.value) != 0;
}
inline bool GetOverlappedResult(const Handle& handle, Overlapped& overlapped, DWORD* transferred, bool wait)
{
    return ::GetOverlappedResult(handle.value, &overlapped.value, transferred, wait) != 0;
}
inline DWORD WaitForSingleObject(const Overlapped& overlapped, DWORD milliseconds)
{
    return ::WaitForSingleObject(overlapped.value.hEvent, milliseconds);
}
inline bool CancelIoEx(const Handle& handle)
{
    return ::CancelIoEx(handle.value, nullptr) != 0;
}
inline bool CancelIoEx(const Handle& handle, Overlapped& overlapped)
{
    return ::CancelIoEx(handle.value, &overlapped.value) != 0;
}

inline bool GetCommState(const Handle& handle, DCB* dcb)
{
    return ::GetCommState(handle.value, dcb) != 0;
}
inline bool SetCommState(const Handle& handle, DCB dcb)
{
    return ::SetCommState(handle.value, &dcb) != 0;
}
inline bool GetCommTimeouts(const Handle& handle, COMMTIMEOUTS* timeouts)
{
    return ::GetCommTimeouts(handle.value, timeouts) != 0;
}
inline bool SetCommTimeouts(const Handle& handle, COMMTIMEOUTS timeouts)
{
    return ::SetCommTimeouts(handle.value, &timeouts) != 0;
}
inline bool GetCommMask(const Handle& handle, DWORD* mask)
{
    return ::GetCommMask(handle.value, mask) != 0;
}
inline bool SetCommMask(const Handle& handle, DWORD mask)
{
    return ::SetCommMask(handle.value, mask) != 0;
}
inline bool WaitCommEvent(const Handle& handle, DWORD* events, Overlapped* overlapped)
{
    const bool good = ::WaitCommEvent(handle.value, events, Prepare(overlapped)) != 0;
    // Wine first tries its own ports' code, which leaves its failure behind.
    constexpr ULONG_PTR not_its_port = 0xC00000CB;
    if (!good && ::GetLastError() == ERROR_IO_PENDING && overlapped->value.Internal == not_its_port)
        overlapped->value.Internal = STATUS_PENDING;
    return good;
}
inline bool ClearCommError(const Handle& handle, DWORD* errors, COMSTAT* status)
{
    return ::ClearCommError(handle.value, errors, status) != 0;
}
inline bool PurgeComm(const Handle& handle, DWORD flags)
{
    return ::PurgeComm(handle.value, flags) != 0;
}
inline bool SetupComm(const Handle& handle, DWORD in_size, DWORD out_size)
{
    return ::SetupComm(handle.value, in_size, out_size) != 0;
}
inline bool GetCommProperties(const Handle& handle, COMMPROP* properties)
{
    return ::GetCommProperties(handle.value, properties) != 0;
}
inline bool GetCommModemStatus(const Handle& handle, DWORD* status)
{
    return ::GetCommModemStatus(handle.value, status) != 0;
}
inline bool EscapeCommFunction(const Handle& handle, Escape function)
{
    return ::EscapeCommFunction(handle.value, static_cast<DWORD>(function)) != 0;
}
inline bool TransmitCommChar(const Handle& handle, char c)
{
    return ::TransmitCommChar(handle.value, c) != 0;
}

} // namespace win32
