// Errors of the Windows API, and which of them a status becomes.
#pragma once

#include <cstdint>
#include <ntdef.h>
#include <string>

namespace win32 {

using DWORD = std::uint32_t;

inline constexpr DWORD ERROR_SUCCESS = 0;
inline constexpr DWORD ERROR_FILE_NOT_FOUND = 2;
inline constexpr DWORD ERROR_ACCESS_DENIED = 5;
inline constexpr DWORD ERROR_BAD_COMMAND = 22;
inline constexpr DWORD ERROR_INVALID_PARAMETER = 87;
inline constexpr DWORD ERROR_INSUFFICIENT_BUFFER = 122;
inline constexpr DWORD ERROR_OPERATION_ABORTED = 995;
inline constexpr DWORD ERROR_IO_INCOMPLETE = 996;
inline constexpr DWORD ERROR_IO_PENDING = 997;
inline constexpr DWORD ERROR_NOT_FOUND = 1168;
inline constexpr DWORD ERROR_DEVICE_REMOVED = 1617;
inline constexpr DWORD ERROR_MR_MID_NOT_FOUND = 317; // a status that the system has no error for

DWORD ErrorOf(NTSTATUS status);
// "ERROR_ACCESS_DENIED"; the number when no status becomes it.
std::string ErrorName(DWORD error);

// Of the calling thread.
DWORD GetLastError();
void SetLastError(DWORD error);

} // namespace win32
