#include "usbd/descriptors.h"

namespace host {

std::vector<const USB_ENDPOINT_DESCRIPTOR*>
UsbEndpointsOf(const USB_CONFIGURATION_DESCRIPTOR* configuration,
               const USB_INTERFACE_DESCRIPTOR* interface_descriptor)
{
    std::vector<const USB_ENDPOINT_DESCRIPTOR*> endpoints;
    const UCHAR* position =
        reinterpret_cast<const UCHAR*>(interface_descriptor) + interface_descriptor->bLength;
    while (endpoints.size() < interface_descriptor->bNumEndpoints) {
        auto* found =
            UsbFindDescriptor(position, UsbEndOf(configuration), [](const USB_COMMON_DESCRIPTOR& item) {
                return item.bDescriptorType == USB_ENDPOINT_DESCRIPTOR_TYPE ||
                       item.bDescriptorType == USB_INTERFACE_DESCRIPTOR_TYPE;
            });
        if (found == nullptr || found->bDescriptorType != USB_ENDPOINT_DESCRIPTOR_TYPE ||
            found->bLength < sizeof(USB_ENDPOINT_DESCRIPTOR))
            break;
        endpoints.push_back(reinterpret_cast<const USB_ENDPOINT_DESCRIPTOR*>(found));
        position = reinterpret_cast<const UCHAR*>(found) + found->bLength;
    }
    return endpoints;
}

void UsbFillInterface(PUSBD_INTERFACE_INFORMATION information, const USB_INTERFACE_DESCRIPTOR* descriptor,
                      std::span<const USB_ENDPOINT_DESCRIPTOR* const> endpoints)
{
    information->Length = static_cast<USHORT>(offsetof(USBD_INTERFACE_INFORMATION, Pipes) +
                                              endpoints.size() * sizeof(USBD_PIPE_INFORMATION));
    information->InterfaceNumber = descriptor->bInterfaceNumber;
    information->AlternateSetting = descriptor->bAlternateSetting;
    information->Class = descriptor->bInterfaceClass;
    information->SubClass = descriptor->bInterfaceSubClass;
    information->Protocol = descriptor->bInterfaceProtocol;
    information->NumberOfPipes = static_cast<ULONG>(endpoints.size());
    for (std::size_t i = 0; i < endpoints.size(); ++i) {
        USBD_PIPE_INFORMATION& pipe = information->Pipes[i];
        pipe.EndpointAddress = endpoints[i]->bEndpointAddress;
        pipe.PipeType = static_cast<USBD_PIPE_TYPE>(endpoints[i]->bmAttributes & USB_ENDPOINT_TYPE_MASK);
        pipe.Interval = endpoints[i]->bInterval;
        pipe.MaximumPacketSize = endpoints[i]->wMaxPacketSize;
        pipe.MaximumTransferSize = USBD_DEFAULT_MAXIMUM_TRANSFER_SIZE;
    }
}

} // namespace host
