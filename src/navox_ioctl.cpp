#include "navox_ioctl.h"

#include "navox_gps.h"
#include "navox_read.h"
#include "navox_requests.h"
#include "navox_utils.h"
#include "navox_write.h"

namespace {

// One serial control on its way through its handler. Input and output share the system buffer.
struct Control {
    DEVICE_EXTENSION* Device;
    CLIENT* Client;
    void* Buffer;
    ULONG OutputLength;
    ULONG_PTR Information; // set by the handler; counts only on success

    template <class T>
    T& As() const
    {
        return *static_cast<T*>(Buffer);
    }

    // The whole output goes to the application: a copy may leave out the padding between and behind the fields, and
    // then the buffer's former contents with it.
    template <class T>
    NTSTATUS Return(const T& value)
    {
        static_assert(__has_unique_object_representations(T));
        As<T>() = value;
        Information = sizeof(T);
        return STATUS_SUCCESS;
    }

    // For a structure with padding: the output, all zeros.
    template <class T>
    T& ReturnZeros()
    {
        RtlZeroMemory(Buffer, sizeof(T));
        Information = sizeof(T);
        return As<T>();
    }
};

constexpr ULONG kWord = sizeof(ULONG);
constexpr ULONG kInvalidWaitMask = 0xFFFFE000;
constexpr ULONG kInvalidControlHandShake = 0x7FFFFF84;
constexpr ULONG kInvalidFlowReplace = 0x7FFFFF20;
constexpr ULONG kDtrMask = SERIAL_DTR_CONTROL | SERIAL_DTR_HANDSHAKE;
constexpr ULONG kRtsMask = SERIAL_RTS_CONTROL | SERIAL_RTS_HANDSHAKE;

// The line-control register, laid out as in a 16550.
constexpr UCHAR kWordLengthBits = 0x03;
constexpr UCHAR kStopBit = 0x04;
constexpr UCHAR kParityBits = 0x38;
constexpr UCHAR kBreakBit = 0x40;
constexpr UCHAR kParityRegister[] = {0x00, 0x08, 0x18, 0x28, 0x38}; // none, odd, even, mark, space
constexpr ULONG kParityWmi[] = {0, 1, 2, 4, 3}; // why: mark is 4 and space is 3 in the serial WMI encoding

static_assert(sizeof(SERIAL_LINE_CONTROL) == 3 && sizeof(SERIAL_TIMEOUTS) == 20 && sizeof(SERIAL_CHARS) == 6);
static_assert(sizeof(SERIAL_HANDFLOW) == 16 && sizeof(SERIAL_STATUS) == 20 && sizeof(SERIAL_COMMPROP) == 64);
static_assert(sizeof(SERIALPERF_STATS) == 24 && sizeof(SERIAL_QUEUE_SIZE) == 8 &&
              sizeof(SERIAL_XOFF_COUNTER) == 12);

NTSTATUS Ignore(Control&)
{
    return STATUS_SUCCESS;
}

// why: no place where a character could be sent from.
NTSTATUS ImmediateChar(Control&)
{
    return STATUS_INVALID_PARAMETER;
}

NTSTATUS SetBaudRate(Control& control)
{
    control.Client->BaudRate = control.As<ULONG>();
    return STATUS_SUCCESS;
}

NTSTATUS GetBaudRate(Control& control)
{
    SpinLockGuard lock(&control.Device->SerialLock);
    return control.Return(ULONG{control.Client->BaudRate});
}

// Only ever grows. The ring keeps its size.
NTSTATUS SetQueueSize(Control& control)
{
    const ULONG size = control.As<SERIAL_QUEUE_SIZE>().InSize;
    SpinLockGuard lock(&control.Device->SerialLock);
    if (size > control.Client->QueueSize)
        control.Client->QueueSize = size;
    return STATUS_SUCCESS;
}

// What the stop bits are called in the register and in WMI; false when they do not go with the word length.
bool CheckStopBits(UCHAR stopBits, UCHAR wordLength, UCHAR* registerBit)
{
    *registerBit = stopBits == STOP_BIT_1 ? 0 : kStopBit;
    switch (stopBits) {
    case STOP_BIT_1: return true;
    case STOP_BITS_1_5: return wordLength == 5;
    case STOP_BITS_2: return wordLength != 5;
    default: return false;
    }
}

// why: WMI keeps what passed its check even when a later check fails.
NTSTATUS SetLineControl(Control& control)
{
    const SERIAL_LINE_CONTROL line = control.As<SERIAL_LINE_CONTROL>();
    SERIAL_WMI_COMM_DATA& wmi = control.Device->WmiCommData;
    if (line.WordLength < 5 || line.WordLength > 8)
        return STATUS_INVALID_PARAMETER;
    wmi.BitsPerByte = line.WordLength;
    if (line.Parity > SPACE_PARITY)
        return STATUS_INVALID_PARAMETER;
    wmi.Parity = kParityWmi[line.Parity];
    UCHAR stopBit;
    if (!CheckStopBits(line.StopBits, line.WordLength, &stopBit))
        return STATUS_INVALID_PARAMETER;
    wmi.StopBits = line.StopBits;

    CLIENT* client = control.Client;
    SpinLockGuard lock(&control.Device->SerialLock);
    client->LineControlRegister =
        static_cast<UCHAR>((control.Device->DeviceLineControl & kBreakBit) | stopBit |
                           kParityRegister[line.Parity] | (line.WordLength - 5));
    client->ValidDataMask = static_cast<UCHAR>((1u << line.WordLength) - 1);
    client->LineControl = line;
    return STATUS_SUCCESS;
}

NTSTATUS GetLineControl(Control& control)
{
    RtlZeroMemory(control.Buffer, control.OutputLength);
    SERIAL_LINE_CONTROL line = {};
    {
        SpinLockGuard lock(&control.Device->SerialLock);
        const UCHAR bits = control.Client->LineControlRegister;
        line.WordLength = static_cast<UCHAR>((bits & kWordLengthBits) + 5);
        while (kParityRegister[line.Parity] != (bits & kParityBits))
            ++line.Parity; // SET_LINE_CONTROL stores no others
        if ((bits & kStopBit) != 0)
            line.StopBits = line.WordLength == 5 ? STOP_BITS_1_5 : STOP_BITS_2;
    }
    return control.Return(line);
}

NTSTATUS SetTimeouts(Control& control)
{
    const SERIAL_TIMEOUTS timeouts = control.As<SERIAL_TIMEOUTS>();
    constexpr ULONG never = 0xFFFFFFFF;
    if (timeouts.ReadIntervalTimeout == never && timeouts.ReadTotalTimeoutMultiplier == never &&
        timeouts.ReadTotalTimeoutConstant == never)
        return STATUS_INVALID_PARAMETER;
    SpinLockGuard lock(&control.Device->SerialLock);
    SpinLockGuard timeoutsLock(&control.Client->TimeoutsLock); // a starting read goes by this one
    control.Client->ReadTimeouts = timeouts;
    return STATUS_SUCCESS;
}

NTSTATUS GetTimeouts(Control& control)
{
    SpinLockGuard lock(&control.Device->SerialLock);
    return control.Return(control.Client->ReadTimeouts);
}

// Setting and clearing are refused alike while the line belongs to the handshake; otherwise nothing changes.
NTSTATUS CheckDtr(Control& control)
{
    SpinLockGuard lock(&control.Device->SerialLock);
    const bool handshake = (control.Client->HandFlow.ControlHandShake & kDtrMask) == SERIAL_DTR_HANDSHAKE;
    return handshake ? STATUS_INVALID_PARAMETER : STATUS_SUCCESS;
}

NTSTATUS CheckRts(Control& control)
{
    SpinLockGuard lock(&control.Device->SerialLock);
    const ULONG rts = control.Client->HandFlow.FlowReplace & kRtsMask;
    return rts == SERIAL_RTS_HANDSHAKE || rts == SERIAL_TRANSMIT_TOGGLE ? STATUS_INVALID_PARAMETER
                                                                        : STATUS_SUCCESS;
}

NTSTATUS GetWaitMask(Control& control)
{
    return control.Return(ULONG{control.Client->WaitMask});
}

NTSTATUS CheckWaitMask(Control& control)
{
    return (control.As<ULONG>() & kInvalidWaitMask) != 0 ? STATUS_INVALID_PARAMETER : STATUS_SUCCESS;
}

NTSTATUS GetChars(Control& control)
{
    SpinLockGuard lock(&control.Device->SerialLock);
    return control.Return(control.Client->SpecialChars);
}

// why: the client's own characters stay as they are; only WMI learns of the new ones.
NTSTATUS SetChars(Control& control)
{
    const SERIAL_CHARS chars = control.As<SERIAL_CHARS>();
    SpinLockGuard lock(&control.Device->SerialLock);
    const UCHAR escape = control.Client->EscapeChar;
    if (escape != 0 && (escape == chars.XonChar || escape == chars.XoffChar))
        return STATUS_INVALID_PARAMETER;
    control.Device->WmiCommData.XonCharacter = chars.XonChar;
    control.Device->WmiCommData.XoffCharacter = chars.XoffChar;
    return STATUS_SUCCESS;
}

NTSTATUS GetHandflow(Control& control)
{
    SpinLockGuard lock(&control.Device->SerialLock);
    return control.Return(control.Client->HandFlow);
}

bool IsLimitValid(LONG limit, ULONG queueSize)
{
    return limit >= 0 && static_cast<ULONG>(limit) <= queueSize;
}

NTSTATUS SetHandflow(Control& control)
{
    const SERIAL_HANDFLOW flow = control.As<SERIAL_HANDFLOW>();
    CLIENT* client = control.Client;
    SpinLockGuard lock(&control.Device->SerialLock);
    if ((flow.ControlHandShake & kInvalidControlHandShake) != 0 ||
        (flow.FlowReplace & kInvalidFlowReplace) != 0 || (flow.ControlHandShake & kDtrMask) == kDtrMask ||
        !IsLimitValid(flow.XonLimit, client->QueueSize) || !IsLimitValid(flow.XoffLimit, client->QueueSize))
        return STATUS_INVALID_PARAMETER;
    if (client->EscapeChar != 0 && (flow.FlowReplace & SERIAL_ERROR_CHAR) != 0)
        return STATUS_INVALID_PARAMETER;
    client->HandFlow = flow;
    return STATUS_SUCCESS;
}

NTSTATUS GetCommStatus(Control& control)
{
    auto& status = control.ReturnZeros<SERIAL_STATUS>();
    CancelLockGuard cancelLock;
    SpinLockGuard clientLock(&control.Client->Lock);
    status.AmountInInQueue = control.Client->Ring.RingCount;
    return STATUS_SUCCESS;
}

NTSTATUS XoffCounter(Control& control)
{
    return control.As<SERIAL_XOFF_COUNTER>().Counter <= 0 ? STATUS_INVALID_PARAMETER : STATUS_SUCCESS;
}

NTSTATUS GetProperties(Control& control)
{
    auto& properties = control.ReturnZeros<SERIAL_COMMPROP>();
    properties.PacketLength = sizeof(properties);
    properties.PacketVersion = 2;
    properties.ServiceMask = SERIAL_SP_SERIALCOMM;
    properties.MaxBaud = SERIAL_BAUD_USER;
    properties.ProvSubType = SERIAL_SP_RS232;
    properties.ProvCapabilities = 0xFF;
    properties.SettableParams = 0x7F;
    properties.SettableBaud = control.Device->SupportedBauds;
    properties.SettableData = 0x000F;
    properties.SettableStopParity = 0x1F07;
    properties.CurrentRxQueue = control.Device->BufferSize;
    return STATUS_SUCCESS;
}

// No line state, no provider configuration.
NTSTATUS ReturnZero(Control& control)
{
    return control.Return(ULONG{0});
}

NTSTATUS LsrMstInsert(Control& control)
{
    const UCHAR c = control.As<UCHAR>();
    const DEVICE_EXTENSION* device = control.Device;
    if (c != 0 && (c == device->DeviceSpecialChars.XoffChar || c == device->DeviceSpecialChars.XonChar ||
                   (device->DeviceHandFlow.FlowReplace & SERIAL_ERROR_CHAR) != 0))
        return STATUS_INVALID_PARAMETER;
    control.Client->EscapeChar = c;
    return STATUS_SUCCESS;
}

NTSTATUS GetStats(Control& control)
{
    return control.Return(control.Device->PerfStats);
}

NTSTATUS ClearStats(Control& control)
{
    RtlZeroMemory(&control.Device->PerfStats, sizeof(control.Device->PerfStats));
    RtlZeroMemory(&control.Device->WmiPerfData, sizeof(control.Device->WmiPerfData));
    return STATUS_SUCCESS;
}

NTSTATUS GetModemControl(Control& control)
{
    SpinLockGuard lock(&control.Device->SerialLock);
    return control.Return(control.Client->ModemControl);
}

NTSTATUS SetModemControl(Control& control)
{
    SpinLockGuard lock(&control.Device->SerialLock);
    control.Client->ModemControl = control.As<ULONG>();
    return STATUS_SUCCESS;
}

NTSTATUS SetFifoControl(Control& control)
{
    SpinLockGuard lock(&control.Device->SerialLock);
    control.Client->FifoControl = control.As<ULONG>();
    return STATUS_SUCCESS;
}

struct SERIAL_CONTROL {
    ULONG Code;
    ULONG LeastInput;  // bytes
    ULONG LeastOutput; // bytes
    NTSTATUS (*Handler)(Control& control);
    bool ForMaskQueue = false; // a success goes on to the client's mask queue, which completes it
};

// The whole control surface. A code that is not here is refused.
constexpr SERIAL_CONTROL kControls[] = {
    {IOCTL_SERIAL_SET_BAUD_RATE, kWord, 0, SetBaudRate},
    {IOCTL_SERIAL_SET_QUEUE_SIZE, sizeof(SERIAL_QUEUE_SIZE), 0, SetQueueSize},
    {IOCTL_SERIAL_SET_LINE_CONTROL, sizeof(SERIAL_LINE_CONTROL), 0, SetLineControl},
    {IOCTL_SERIAL_SET_BREAK_ON, 0, 0, Ignore},
    {IOCTL_SERIAL_SET_BREAK_OFF, 0, 0, Ignore},
    {IOCTL_SERIAL_IMMEDIATE_CHAR, sizeof(UCHAR), 0, ImmediateChar},
    {IOCTL_SERIAL_SET_TIMEOUTS, sizeof(SERIAL_TIMEOUTS), 0, SetTimeouts},
    {IOCTL_SERIAL_GET_TIMEOUTS, 0, sizeof(SERIAL_TIMEOUTS), GetTimeouts},
    {IOCTL_SERIAL_SET_DTR, 0, 0, CheckDtr},
    {IOCTL_SERIAL_CLR_DTR, 0, 0, CheckDtr},
    {IOCTL_SERIAL_RESET_DEVICE, 0, 0, Ignore},
    {IOCTL_SERIAL_SET_RTS, 0, 0, CheckRts},
    {IOCTL_SERIAL_CLR_RTS, 0, 0, CheckRts},
    {IOCTL_SERIAL_SET_XOFF, 0, 0, Ignore},
    {IOCTL_SERIAL_SET_XON, 0, 0, Ignore},
    {IOCTL_SERIAL_GET_WAIT_MASK, 0, kWord, GetWaitMask},
    {IOCTL_SERIAL_SET_WAIT_MASK, kWord, 0, CheckWaitMask, true},
    {IOCTL_SERIAL_WAIT_ON_MASK, 0, kWord, Ignore, true},
    {IOCTL_SERIAL_PURGE, kWord, 0, Ignore}, // why: nothing is emptied and nothing is cancelled
    {IOCTL_SERIAL_GET_BAUD_RATE, 0, kWord, GetBaudRate},
    {IOCTL_SERIAL_GET_LINE_CONTROL, 0, sizeof(SERIAL_LINE_CONTROL), GetLineControl},
    {IOCTL_SERIAL_GET_CHARS, 0, sizeof(SERIAL_CHARS), GetChars},
    {IOCTL_SERIAL_SET_CHARS, sizeof(SERIAL_CHARS), 0, SetChars},
    {IOCTL_SERIAL_GET_HANDFLOW, 0, sizeof(SERIAL_HANDFLOW), GetHandflow},
    {IOCTL_SERIAL_SET_HANDFLOW, sizeof(SERIAL_HANDFLOW), 0, SetHandflow},
    {IOCTL_SERIAL_GET_MODEMSTATUS, 0, kWord, Ignore}, // why: succeeds and returns nothing
    {IOCTL_SERIAL_GET_COMMSTATUS, 0, sizeof(SERIAL_STATUS), GetCommStatus},
    {IOCTL_SERIAL_XOFF_COUNTER, sizeof(SERIAL_XOFF_COUNTER), 0, XoffCounter},
    {IOCTL_SERIAL_GET_PROPERTIES, 0, sizeof(SERIAL_COMMPROP), GetProperties},
    {IOCTL_SERIAL_GET_DTRRTS, 0, kWord, ReturnZero},
    {IOCTL_SERIAL_LSRMST_INSERT, sizeof(UCHAR), 0, LsrMstInsert},
    {IOCTL_SERIAL_CONFIG_SIZE, 0, kWord, ReturnZero},
    {IOCTL_SERIAL_GET_STATS, 0, sizeof(SERIALPERF_STATS), GetStats},
    {IOCTL_SERIAL_CLEAR_STATS, 0, 0, ClearStats},
    {IOCTL_SERIAL_GET_MODEM_CONTROL, 0, kWord, GetModemControl},
    {IOCTL_SERIAL_SET_MODEM_CONTROL, kWord, 0, SetModemControl},
    {IOCTL_SERIAL_SET_FIFO_CONTROL, kWord, 0, SetFifoControl},
};

const SERIAL_CONTROL* FindControl(ULONG code)
{
    for (const SERIAL_CONTROL& entry : kControls)
        if (entry.Code == code)
            return &entry;
    return nullptr;
}

NTSTATUS SerialDeviceControl(PDEVICE_OBJECT device, PIRP irp)
{
    DEVICE_EXTENSION* extension = GetExtension(device);
    const PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    const auto& parameters = stack->Parameters.DeviceIoControl;

    NTSTATUS status = AdmitRequest(irp, extension);
    if (status != STATUS_SUCCESS)
        return CompleteAndUncount(extension, irp, status);
    if (IsErrorAborted(extension, irp))
        return CompleteAndUncount(extension, irp, STATUS_CANCELLED);
    const SERIAL_CONTROL* entry = FindControl(parameters.IoControlCode);
    if (entry == nullptr)
        return CompleteAndUncount(extension, irp, STATUS_INVALID_DEVICE_REQUEST);
    if (parameters.InputBufferLength < entry->LeastInput ||
        parameters.OutputBufferLength < entry->LeastOutput)
        return CompleteAndUncount(extension, irp, STATUS_BUFFER_TOO_SMALL);

    Control control = {extension, ClientOf(irp), irp->AssociatedIrp.SystemBuffer,
                       parameters.OutputBufferLength, 0};
    status = entry->Handler(control);
    if (entry->ForMaskQueue && NT_SUCCESS(status))
        return StartOrQueue(control.Client, irp, MaskSlot);
    return CompleteAndUncount(extension, irp, status, NT_SUCCESS(status) ? control.Information : 0);
}

} // namespace

NTSTATUS NTAPI DeviceControl(PDEVICE_OBJECT device, PIRP irp)
{
    if (IoGetCurrentIrpStackLocation(irp) == nullptr)
        return CompleteRequest(irp, STATUS_INVALID_DEVICE_REQUEST);
    NTSTATUS status;
    if (ServeGpsControl(device, irp, &status))
        return status;
    return SerialDeviceControl(device, irp);
}
