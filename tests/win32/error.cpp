#include "tests/win32/error.h"

#include "tests/win32/status_errors.h"

#include <algorithm>
#include <iterator>

namespace win32 {
namespace {

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
    const auto found = std::ranges::find(kStatusErrors, error, &StatusError::error);
    return found == std::end(kStatusErrors) ? std::to_string(error) : found->name;
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
