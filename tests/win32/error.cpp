#include "tests/win32/error.h"

#include <algorithm>
#include <array>
#include <ntstatus.h>

namespace win32 {
namespace {

struct StatusError {
    NTSTATUS status;
    DWORD error;
};

constexpr std::array kErrors = {
    StatusError{STATUS_SUCCESS, ERROR_SUCCESS},
    StatusError{STATUS_PENDING, ERROR_IO_PENDING},
    StatusError{STATUS_UNSUCCESSFUL, ERROR_GEN_FAILURE},
    StatusError{STATUS_NOT_IMPLEMENTED, ERROR_INVALID_FUNCTION},
    StatusError{STATUS_INVALID_HANDLE, ERROR_INVALID_HANDLE},
    StatusError{STATUS_INVALID_PARAMETER, ERROR_INVALID_PARAMETER},
    StatusError{STATUS_NO_SUCH_DEVICE, ERROR_FILE_NOT_FOUND},
    StatusError{STATUS_INVALID_DEVICE_REQUEST, ERROR_INVALID_FUNCTION},
    StatusError{STATUS_NO_MEMORY, ERROR_NOT_ENOUGH_MEMORY},
    StatusError{STATUS_ACCESS_DENIED, ERROR_ACCESS_DENIED},
    StatusError{STATUS_BUFFER_TOO_SMALL, ERROR_INSUFFICIENT_BUFFER},
    StatusError{STATUS_OBJECT_NAME_NOT_FOUND, ERROR_FILE_NOT_FOUND},
    StatusError{STATUS_OBJECT_PATH_NOT_FOUND, ERROR_PATH_NOT_FOUND},
    StatusError{STATUS_DELETE_PENDING, ERROR_ACCESS_DENIED},
    StatusError{STATUS_INSUFFICIENT_RESOURCES, ERROR_NO_SYSTEM_RESOURCES},
    StatusError{STATUS_DEVICE_NOT_CONNECTED, ERROR_DEVICE_NOT_CONNECTED},
    StatusError{STATUS_DEVICE_NOT_READY, ERROR_NOT_READY},
    StatusError{STATUS_NOT_SUPPORTED, ERROR_NOT_SUPPORTED},
    StatusError{STATUS_CANCELLED, ERROR_OPERATION_ABORTED},
    StatusError{STATUS_INVALID_DEVICE_STATE, ERROR_BAD_COMMAND},
    StatusError{STATUS_IO_DEVICE_ERROR, ERROR_IO_DEVICE},
    StatusError{STATUS_NOT_FOUND, ERROR_NOT_FOUND},
    StatusError{STATUS_DEVICE_REMOVED, ERROR_DEVICE_REMOVED},
};

struct NamedError {
    DWORD error;
    const char* name;
};

#define NAMED(error)                                                                                         \
    NamedError                                                                                               \
    {                                                                                                        \
        error, #error                                                                                        \
    }
constexpr std::array kNames = {
    NAMED(ERROR_SUCCESS),           NAMED(ERROR_INVALID_FUNCTION),    NAMED(ERROR_FILE_NOT_FOUND),
    NAMED(ERROR_PATH_NOT_FOUND),    NAMED(ERROR_ACCESS_DENIED),       NAMED(ERROR_INVALID_HANDLE),
    NAMED(ERROR_NOT_ENOUGH_MEMORY), NAMED(ERROR_NOT_READY),           NAMED(ERROR_BAD_COMMAND),
    NAMED(ERROR_GEN_FAILURE),       NAMED(ERROR_NOT_SUPPORTED),       NAMED(ERROR_INVALID_PARAMETER),
    NAMED(ERROR_IO_INCOMPLETE),     NAMED(ERROR_INSUFFICIENT_BUFFER), NAMED(ERROR_OPERATION_ABORTED),
    NAMED(ERROR_IO_PENDING),        NAMED(ERROR_IO_DEVICE),           NAMED(ERROR_DEVICE_NOT_CONNECTED),
    NAMED(ERROR_NOT_FOUND),         NAMED(ERROR_NO_SYSTEM_RESOURCES), NAMED(ERROR_DEVICE_REMOVED),
    NAMED(ERROR_MR_MID_NOT_FOUND),
};
#undef NAMED

thread_local DWORD last_error = ERROR_SUCCESS;

} // namespace

DWORD ErrorOf(NTSTATUS status)
{
    const auto found = std::ranges::find(kErrors, status, &StatusError::status);
    return found == kErrors.end() ? ERROR_MR_MID_NOT_FOUND : found->error;
}

std::string ErrorName(DWORD error)
{
    const auto found = std::ranges::find(kNames, error, &NamedError::error);
    return found == kNames.end() ? std::to_string(error) : found->name;
}

DWORD GetLastError()
{
    return last_error;
}

void SetLastError(DWORD error)
{
    last_error = error;
}

} // namespace win32
