#include "tests/win32/file.h"

#include "io/file_object.h"

#include <algorithm>
#include <ntstatus.h>

namespace win32 {
namespace {

using host::nt::Request;

bool Fail(DWORD error)
{
    SetLastError(error);
    return false;
}

bool IsDeviceName(std::string_view name)
{
    if (name.starts_with("\\\\.\\"))
        return true;
    return name.size() == 4 && (name.starts_with("COM") || name.starts_with("com")) && name[3] >= '1' &&
           name[3] <= '9';
}

// What a call that has ended gives to its caller. Where the driver's dispatch routine ended it and failed, nothing but
// what that routine returned.
bool Deliver(const Request& request, std::span<std::byte> buffer, DWORD* transferred)
{
    const host::nt::Result result = request.Wait();
    *transferred = 0;
    if (request.Returned() != STATUS_PENDING && NT_ERROR(result.status))
        return NT_SUCCESS(request.Returned()) || Fail(ErrorOf(request.Returned()));
    std::copy_n(result.data.begin(), std::min(result.data.size(), buffer.size()), buffer.begin());
    *transferred = static_cast<DWORD>(result.information);
    return NT_SUCCESS(result.status) || Fail(ErrorOf(result.status));
}

// The end of every call: waits on a synchronous handle, otherwise hands the call over to `overlapped`.
bool Conclude(const Handle& handle, const Request& request, std::span<std::byte> buffer, DWORD* transferred,
              Overlapped* overlapped)
{
    DWORD ignored = 0;
    if (transferred == nullptr)
        transferred = &ignored;
    if (overlapped == nullptr || !handle.overlapped)
        return Deliver(request, buffer, transferred);
    overlapped->request = request;
    overlapped->buffer = buffer;
    if (request.Returned() == STATUS_PENDING) // even if it has ended since
        return Fail(ERROR_IO_PENDING);
    return Deliver(request, buffer, transferred);
}

std::span<std::byte> Bytes(void* data, DWORD length)
{
    return {static_cast<std::byte*>(data), length};
}

std::span<const std::byte> Bytes(const void* data, DWORD length)
{
    return {static_cast<const std::byte*>(data), length};
}

} // namespace

Handle CreateFile(std::string_view name, DWORD access, DWORD share, DWORD flags)
{
    Handle handle;
    if (!IsDeviceName(name)) { // an ordinary file, which is not there
        SetLastError(ERROR_FILE_NOT_FOUND);
        return handle;
    }
    handle.overlapped = (flags & FILE_FLAG_OVERLAPPED) != 0;
    host::nt::OpenOptions options;
    options.access = static_cast<host::nt::Access>(access);
    options.share = share;
    options.overlapped = handle.overlapped;
    const NTSTATUS status = host::nt::File::Open(name, &handle.file, options);
    if (!NT_SUCCESS(status))
        SetLastError(ErrorOf(status));
    return handle;
}

bool CloseHandle(Handle& handle)
{
    handle.file.Close();
    return true;
}

DWORD GetFileType(const Handle& handle)
{
    const bool serial = host::IopTargetOf(*handle.file.Object())->DeviceType == FILE_DEVICE_SERIAL_PORT;
    return serial ? FILE_TYPE_CHAR : 0;
}

bool ReadFile(const Handle& handle, void* buffer, DWORD length, DWORD* read, Overlapped* overlapped)
{
    return Conclude(handle, handle.file.StartRead(length), Bytes(buffer, length), read, overlapped);
}

bool WriteFile(const Handle& handle, const void* data, DWORD length, DWORD* written, Overlapped* overlapped)
{
    return Conclude(handle, handle.file.StartWrite(Bytes(data, length)), {}, written, overlapped);
}

bool DeviceIoControl(const Handle& handle, DWORD code, const void* input, DWORD input_length, void* output,
                     DWORD output_length, DWORD* returned, Overlapped* overlapped)
{
    return Conclude(handle, handle.file.StartControl(code, Bytes(input, input_length), output_length),
                    Bytes(output, output_length), returned, overlapped);
}

bool FlushFileBuffers(const Handle& handle)
{
    const NTSTATUS status = handle.file.Flush().status;
    return NT_SUCCESS(status) || Fail(ErrorOf(status));
}

bool GetOverlappedResult(const Handle&, Overlapped& overlapped, DWORD* transferred, bool wait)
{
    if (!wait && !overlapped.request.Done())
        return Fail(ERROR_IO_INCOMPLETE);
    return Deliver(overlapped.request, overlapped.buffer, transferred);
}

DWORD WaitForSingleObject(const Overlapped& overlapped, DWORD milliseconds)
{
    return overlapped.request.WaitFor(milliseconds * host::kMillisecond) ? WAIT_OBJECT_0 : WAIT_TIMEOUT;
}

bool CancelIo(const Handle& handle)
{
    (void)handle.file.CancelIo(); // succeeds with nothing to cancel, too
    return true;
}

bool CancelIoEx(const Handle& handle)
{
    return handle.file.CancelIoEx() || Fail(ERROR_NOT_FOUND);
}

bool CancelIoEx(const Handle&, Overlapped& overlapped)
{
    return (overlapped.request.Valid() && overlapped.request.Cancel()) || Fail(ERROR_NOT_FOUND);
}

DWORD StatusOf(const Overlapped& overlapped)
{
    return static_cast<DWORD>(overlapped.request.Status());
}

} // namespace win32
