#include "control_bench.h"

#include "navox_utils.h"

#include <cstdio>
#include <cstring>

namespace navox_test {
namespace {

using host::PnpManager;

void Stay(Rig& /*rig*/) {}

template <ULONG State>
void Force(Rig& rig)
{
    SetPnpState(&ExtensionOf(rig), State);
}

// What the system asks of the device, one after the other.
template <NTSTATUS (PnpManager::*... Asked)(const host::PnpNodePtr&)>
void Ask(Rig& rig)
{
    for (const auto asked : {Asked...})
        EXPECT_EQ((PnpManager::Current().*asked)(rig.Node()), STATUS_SUCCESS);
}

void Pull(Rig& rig)
{
    rig.Unplug();
}

} // namespace

Bytes BytesFrom(std::initializer_list<int> values)
{
    Bytes bytes;
    for (const int value : values)
        bytes.push_back(static_cast<std::byte>(value));
    return bytes;
}

Bytes Words(std::initializer_list<ULONG> values)
{
    Bytes bytes(values.size() * sizeof(ULONG));
    std::memcpy(bytes.data(), values.begin(), bytes.size());
    return bytes;
}

std::string Hex(std::span<const std::byte> bytes)
{
    std::string text;
    for (const std::byte byte : bytes) {
        char digits[4];
        std::snprintf(digits, sizeof digits, "%02X ", std::to_integer<unsigned>(byte));
        text += digits;
    }
    return text;
}

#define CODE(name) #name, IOCTL_SERIAL_##name
const std::vector<SerialCode>& SerialCodes()
{
    static const std::vector<SerialCode> codes = {
        {1, CODE(SET_BAUD_RATE), Words({4800})},
        {2, CODE(SET_QUEUE_SIZE), Words({4096, 1})},
        {3, CODE(SET_LINE_CONTROL), BytesFrom({0, 0, 8})},
        {4, CODE(SET_BREAK_ON), {}},
        {5, CODE(SET_BREAK_OFF), {}},
        {6, CODE(IMMEDIATE_CHAR), BytesFrom({'A'}), 0, 0, STATUS_INVALID_PARAMETER},
        {7, CODE(SET_TIMEOUTS), Words({1, 2, 3, 4, 5})},
        {8, CODE(GET_TIMEOUTS), {}, 20, 20},
        {9, CODE(SET_DTR), {}},
        {10, CODE(CLR_DTR), {}},
        {11, CODE(RESET_DEVICE), {}},
        {12, CODE(SET_RTS), {}},
        {13, CODE(CLR_RTS), {}},
        {14, CODE(SET_XOFF), {}},
        {15, CODE(SET_XON), {}},
        {16, CODE(GET_WAIT_MASK), {}, 4, 4},
        {17, CODE(SET_WAIT_MASK), Words({0})},
        {18, CODE(WAIT_ON_MASK), {}, 4, 0, STATUS_INVALID_PARAMETER}, // the mask is empty
        {19, CODE(PURGE), Words({0xF})},
        {20, CODE(GET_BAUD_RATE), {}, 4, 4},
        {21, CODE(GET_LINE_CONTROL), {}, 3, 3},
        {22, CODE(GET_CHARS), {}, 6, 6},
        {23, CODE(SET_CHARS), BytesFrom({1, 2, 3, 4, 5, 6})},
        {24, CODE(GET_HANDFLOW), {}, 16, 16},
        {25, CODE(SET_HANDFLOW), Words({1, 0x40, 0, 0})},
        {26, CODE(GET_MODEMSTATUS), {}, 4, 0},
        {27, CODE(GET_COMMSTATUS), {}, 20, 20},
        {28, CODE(XOFF_COUNTER), Words({0, 1, 0})},
        {29, CODE(GET_PROPERTIES), {}, 64, 64},
        {30, CODE(GET_DTRRTS), {}, 4, 4},
        {31, CODE(LSRMST_INSERT), BytesFrom({0x1B})},
        {32, CODE(CONFIG_SIZE), {}, 4, 4},
        {33, CODE(GET_STATS), {}, 24, 24},
        {34, CODE(CLEAR_STATS), {}},
        {35, CODE(GET_MODEM_CONTROL), {}, 4, 4},
        {36, CODE(SET_MODEM_CONTROL), Words({3})},
        {37, CODE(SET_FIFO_CONTROL), Words({1})},
    };
    return codes;
}
#undef CODE

// Nothing but a driver above can reach a device that was never started, or that was removed: its handles were open in
// no state before or after. Those two, and a device asked for its power, are written into the record.
const std::vector<DeviceState>& DeviceStates()
{
    static const std::vector<DeviceState> states = {
        {"started", STATE_STARTED, true, Stay, Stay},
        {"never started", STATE_NEVER_STARTED, true, Force<STATE_NEVER_STARTED>, Force<STATE_STARTED>},
        {"stop pending", STATE_STOP_PENDING, false, Ask<&PnpManager::QueryStop>,
         Ask<&PnpManager::CancelStop>},
        {"stopped", STATE_STOPPED, false, Ask<&PnpManager::QueryStop, &PnpManager::Stop>,
         Ask<&PnpManager::Start>},
        {"remove pending", STATE_REMOVE_PENDING, false, Ask<&PnpManager::QueryRemove>,
         Ask<&PnpManager::CancelRemove>},
        {"power queried", STATE_POWER_QUERIED, false, Force<STATE_POWER_QUERIED>, Force<STATE_STARTED>},
        {"removed", STATE_REMOVED, true, Force<STATE_REMOVED>, Force<STATE_STARTED>},
        {"surprise removed", STATE_SURPRISE_REMOVED, false, Pull, Stay},
    };
    return states;
}

DEVICE_EXTENSION& ExtensionOf(Rig& rig)
{
    return *GetExtension(rig.Node()->pdo->AttachedDevice);
}

DirectResult SendDirect(Rig& rig, ULONG code, std::span<const std::byte> input, std::size_t output_length)
{
    const PDEVICE_OBJECT device = rig.Node()->pdo->AttachedDevice;
    DirectResult result;
    result.output.resize(output_length);
    Bytes copy(input.begin(), input.end());
    IO_STATUS_BLOCK block{};
    KEVENT done;
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    const PIRP irp = IoBuildDeviceIoControlRequest(code, device, copy.data(), static_cast<ULONG>(copy.size()),
                                                   result.output.data(), static_cast<ULONG>(output_length),
                                                   FALSE, &done, &block);
    result.returned = IoCallDriver(device, irp);
    KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
    result.status = block.Status;
    result.information = block.Information;
    return result;
}

} // namespace navox_test
