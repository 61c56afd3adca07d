// URBs as they arrive: what they ask for, and whether the bus takes them.
#include "io/device.h"
#include "io/names.h"
#include "usbd/descriptors.h"
#include "usbd/urb.h"
#include "usbd/usb_port.h"

#include <algorithm>
#include <cstring>

#include <usbdlib.h>

namespace host {
namespace {

constexpr std::uint8_t kToHost = 0x80;
constexpr std::uint8_t kClass = 0x20;
constexpr std::uint8_t kVendor = 0x40;
constexpr std::uint8_t kToInterface = 0x01;
constexpr std::uint8_t kToEndpoint = 0x02;
constexpr std::uint8_t kToOther = 0x03;

// bmRequestType without the direction, for the URB functions that name it.
std::optional<std::uint8_t> RecipientOf(USHORT function)
{
    switch (function) {
    case URB_FUNCTION_VENDOR_DEVICE: return kVendor;
    case URB_FUNCTION_VENDOR_INTERFACE: return kVendor | kToInterface;
    case URB_FUNCTION_VENDOR_ENDPOINT: return kVendor | kToEndpoint;
    case URB_FUNCTION_VENDOR_OTHER: return kVendor | kToOther;
    case URB_FUNCTION_CLASS_DEVICE: return kClass;
    case URB_FUNCTION_CLASS_INTERFACE: return kClass | kToInterface;
    case URB_FUNCTION_CLASS_ENDPOINT: return kClass | kToEndpoint;
    case URB_FUNCTION_CLASS_OTHER: return kClass | kToOther;
    default: return std::nullopt;
    }
}

struct FeatureCode {
    USHORT function;
    std::uint8_t request;
    std::uint8_t type;
};

constexpr FeatureCode kFeatures[] = {
    {URB_FUNCTION_SET_FEATURE_TO_DEVICE, USB_REQUEST_SET_FEATURE, 0},
    {URB_FUNCTION_SET_FEATURE_TO_INTERFACE, USB_REQUEST_SET_FEATURE, kToInterface},
    {URB_FUNCTION_SET_FEATURE_TO_ENDPOINT, USB_REQUEST_SET_FEATURE, kToEndpoint},
    {URB_FUNCTION_CLEAR_FEATURE_TO_DEVICE, USB_REQUEST_CLEAR_FEATURE, 0},
    {URB_FUNCTION_CLEAR_FEATURE_TO_INTERFACE, USB_REQUEST_CLEAR_FEATURE, kToInterface},
    {URB_FUNCTION_CLEAR_FEATURE_TO_ENDPOINT, USB_REQUEST_CLEAR_FEATURE, kToEndpoint},
    {URB_FUNCTION_GET_STATUS_FROM_DEVICE, USB_REQUEST_GET_STATUS, kToHost},
    {URB_FUNCTION_GET_STATUS_FROM_INTERFACE, USB_REQUEST_GET_STATUS, kToHost | kToInterface},
    {URB_FUNCTION_GET_STATUS_FROM_ENDPOINT, USB_REQUEST_GET_STATUS, kToHost | kToEndpoint},
};

const FeatureCode* FeatureOf(USHORT function)
{
    const auto* found = std::find_if(std::begin(kFeatures), std::end(kFeatures),
                                     [=](const FeatureCode& code) { return code.function == function; });
    return found == std::end(kFeatures) ? nullptr : found;
}

module::SetupPacket SetupOfDescriptor(const _URB_CONTROL_DESCRIPTOR_REQUEST& request, bool get)
{
    return {get ? kToHost : std::uint8_t{0},
            static_cast<std::uint8_t>(get ? USB_REQUEST_GET_DESCRIPTOR : USB_REQUEST_SET_DESCRIPTOR),
            static_cast<std::uint16_t>(request.DescriptorType << 8 | request.Index), request.LanguageId,
            static_cast<std::uint16_t>(request.TransferBufferLength)};
}

module::SetupPacket SetupOfClass(const _URB_CONTROL_VENDOR_OR_CLASS_REQUEST& request, std::uint8_t type)
{
    const bool in = (request.TransferFlags & USBD_TRANSFER_DIRECTION_IN) != 0;
    return {static_cast<std::uint8_t>((in ? kToHost : 0) | type | (request.RequestTypeReservedBits & ~0xE3U)),
            request.Request, request.Value, request.Index,
            static_cast<std::uint16_t>(request.TransferBufferLength)};
}

module::SetupPacket SetupOfRaw(const UCHAR (&bytes)[8])
{
    const auto word = [&](int at) { return static_cast<std::uint16_t>(bytes[at] | bytes[at + 1] << 8); };
    return {bytes[0], bytes[1], word(2), word(4), word(6)};
}

void Report(Rule rule, PURB urb, const std::string& text)
{
    const char* name = UrbFunctionName(urb->UrbHeader.Function);
    VfReport(rule, name, std::string(name) + ": " + text);
}

// A select URB's interfaces, one after the other; each says how long it is.
std::vector<PUSBD_INTERFACE_INFORMATION> InterfacesOf(PURB urb)
{
    std::vector<PUSBD_INTERFACE_INFORMATION> found;
    const bool whole = urb->UrbHeader.Function == URB_FUNCTION_SELECT_CONFIGURATION;
    const std::size_t first =
        whole ? offsetof(_URB_SELECT_CONFIGURATION, Interface) : offsetof(_URB_SELECT_INTERFACE, Interface);
    constexpr std::size_t kHead = offsetof(USBD_INTERFACE_INFORMATION, Pipes);
    for (std::size_t at = first; at + kHead <= urb->UrbHeader.Length;) {
        auto* information = reinterpret_cast<PUSBD_INTERFACE_INFORMATION>(reinterpret_cast<UCHAR*>(urb) + at);
        if (information->Length < kHead || at + information->Length > urb->UrbHeader.Length)
            break;
        found.push_back(information);
        at += information->Length;
    }
    return found;
}

} // namespace

USBD_STATUS UsbPort::Accept(PURB urb, UsbTransfer& transfer)
{
    const USHORT function = urb->UrbHeader.Function;
    UsbRequest entry;
    entry.submitted = Kernel::Current().InterruptTime();
    entry.function = function;
    entry.name = UrbFunctionName(function);
    if (in_flight_.contains(urb)) {
        Report(Rule::UrbReused, urb, "submitted again before it came back");
        return USBD_STATUS_INVALID_PARAMETER;
    }
    const std::optional<USHORT> length = UrbLength(function);
    if (!length)
        return USBD_STATUS_INVALID_URB_FUNCTION;
    if (*length != 0 && urb->UrbHeader.Length != *length) {
        Report(Rule::UrbMalformed, urb,
               "its length is " + std::to_string(urb->UrbHeader.Length) + ", not " + std::to_string(*length));
        return USBD_STATUS_INVALID_PARAMETER;
    }
    if (!started_)
        Report(Rule::UrbAfterRemove, urb, "the device is not started");
    if (power_ != PowerDeviceD0)
        Report(Rule::UrbNotInD0, urb, "the device is in D" + std::to_string(power_ - PowerDeviceD0));
    const bool pipe_request = UrbIsTransfer(function) || *length == sizeof(_URB_PIPE_REQUEST);
    USBD_STATUS status = USBD_STATUS_PENDING;
    if (gone_)
        status = USBD_STATUS_DEVICE_GONE;
    else if (!started_ || power_ != PowerDeviceD0)
        status = USBD_STATUS_INTERNAL_HC_ERROR;
    else
        status = pipe_request ? AcceptPipe(urb, transfer) : AcceptControl(urb, transfer);
    entry.endpoint = transfer.pipe != nullptr ? transfer.pipe->endpoint : UCHAR{0};
    if (UrbIsTransfer(function)) {
        entry.length = urb->UrbBulkOrInterruptTransfer.TransferBufferLength;
        const auto* bytes = static_cast<const UCHAR*>(urb->UrbBulkOrInterruptTransfer.TransferBuffer);
        if (USB_ENDPOINT_DIRECTION_OUT(entry.endpoint) && status == USBD_STATUS_PENDING)
            entry.data.assign(bytes, bytes + std::min<std::size_t>(entry.length, UsbRequest::kDataKept));
    } else if (!transfer.steps.empty()) {
        entry.length = transfer.steps.back().wLength;
    }
    transfer.request = bus_.NewRequest(std::move(entry));
    Kernel::Current().Log().AsyncBegin("usb", UrbFunctionName(function), &transfer);
    return status;
}

UsbPipe* UsbPort::FindPipe(USBD_PIPE_HANDLE handle)
{
    auto found =
        std::find_if(pipes_.begin(), pipes_.end(), [=](const UsbPipe& pipe) { return &pipe == handle; });
    return found == pipes_.end() ? nullptr : &*found;
}

USBD_STATUS UsbPort::AcceptPipe(PURB urb, UsbTransfer& transfer)
{
    const USHORT function = urb->UrbHeader.Function;
    // The handle is at the same place in both kinds of URB.
    UsbPipe* pipe = FindPipe(urb->UrbPipeRequest.PipeHandle);
    if (pipe == nullptr || !pipe->open) {
        Report(Rule::UrbPipeStale, urb, pipe == nullptr ? "the handle never was one" : "the pipe was closed");
        return USBD_STATUS_INVALID_PIPE_HANDLE;
    }
    transfer.pipe = pipe;
    transfer.endpoint = pipe->endpoint;
    if (UrbIsTransfer(function)) {
        const auto& request = urb->UrbBulkOrInterruptTransfer;
        return request.TransferBuffer == nullptr && request.TransferBufferLength != 0
                   ? USBD_STATUS_INVALID_PARAMETER
                   : USBD_STATUS_PENDING;
    }
    if (function == URB_FUNCTION_ABORT_PIPE)
        return USBD_STATUS_PENDING;
    if (!endpoints_[pipe->endpoint].queue.empty())
        return USBD_STATUS_ERROR_BUSY;
    if (function != URB_FUNCTION_SYNC_RESET_PIPE)
        transfer.steps = {
            {kToEndpoint, USB_REQUEST_CLEAR_FEATURE, USB_FEATURE_ENDPOINT_STALL, pipe->endpoint, 0}};
    transfer.endpoint = 0;
    return USBD_STATUS_PENDING;
}

USBD_STATUS UsbPort::AcceptControl(PURB urb, UsbTransfer& transfer)
{
    const USHORT function = urb->UrbHeader.Function;
    if (const std::optional<std::uint8_t> type = RecipientOf(function)) {
        transfer.steps = {SetupOfClass(urb->UrbControlVendorClassRequest, *type)};
        return USBD_STATUS_PENDING;
    }
    if (const FeatureCode* feature = FeatureOf(function)) {
        const bool get = feature->request == USB_REQUEST_GET_STATUS;
        const auto& status = urb->UrbControlGetStatusRequest;
        const auto& change = urb->UrbControlFeatureRequest;
        transfer.steps = {{feature->type, feature->request, get ? USHORT{0} : change.FeatureSelector,
                           get ? status.Index : change.Index,
                           static_cast<std::uint16_t>(get ? status.TransferBufferLength : 0)}};
        return USBD_STATUS_PENDING;
    }
    switch (function) {
    case URB_FUNCTION_SELECT_CONFIGURATION: return AcceptSelectConfiguration(urb, transfer);
    case URB_FUNCTION_SELECT_INTERFACE: return AcceptSelectInterface(urb, transfer);
    case URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE:
    case URB_FUNCTION_SET_DESCRIPTOR_TO_DEVICE:
        transfer.steps = {SetupOfDescriptor(urb->UrbControlDescriptorRequest,
                                            function == URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE)};
        return USBD_STATUS_PENDING;
    case URB_FUNCTION_CONTROL_TRANSFER:
        transfer.steps = {SetupOfRaw(urb->UrbControlTransfer.SetupPacket)};
        return transfer.steps[0].wLength > urb->UrbControlTransfer.TransferBufferLength
                   ? USBD_STATUS_INVALID_PARAMETER
                   : USBD_STATUS_PENDING;
    case URB_FUNCTION_GET_CURRENT_FRAME_NUMBER:
        urb->UrbGetCurrentFrameNumber.FrameNumber =
            static_cast<ULONG>(Kernel::Current().InterruptTime() / kMillisecond);
        return USBD_STATUS_SUCCESS;
    default: return USBD_STATUS_INVALID_URB_FUNCTION;
    }
}

// The configuration is set once; choosing other interfaces of the same configuration afterwards only opens
// them, as for the functions of a composite device, which share it.
USBD_STATUS UsbPort::AcceptSelectConfiguration(PURB urb, UsbTransfer& transfer)
{
    auto* descriptor = urb->UrbSelectConfiguration.ConfigurationDescriptor;
    if (descriptor == nullptr) {
        transfer.steps = {{0, USB_REQUEST_SET_CONFIGURATION, 0, 0, 0}};
        return USBD_STATUS_PENDING;
    }
    const std::vector<PUSBD_INTERFACE_INFORMATION> interfaces = InterfacesOf(urb);
    if (interfaces.empty())
        return USBD_STATUS_INVALID_PARAMETER;
    const auto* bytes = reinterpret_cast<const UCHAR*>(descriptor);
    descriptor_.assign(bytes, bytes + descriptor->wTotalLength);
    if (configuration_ != descriptor->bConfigurationValue)
        transfer.steps.push_back({0, USB_REQUEST_SET_CONFIGURATION, descriptor->bConfigurationValue, 0, 0});
    for (const PUSBD_INTERFACE_INFORMATION information : interfaces) {
        auto* found = USBD_ParseConfigurationDescriptorEx(
            descriptor, descriptor, information->InterfaceNumber, information->AlternateSetting, -1, -1, -1);
        if (found == nullptr)
            return USBD_STATUS_INTERFACE_NOT_FOUND;
        const std::size_t expected = offsetof(USBD_INTERFACE_INFORMATION, Pipes) +
                                     found->bNumEndpoints * sizeof(USBD_PIPE_INFORMATION);
        if (information->Length != expected || information->NumberOfPipes != found->bNumEndpoints)
            return USBD_STATUS_INVALID_PARAMETER;
        if (information->AlternateSetting != 0)
            transfer.steps.push_back({kToInterface, USB_REQUEST_SET_INTERFACE, information->AlternateSetting,
                                      information->InterfaceNumber, 0});
    }
    return USBD_STATUS_PENDING;
}

USBD_STATUS UsbPort::AcceptSelectInterface(PURB urb, UsbTransfer& transfer)
{
    const std::vector<PUSBD_INTERFACE_INFORMATION> interfaces = InterfacesOf(urb);
    if (interfaces.size() != 1 || configuration_ == 0)
        return USBD_STATUS_INVALID_PARAMETER;
    transfer.steps = {{kToInterface, USB_REQUEST_SET_INTERFACE, interfaces[0]->AlternateSetting,
                       interfaces[0]->InterfaceNumber, 0}};
    return USBD_STATUS_PENDING;
}

void UsbPort::OpenInterfaces(PURB urb)
{
    if (urb->UrbHeader.Function == URB_FUNCTION_SELECT_CONFIGURATION) {
        auto& select = urb->UrbSelectConfiguration;
        const UCHAR value = select.ConfigurationDescriptor == nullptr
                                ? UCHAR{0}
                                : select.ConfigurationDescriptor->bConfigurationValue;
        if (value != configuration_)
            ClosePipes(std::nullopt);
        configuration_ = value;
        select.ConfigurationHandle = value == 0 ? nullptr : this;
        if (value == 0)
            return;
    }
    for (const PUSBD_INTERFACE_INFORMATION information : InterfacesOf(urb))
        OpenInterface(information);
}

void UsbPort::OpenInterface(PUSBD_INTERFACE_INFORMATION information)
{
    ClosePipes(information->InterfaceNumber);
    const auto* configuration = reinterpret_cast<const USB_CONFIGURATION_DESCRIPTOR*>(descriptor_.data());
    const auto* found = USBD_ParseConfigurationDescriptorEx(
        const_cast<PUSB_CONFIGURATION_DESCRIPTOR>(configuration), descriptor_.data(),
        information->InterfaceNumber, information->AlternateSetting, -1, -1, -1);
    if (found == nullptr)
        return;
    const auto endpoints = UsbEndpointsOf(configuration, found);
    if (information->Length <
        offsetof(USBD_INTERFACE_INFORMATION, Pipes) + endpoints.size() * sizeof(USBD_PIPE_INFORMATION))
        return;
    UsbFillInterface(information, found, endpoints);
    information->InterfaceHandle = this;
    for (ULONG i = 0; i < information->NumberOfPipes; ++i) {
        USBD_PIPE_INFORMATION& pipe = information->Pipes[i];
        pipes_.push_back({pipe.EndpointAddress, pipe.PipeType, pipe.MaximumPacketSize,
                          information->InterfaceNumber, true});
        pipe.PipeHandle = &pipes_.back();
        endpoints_[pipe.EndpointAddress].halted = false;
    }
}

void UsbPort::ClosePipes(std::optional<UCHAR> interface_number)
{
    for (UsbPipe& pipe : pipes_) {
        if (!interface_number || pipe.interface_number == *interface_number)
            pipe.open = false;
    }
}

} // namespace host
