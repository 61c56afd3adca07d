// Routines of the USB library driver, and the builders of common request blocks.
#pragma once
#include <usb.h>

/// One row per interface; a null descriptor ends the list.
typedef struct _USBD_INTERFACE_LIST_ENTRY {
    PUSB_INTERFACE_DESCRIPTOR InterfaceDescriptor;
    PUSBD_INTERFACE_INFORMATION Interface;
} USBD_INTERFACE_LIST_ENTRY, *PUSBD_INTERFACE_LIST_ENTRY;

extern "C" {

VOID NTAPI USBD_GetUSBDIVersion(PUSBD_VERSION_INFORMATION VersionInformation);
/// -1 matches any value. nullptr when no descriptor from StartPosition on matches.
PUSB_INTERFACE_DESCRIPTOR NTAPI USBD_ParseConfigurationDescriptorEx(
    PUSB_CONFIGURATION_DESCRIPTOR ConfigurationDescriptor, PVOID StartPosition, LONG InterfaceNumber,
    LONG AlternateSetting, LONG InterfaceClass, LONG InterfaceSubClass, LONG InterfaceProtocol);
PUSB_COMMON_DESCRIPTOR NTAPI USBD_ParseDescriptors(PVOID DescriptorBuffer, ULONG TotalLength,
                                                   PVOID StartPosition, LONG DescriptorType);
/// A select-configuration request from the pool; the caller frees it with ExFreePool.
_IRQL_requires_max_(APC_LEVEL) PURB NTAPI
    USBD_CreateConfigurationRequestEx(PUSB_CONFIGURATION_DESCRIPTOR ConfigurationDescriptor,
                                      PUSBD_INTERFACE_LIST_ENTRY InterfaceList);

} // extern "C"

#define GET_SELECT_CONFIGURATION_REQUEST_SIZE(totalInterfaces, totalPipes)                                   \
    (sizeof(struct _URB_SELECT_CONFIGURATION) + ((totalInterfaces)-1) * sizeof(USBD_INTERFACE_INFORMATION) + \
     ((totalPipes) - (totalInterfaces)) * sizeof(USBD_PIPE_INFORMATION))
#define GET_USBD_INTERFACE_SIZE(endpoints)                                                                   \
    (sizeof(USBD_INTERFACE_INFORMATION) + ((endpoints)-1) * sizeof(USBD_PIPE_INFORMATION))

inline VOID UsbBuildInterruptOrBulkTransferRequest(PURB Urb, USHORT Length, USBD_PIPE_HANDLE PipeHandle,
                                                   PVOID TransferBuffer, PMDL TransferBufferMDL,
                                                   ULONG TransferBufferLength, ULONG TransferFlags, PURB Link)
{
    auto& transfer = Urb->UrbBulkOrInterruptTransfer;
    transfer.Hdr.Function = URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER;
    transfer.Hdr.Length = Length;
    transfer.PipeHandle = PipeHandle;
    transfer.TransferBufferLength = TransferBufferLength;
    transfer.TransferBufferMDL = TransferBufferMDL;
    transfer.TransferBuffer = TransferBuffer;
    transfer.TransferFlags = TransferFlags;
    transfer.UrbLink = Link;
}

inline VOID UsbBuildGetDescriptorRequest(PURB Urb, USHORT Length, UCHAR DescriptorType, UCHAR Index,
                                         USHORT LanguageId, PVOID TransferBuffer, PMDL TransferBufferMDL,
                                         ULONG TransferBufferLength, PURB Link)
{
    auto& request = Urb->UrbControlDescriptorRequest;
    request.Hdr.Function = URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE;
    request.Hdr.Length = Length;
    request.TransferBufferLength = TransferBufferLength;
    request.TransferBufferMDL = TransferBufferMDL;
    request.TransferBuffer = TransferBuffer;
    request.DescriptorType = DescriptorType;
    request.Index = Index;
    request.LanguageId = LanguageId;
    request.UrbLink = Link;
}

inline VOID UsbBuildSelectConfigurationRequest(PURB Urb, USHORT Length,
                                               PUSB_CONFIGURATION_DESCRIPTOR ConfigurationDescriptor)
{
    Urb->UrbSelectConfiguration.Hdr.Function = URB_FUNCTION_SELECT_CONFIGURATION;
    Urb->UrbSelectConfiguration.Hdr.Length = Length;
    Urb->UrbSelectConfiguration.ConfigurationDescriptor = ConfigurationDescriptor;
}
