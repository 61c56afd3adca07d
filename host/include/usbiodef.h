// Function numbers, interface classes and the idle request of the USB stack.
#pragma once
#include <wdm.h>

#define FILE_DEVICE_USB FILE_DEVICE_UNKNOWN

#define USB_SUBMIT_URB 0
#define USB_RESET_PORT 1
#define USB_GET_PORT_STATUS 4
#define USB_CYCLE_PORT 7
#define USB_IDLE_NOTIFICATION 9

DEFINE_GUID(GUID_DEVINTERFACE_USB_HUB, 0xf18a0e88, 0xc30c, 0x11d0, 0x88, 0x15, 0x00, 0xa0, 0xc9, 0x06, 0xbe,
            0xd8);
DEFINE_GUID(GUID_DEVINTERFACE_USB_DEVICE, 0xa5dcbf10, 0x6530, 0x11d2, 0x90, 0x1f, 0x00, 0xc0, 0x4f, 0xb9,
            0x51, 0xed);

/// Called at PASSIVE_LEVEL when the bus lets the device suspend; it must not block longer than the
/// device takes to leave D0.
typedef VOID(NTAPI* USB_IDLE_CALLBACK)(PVOID Context);

typedef struct _USB_IDLE_CALLBACK_INFO {
    USB_IDLE_CALLBACK IdleCallback;
    PVOID IdleContext;
} USB_IDLE_CALLBACK_INFO, *PUSB_IDLE_CALLBACK_INFO;
