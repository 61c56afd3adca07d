// Files as Windows programs see them, on the kernel's user-mode face. Names and results are those of the
// Windows API; a call that fails leaves its error for GetLastError. All calls are made by kernel threads at
// PASSIVE_LEVEL.
#pragma once

#include "nt/file.h"
#include "tests/win32/error.h"

#include <string_view>

namespace win32 {

inline constexpr DWORD GENERIC_READ_ACCESS = 1;
inline constexpr DWORD GENERIC_WRITE_ACCESS = 2;
inline constexpr DWORD FILE_FLAG_OVERLAPPED = 0x40000000;
inline constexpr DWORD FILE_TYPE_CHAR = 2;
inline constexpr DWORD WAIT_OBJECT_0 = 0;
inline constexpr DWORD WAIT_TIMEOUT = 258;
inline constexpr DWORD MAXDWORD = 0xFFFFFFFF;

// One HANDLE of a file. It is closed with the object.
class Handle {
  public:
    explicit operator bool() const { return file.IsOpen(); } // not INVALID_HANDLE_VALUE

    host::nt::File file;
    bool overlapped = false;
};

// An OVERLAPPED with its event. It must stay where it is until its call has ended, and so must the call's
// buffer, which is filled when GetOverlappedResult has told of the end.
struct Overlapped {
    host::nt::Request request;
    std::span<std::byte> buffer;
};

// "COM1" to "COM9" are names of devices by themselves, others behind "\\.\" only.
Handle CreateFile(std::string_view name, DWORD access, DWORD share, DWORD flags);
bool CloseHandle(Handle& handle);
DWORD GetFileType(const Handle& handle);

// `overlapped` is null for handles without FILE_FLAG_OVERLAPPED. With it, false and ERROR_IO_PENDING mean
// that the call is under way.
bool ReadFile(const Handle& handle, void* buffer, DWORD length, DWORD* read, Overlapped* overlapped);
bool WriteFile(const Handle& handle, const void* data, DWORD length, DWORD* written, Overlapped* overlapped);
bool DeviceIoControl(const Handle& handle, DWORD code, const void* input, DWORD input_length, void* output,
                     DWORD output_length, DWORD* returned, Overlapped* overlapped);
bool FlushFileBuffers(const Handle& handle);
bool GetOverlappedResult(const Handle& handle, Overlapped& overlapped, DWORD* transferred, bool wait);
DWORD WaitForSingleObject(const Overlapped& overlapped, DWORD milliseconds);
bool CancelIo(const Handle& handle);
bool CancelIoEx(const Handle& handle);
bool CancelIoEx(const Handle& handle, Overlapped& overlapped); // that call only
// NTSTATUS, as in OVERLAPPED::Internal.
DWORD StatusOf(const Overlapped& overlapped);

} // namespace win32
