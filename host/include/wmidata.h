// WMI data blocks of serial ports. The GUIDs are brace initialisers.
#pragma once
#include <wmistr.h>

#define SERIAL_PORT_WMI_NAME_GUID                                                                            \
    {                                                                                                        \
        0xa0ec11a8, 0xb16c, 0x11d1,                                                                          \
        {                                                                                                    \
            0xbd, 0x98, 0x00, 0xa0, 0xc9, 0x06, 0xbe, 0x2d                                                   \
        }                                                                                                    \
    }
#define SERIAL_PORT_WMI_COMM_GUID                                                                            \
    {                                                                                                        \
        0xedb16a62, 0xb16c, 0x11d1,                                                                          \
        {                                                                                                    \
            0xbd, 0x98, 0x00, 0xa0, 0xc9, 0x06, 0xbe, 0x2d                                                   \
        }                                                                                                    \
    }
#define SERIAL_PORT_WMI_HW_GUID                                                                              \
    {                                                                                                        \
        0x270b9b86, 0xb16d, 0x11d1,                                                                          \
        {                                                                                                    \
            0xbd, 0x98, 0x00, 0xa0, 0xc9, 0x06, 0xbe, 0x2d                                                   \
        }                                                                                                    \
    }
#define SERIAL_PORT_WMI_PERF_GUID                                                                            \
    {                                                                                                        \
        0x56415acc, 0xb16d, 0x11d1,                                                                          \
        {                                                                                                    \
            0xbd, 0x98, 0x00, 0xa0, 0xc9, 0x06, 0xbe, 0x2d                                                   \
        }                                                                                                    \
    }
#define SERIAL_PORT_WMI_PROPERTIES_GUID                                                                      \
    {                                                                                                        \
        0x8209ec2a, 0x2d6b, 0x11d2,                                                                          \
        {                                                                                                    \
            0xba, 0x49, 0x00, 0xa0, 0xc9, 0x06, 0x29, 0x10                                                   \
        }                                                                                                    \
    }

#define SERIAL_WMI_PARITY_NONE 0
#define SERIAL_WMI_PARITY_ODD 1
#define SERIAL_WMI_PARITY_EVEN 2
#define SERIAL_WMI_PARITY_SPACE 3
#define SERIAL_WMI_PARITY_MARK 4
#define SERIAL_WMI_STOP_1 0
#define SERIAL_WMI_STOP_1_5 1
#define SERIAL_WMI_STOP_2 2

typedef struct _SERIAL_WMI_COMM_DATA {
    ULONG BaudRate;
    ULONG BitsPerByte;
    ULONG Parity;
    BOOLEAN ParityCheckEnable;
    ULONG StopBits;
    ULONG XoffCharacter;
    ULONG XoffXmitThreshold;
    ULONG XonCharacter;
    ULONG XonXmitThreshold;
    ULONG MaximumBaudRate;
    ULONG MaximumOutputBufferSize;
    ULONG MaximumInputBufferSize;
    BOOLEAN Support16BitMode;
    BOOLEAN SupportDTRDSR;
    BOOLEAN SupportIntervalTimeouts;
    BOOLEAN SupportParityCheck;
    BOOLEAN SupportRTSCTS;
    BOOLEAN SupportXonXoff;
    BOOLEAN SettableBaudRate;
    BOOLEAN SettableDataBits;
    BOOLEAN SettableFlowControl;
    BOOLEAN SettableParity;
    BOOLEAN SettableParityCheck;
    BOOLEAN SettableStopBits;
    BOOLEAN IsBusy;
} SERIAL_WMI_COMM_DATA, *PSERIAL_WMI_COMM_DATA;

typedef struct _SERIAL_WMI_HW_DATA {
    ULONG IrqNumber;
    ULONG IrqVector;
    ULONG IrqLevel;
    ULONGLONG IrqAffinityMask;
    ULONG InterruptType;
    ULONGLONG BaseIOAddress;
} SERIAL_WMI_HW_DATA, *PSERIAL_WMI_HW_DATA;

typedef struct _SERIAL_WMI_PERF_DATA {
    ULONG ReceivedCount;
    ULONG TransmittedCount;
    ULONG FrameErrorCount;
    ULONG SerialOverrunErrorCount;
    ULONG BufferOverrunErrorCount;
    ULONG ParityErrorCount;
} SERIAL_WMI_PERF_DATA, *PSERIAL_WMI_PERF_DATA;
