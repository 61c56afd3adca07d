// Walks through configuration descriptors.
#pragma once

#include <span>
#include <usb.h>
#include <vector>

namespace host {

inline const UCHAR* UsbEndOf(const USB_CONFIGURATION_DESCRIPTOR* configuration)
{
    return reinterpret_cast<const UCHAR*>(configuration) + configuration->wTotalLength;
}

// The descriptor at or after `position` that `wanted` accepts. Stops at the end of the buffer and at a
// descriptor that cannot be one.
template <class Wanted>
PUSB_COMMON_DESCRIPTOR UsbFindDescriptor(const UCHAR* position, const UCHAR* end, Wanted wanted)
{
    while (end - position >= static_cast<std::ptrdiff_t>(sizeof(USB_COMMON_DESCRIPTOR))) {
        auto* descriptor = reinterpret_cast<PUSB_COMMON_DESCRIPTOR>(const_cast<UCHAR*>(position));
        if (descriptor->bLength < sizeof(USB_COMMON_DESCRIPTOR) || descriptor->bLength > end - position)
            return nullptr;
        if (wanted(*descriptor))
            return descriptor;
        position += descriptor->bLength;
    }
    return nullptr;
}

// The endpoints of an interface, as many as are there.
std::vector<const USB_ENDPOINT_DESCRIPTOR*>
UsbEndpointsOf(const USB_CONFIGURATION_DESCRIPTOR* configuration,
               const USB_INTERFACE_DESCRIPTOR* interface_descriptor);

// Fills all but the handles.
void UsbFillInterface(PUSBD_INTERFACE_INFORMATION information, const USB_INTERFACE_DESCRIPTOR* descriptor,
                      std::span<const USB_ENDPOINT_DESCRIPTOR* const> endpoints);

} // namespace host
