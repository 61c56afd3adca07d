// Which error of the Windows API a status becomes. In numbers: the platform's headers have no place here.
#pragma once

#include <cstdint>

namespace win32 {

struct StatusError {
    std::uint32_t status;
    std::uint32_t error;
};

inline constexpr StatusError kStatusErrors[] = {
    {0x00000000, 0},    // STATUS_SUCCESS
    {0x00000103, 997},  // STATUS_PENDING
    {0xc0000001, 31},   // STATUS_UNSUCCESSFUL
    {0xc0000002, 1},    // STATUS_NOT_IMPLEMENTED
    {0xc0000008, 6},    // STATUS_INVALID_HANDLE
    {0xc000000d, 87},   // STATUS_INVALID_PARAMETER
    {0xc000000e, 433},  // STATUS_NO_SUCH_DEVICE
    {0xc0000010, 1},    // STATUS_INVALID_DEVICE_REQUEST
    {0xc0000017, 8},    // STATUS_NO_MEMORY
    {0xc0000022, 5},    // STATUS_ACCESS_DENIED
    {0xc0000023, 122},  // STATUS_BUFFER_TOO_SMALL
    {0xc0000034, 2},    // STATUS_OBJECT_NAME_NOT_FOUND
    {0xc000003a, 3},    // STATUS_OBJECT_PATH_NOT_FOUND
    {0xc0000056, 5},    // STATUS_DELETE_PENDING
    {0xc000009a, 1450}, // STATUS_INSUFFICIENT_RESOURCES
    {0xc000009d, 1167}, // STATUS_DEVICE_NOT_CONNECTED
    {0xc00000a3, 21},   // STATUS_DEVICE_NOT_READY
    {0xc00000bb, 50},   // STATUS_NOT_SUPPORTED
    {0xc0000120, 995},  // STATUS_CANCELLED
    {0xc0000184, 22},   // STATUS_INVALID_DEVICE_STATE
    {0xc0000185, 1117}, // STATUS_IO_DEVICE_ERROR
    {0xc0000225, 1168}, // STATUS_NOT_FOUND
    {0xc00002b6, 1617}, // STATUS_DEVICE_REMOVED
};

} // namespace win32
