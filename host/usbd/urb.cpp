#include "usbd/urb.h"

#include <algorithm>
#include <iterator>

namespace host {
namespace {

constexpr USHORT kDescriptor = sizeof(_URB_CONTROL_DESCRIPTOR_REQUEST);
constexpr USHORT kFeature = sizeof(_URB_CONTROL_FEATURE_REQUEST);
constexpr USHORT kStatus = sizeof(_URB_CONTROL_GET_STATUS_REQUEST);
constexpr USHORT kClass = sizeof(_URB_CONTROL_VENDOR_OR_CLASS_REQUEST);
constexpr USHORT kPipe = sizeof(_URB_PIPE_REQUEST);
constexpr USHORT kVarying = 0;

struct Function {
    USHORT code;
    USHORT length;
    const char* name;
};

constexpr Function kFunctions[] = {
    {URB_FUNCTION_SELECT_CONFIGURATION, kVarying, "SELECT_CONFIGURATION"},
    {URB_FUNCTION_SELECT_INTERFACE, kVarying, "SELECT_INTERFACE"},
    {URB_FUNCTION_ABORT_PIPE, kPipe, "ABORT_PIPE"},
    {URB_FUNCTION_GET_CURRENT_FRAME_NUMBER, sizeof(_URB_GET_CURRENT_FRAME_NUMBER),
     "GET_CURRENT_FRAME_NUMBER"},
    {URB_FUNCTION_CONTROL_TRANSFER, sizeof(_URB_CONTROL_TRANSFER), "CONTROL_TRANSFER"},
    {URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER, sizeof(_URB_BULK_OR_INTERRUPT_TRANSFER),
     "BULK_OR_INTERRUPT_TRANSFER"},
    {URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE, kDescriptor, "GET_DESCRIPTOR_FROM_DEVICE"},
    {URB_FUNCTION_SET_DESCRIPTOR_TO_DEVICE, kDescriptor, "SET_DESCRIPTOR_TO_DEVICE"},
    {URB_FUNCTION_SET_FEATURE_TO_DEVICE, kFeature, "SET_FEATURE_TO_DEVICE"},
    {URB_FUNCTION_SET_FEATURE_TO_INTERFACE, kFeature, "SET_FEATURE_TO_INTERFACE"},
    {URB_FUNCTION_SET_FEATURE_TO_ENDPOINT, kFeature, "SET_FEATURE_TO_ENDPOINT"},
    {URB_FUNCTION_CLEAR_FEATURE_TO_DEVICE, kFeature, "CLEAR_FEATURE_TO_DEVICE"},
    {URB_FUNCTION_CLEAR_FEATURE_TO_INTERFACE, kFeature, "CLEAR_FEATURE_TO_INTERFACE"},
    {URB_FUNCTION_CLEAR_FEATURE_TO_ENDPOINT, kFeature, "CLEAR_FEATURE_TO_ENDPOINT"},
    {URB_FUNCTION_GET_STATUS_FROM_DEVICE, kStatus, "GET_STATUS_FROM_DEVICE"},
    {URB_FUNCTION_GET_STATUS_FROM_INTERFACE, kStatus, "GET_STATUS_FROM_INTERFACE"},
    {URB_FUNCTION_GET_STATUS_FROM_ENDPOINT, kStatus, "GET_STATUS_FROM_ENDPOINT"},
    {URB_FUNCTION_VENDOR_DEVICE, kClass, "VENDOR_DEVICE"},
    {URB_FUNCTION_VENDOR_INTERFACE, kClass, "VENDOR_INTERFACE"},
    {URB_FUNCTION_VENDOR_ENDPOINT, kClass, "VENDOR_ENDPOINT"},
    {URB_FUNCTION_CLASS_DEVICE, kClass, "CLASS_DEVICE"},
    {URB_FUNCTION_CLASS_INTERFACE, kClass, "CLASS_INTERFACE"},
    {URB_FUNCTION_CLASS_ENDPOINT, kClass, "CLASS_ENDPOINT"},
    {URB_FUNCTION_CLASS_OTHER, kClass, "CLASS_OTHER"},
    {URB_FUNCTION_VENDOR_OTHER, kClass, "VENDOR_OTHER"},
    {URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL, kPipe, "SYNC_RESET_PIPE_AND_CLEAR_STALL"},
    {URB_FUNCTION_SYNC_RESET_PIPE, kPipe, "SYNC_RESET_PIPE"},
    {URB_FUNCTION_SYNC_CLEAR_STALL, kPipe, "SYNC_CLEAR_STALL"},
};

const Function* Find(USHORT code)
{
    const auto* found = std::find_if(std::begin(kFunctions), std::end(kFunctions),
                                     [=](const Function& function) { return function.code == code; });
    return found == std::end(kFunctions) ? nullptr : found;
}

} // namespace

const char* UrbFunctionName(USHORT function)
{
    const Function* found = Find(function);
    return found == nullptr ? "unknown URB function" : found->name;
}

std::optional<USHORT> UrbLength(USHORT function)
{
    const Function* found = Find(function);
    return found == nullptr ? std::nullopt : std::optional(found->length);
}

NTSTATUS UrbNtStatus(USBD_STATUS status)
{
    switch (status) {
    case USBD_STATUS_SUCCESS: return STATUS_SUCCESS;
    case USBD_STATUS_CANCELED: return STATUS_CANCELLED;
    case USBD_STATUS_DEVICE_GONE:
    case USBD_STATUS_DEV_NOT_RESPONDING: return STATUS_DEVICE_NOT_CONNECTED;
    case USBD_STATUS_INSUFFICIENT_RESOURCES: return STATUS_INSUFFICIENT_RESOURCES;
    case USBD_STATUS_ERROR_BUSY: return STATUS_DEVICE_BUSY;
    case USBD_STATUS_NOT_SUPPORTED: return STATUS_NOT_SUPPORTED;
    case USBD_STATUS_INVALID_URB_FUNCTION:
    case USBD_STATUS_INVALID_PIPE_HANDLE:
    case USBD_STATUS_INVALID_PARAMETER:
    case USBD_STATUS_INTERFACE_NOT_FOUND:
    case USBD_STATUS_BAD_DESCRIPTOR: return STATUS_INVALID_PARAMETER;
    case USBD_STATUS_BUFFER_TOO_SMALL: return STATUS_BUFFER_TOO_SMALL;
    default: return STATUS_UNSUCCESSFUL; // stalls and errors on the wire
    }
}

bool UrbIsTransfer(USHORT function)
{
    return function == URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER;
}

bool UrbIsPassive(USHORT function)
{
    return function == URB_FUNCTION_SELECT_CONFIGURATION || function == URB_FUNCTION_SELECT_INTERFACE ||
           function == URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL ||
           function == URB_FUNCTION_SYNC_RESET_PIPE || function == URB_FUNCTION_SYNC_CLEAR_STALL ||
           function == URB_FUNCTION_ABORT_PIPE;
}

} // namespace host
