// USBD_*: what the bus driver's library gives to client drivers.
#include "usbd/descriptors.h"

#include <algorithm>
#include <cstring>
#include <usbdlib.h>
#include <vector>

namespace {

constexpr ULONG kUrbTag = 0x44425355; // "USBD"

bool Matches(LONG wanted, UCHAR value)
{
    return wanted == -1 || wanted == value;
}

} // namespace

extern "C" {

VOID NTAPI USBD_GetUSBDIVersion(PUSBD_VERSION_INFORMATION VersionInformation)
{
    constexpr ULONG kUsb20 = 0x0200;
    VersionInformation->USBDI_Version = USBDI_VERSION;
    VersionInformation->Supported_USB_Version = kUsb20;
}

PUSB_COMMON_DESCRIPTOR NTAPI USBD_ParseDescriptors(PVOID DescriptorBuffer, ULONG TotalLength,
                                                   PVOID StartPosition, LONG DescriptorType)
{
    const UCHAR* end = static_cast<const UCHAR*>(DescriptorBuffer) + TotalLength;
    return host::UsbFindDescriptor(
        static_cast<const UCHAR*>(StartPosition), end,
        [=](const USB_COMMON_DESCRIPTOR& item) { return item.bDescriptorType == DescriptorType; });
}

PUSB_INTERFACE_DESCRIPTOR NTAPI USBD_ParseConfigurationDescriptorEx(
    PUSB_CONFIGURATION_DESCRIPTOR ConfigurationDescriptor, PVOID StartPosition, LONG InterfaceNumber,
    LONG AlternateSetting, LONG InterfaceClass, LONG InterfaceSubClass, LONG InterfaceProtocol)
{
    const auto wanted = [=](const USB_COMMON_DESCRIPTOR& item) {
        if (item.bDescriptorType != USB_INTERFACE_DESCRIPTOR_TYPE ||
            item.bLength < sizeof(USB_INTERFACE_DESCRIPTOR))
            return false;
        const auto& candidate = reinterpret_cast<const USB_INTERFACE_DESCRIPTOR&>(item);
        return Matches(InterfaceNumber, candidate.bInterfaceNumber) &&
               Matches(AlternateSetting, candidate.bAlternateSetting) &&
               Matches(InterfaceClass, candidate.bInterfaceClass) &&
               Matches(InterfaceSubClass, candidate.bInterfaceSubClass) &&
               Matches(InterfaceProtocol, candidate.bInterfaceProtocol);
    };
    return reinterpret_cast<PUSB_INTERFACE_DESCRIPTOR>(host::UsbFindDescriptor(
        static_cast<const UCHAR*>(StartPosition), host::UsbEndOf(ConfigurationDescriptor), wanted));
}

PURB NTAPI USBD_CreateConfigurationRequestEx(PUSB_CONFIGURATION_DESCRIPTOR ConfigurationDescriptor,
                                             PUSBD_INTERFACE_LIST_ENTRY InterfaceList)
{
    std::size_t size = offsetof(_URB_SELECT_CONFIGURATION, Interface);
    std::vector<std::vector<const USB_ENDPOINT_DESCRIPTOR*>> endpoints;
    for (PUSBD_INTERFACE_LIST_ENTRY entry = InterfaceList; entry->InterfaceDescriptor != nullptr; ++entry) {
        endpoints.push_back(host::UsbEndpointsOf(ConfigurationDescriptor, entry->InterfaceDescriptor));
        size += offsetof(USBD_INTERFACE_INFORMATION, Pipes) +
                endpoints.back().size() * sizeof(USBD_PIPE_INFORMATION);
    }
    // The structure has room for one interface with one pipe however short the list is.
    size = std::max(size, sizeof(_URB_SELECT_CONFIGURATION));
    auto* urb = static_cast<PURB>(ExAllocatePoolWithTag(NonPagedPool, size, kUrbTag));
    if (urb == nullptr)
        return nullptr;
    std::memset(static_cast<void*>(urb), 0, size);
    UsbBuildSelectConfigurationRequest(urb, static_cast<USHORT>(size), ConfigurationDescriptor);
    PUSBD_INTERFACE_INFORMATION information = &urb->UrbSelectConfiguration.Interface;
    for (std::size_t i = 0; i < endpoints.size(); ++i) {
        host::UsbFillInterface(information, InterfaceList[i].InterfaceDescriptor, endpoints[i]);
        InterfaceList[i].Interface = information;
        information = reinterpret_cast<PUSBD_INTERFACE_INFORMATION>(reinterpret_cast<UCHAR*>(information) +
                                                                    information->Length);
    }
    return urb;
}

} // extern "C"
