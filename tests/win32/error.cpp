#include "tests/win32/error.h"

#include "tests/win32/status_errors.h"

#include <algorithm>
#include <array>
#include <iterator>

namespace win32 {
namespace {

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
    NAMED(ERROR_MR_MID_NOT_FOUND),  NAMED(ERROR_NO_SUCH_DEVICE),
};
#undef NAMED

thread_local DWORD last_error = ERROR_SUCCESS;

} // namespace

DWORD ErrorOf(NTSTATUS status)
{
    const auto found =
        std::ranges::find(kStatusErrors, static_cast<std::uint32_t>(status), &StatusError::status);
    return found == std::end(kStatusErrors) ? ERROR_MR_MID_NOT_FOUND : found->error;
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
