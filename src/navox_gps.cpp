#include "navox_gps.h"

#include "../include/navox/gps_ioctl.h"
#include "navox_createclose.h"
#include "navox_utils.h"

static_assert(IOCTL_GPS_GET_COMM_PORT == 0x08004008 && IOCTL_GPS_GET_APPLICATION_COUNT == 0x0800400C);
static_assert(IOCTL_GPS_GET_NMEA_MODE == 0x08004010 && IOCTL_GPS_SET_NMEA_MODE == 0x08008014);
static_assert(IOCTL_GPS_RESET_GPS == 0x08004018 && IOCTL_GPS_QUERY_VERSION == 0x08004024);
static_assert(IOCTL_GPS_QUERY_SHORT_VERSION == 0x08004040 && IOCTL_GPS_QUERY_BUILD_DATE == 0x08004080);
static_assert(IOCTL_GPS_WRITE_DEBUG_STRING == 0x0800801C && IOCTL_GPS_READ_DEBUG_DATA == 0x08004020);
static_assert(IOCTL_GPS_SET_DEBUG_LEVEL == 0x080080C0 && IOCTL_NAVOX_OPERATION == 0x0800C004);

namespace {

constexpr ULONG kMajor = 7;
constexpr ULONG kMinor = 2;
constexpr ULONG kBuild = 1;
constexpr ULONG kRevision = 1;
constexpr char kBuildDate[] = "Mar  1 2012";

struct Request {
    DEVICE_EXTENSION* Extension;
    PIRP Irp;
    ULONG InputLength;
    ULONG OutputLength;
    void* Buffer;

    ULONG& Word() const { return *static_cast<ULONG*>(Buffer); }
    NTSTATUS Finish(NTSTATUS status, ULONG_PTR information) const
    {
        return CompleteRequest(Irp, status, information);
    }
};

// The checks that queries of one word share. STATUS_SUCCESS: the request is still to be completed.
NTSTATUS CheckWordQuery(const Request& request, ULONG_PTR informationIfSmall)
{
    if (request.InputLength != 0)
        return request.Finish(STATUS_INVALID_PARAMETER, 0);
    if (request.OutputLength < sizeof(ULONG))
        return request.Finish(STATUS_BUFFER_TOO_SMALL, informationIfSmall);
    return STATUS_SUCCESS;
}

NTSTATUS ReturnWord(const Request& request, ULONG value)
{
    request.Word() = value;
    return request.Finish(STATUS_SUCCESS, sizeof(ULONG));
}

NTSTATUS GetCommPort(const Request& request)
{
    const NTSTATUS status = CheckWordQuery(request, sizeof(ULONG));
    return NT_SUCCESS(status) ? ReturnWord(request, request.Extension->PortNumber) : status;
}

NTSTATUS GetApplicationCount(const Request& request)
{
    const NTSTATUS status = CheckWordQuery(request, 0);
    if (!NT_SUCCESS(status))
        return status;
    ULONG count;
    {
        SpinLockGuard lock(&request.Extension->ClientListLock);
        count = CountClients(request.Extension);
    }
    return ReturnWord(request, count);
}

NTSTATUS GetNmeaMode(const Request& request)
{
    const NTSTATUS status = CheckWordQuery(request, sizeof(ULONG));
    return NT_SUCCESS(status) ? ReturnWord(request, request.Extension->NmeaMode) : status;
}

NTSTATUS SetNmeaMode(const Request& request)
{
    if (request.OutputLength != 0)
        return request.Finish(STATUS_INVALID_PARAMETER, 0);
    if (request.InputLength < sizeof(ULONG))
        return request.Finish(STATUS_BUFFER_TOO_SMALL, sizeof(ULONG));
    request.Extension->NmeaMode = request.Word();
    return request.Finish(STATUS_SUCCESS, 0);
}

// why: succeeds with any buffers, and counts as many bytes as the port's name has.
NTSTATUS ResetGps(const Request& request)
{
    const ULONG length = request.Extension->PortName.Length;
    // The count is copied out. What the buffer does not hold must not be: neither what lies behind it, nor
    // what was in it before.
    if (request.OutputLength < length)
        request.Irp->Flags &= ~static_cast<ULONG>(IRP_INPUT_OPERATION);
    else if (request.OutputLength > request.InputLength)
        RtlZeroMemory(static_cast<UCHAR*>(request.Buffer) + request.InputLength,
                      request.OutputLength - request.InputLength);
    return request.Finish(STATUS_SUCCESS, length);
}

// A text in a zero-filled field of `N` bytes.
template <ULONG N>
NTSTATUS ReturnText(const Request& request, const char (&text)[N])
{
    if (request.InputLength != 0)
        return request.Finish(STATUS_INVALID_PARAMETER, 0);
    if (request.OutputLength < N)
        return request.Finish(STATUS_BUFFER_TOO_SMALL, 1); // why: one, not the size
    RtlCopyMemory(request.Buffer, text, N);
    return request.Finish(STATUS_SUCCESS, N);
}

NTSTATUS QueryVersion(const Request& request)
{
    char text[GPS_VERSION_SIZE] = {};
    RtlStringCbPrintfA(text, sizeof(text), "%u.%u.%u.%u", kMajor, kMinor, kBuild, kRevision);
    return ReturnText(request, text);
}

NTSTATUS QueryShortVersion(const Request& request)
{
    char text[GPS_SHORT_VERSION_SIZE] = {};
    RtlStringCbPrintfA(text, sizeof(text), "%u.%u", kMajor, kMinor);
    return ReturnText(request, text);
}

NTSTATUS QueryBuildDate(const Request& request)
{
    char text[GPS_BUILD_DATE_SIZE] = {};
    RtlStringCbPrintfA(text, sizeof(text), "%s", kBuildDate);
    return ReturnText(request, text);
}

struct GPS_CONTROL {
    ULONG Code;
    NTSTATUS (*Serve)(const Request& request);
    bool ReturnsSuccess; // why: the dispatch routine's return value hides the status from its caller
};

constexpr GPS_CONTROL kControls[] = {
    {IOCTL_GPS_GET_COMM_PORT, GetCommPort, false},
    {IOCTL_GPS_GET_APPLICATION_COUNT, GetApplicationCount, true},
    {IOCTL_GPS_GET_NMEA_MODE, GetNmeaMode, true},
    {IOCTL_GPS_SET_NMEA_MODE, SetNmeaMode, true},
    {IOCTL_GPS_RESET_GPS, ResetGps, true},
    {IOCTL_GPS_QUERY_VERSION, QueryVersion, false},
    {IOCTL_GPS_QUERY_SHORT_VERSION, QueryShortVersion, false},
    {IOCTL_GPS_QUERY_BUILD_DATE, QueryBuildDate, false},
};

} // namespace

bool ServeGpsControl(PDEVICE_OBJECT device, PIRP irp, NTSTATUS* status)
{
    const auto& parameters = IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl;
    for (const GPS_CONTROL& control : kControls) {
        if (control.Code != parameters.IoControlCode)
            continue;
        const Request request = {GetExtension(device), irp, parameters.InputBufferLength,
                                 parameters.OutputBufferLength, irp->AssociatedIrp.SystemBuffer};
        const NTSTATUS completed = control.Serve(request);
        *status = control.ReturnsSuccess ? STATUS_SUCCESS : completed;
        return true;
    }
    return false;
}
