// The serial controls: sizes, statuses, information, values, states, and what one client's settings are to another.
#include "control_bench.h"

#include "navox_utils.h"
#include "wmi/wmi_manager.h"

#include <initguid.h>
#include <wmidata.h>

#include <array>
#include <cstring>

namespace navox_test {
namespace {

using host::nt::Result;

constexpr std::size_t kMore = 9; // bytes beyond what a control asks for

Bytes Cut(Bytes bytes, std::size_t length)
{
    bytes.resize(length, std::byte{0xEE});
    return bytes;
}

void ExpectRefused(const Result& result, NTSTATUS status)
{
    EXPECT_EQ(result.status, status);
    EXPECT_EQ(result.information, 0u);
}

SERIAL_WMI_COMM_DATA CommInfo()
{
    constexpr GUID kComm = SERIAL_PORT_WMI_COMM_GUID;
    const host::WmiAnswer answer = host::WmiManager::Current().QuerySingleInstance(kComm, 0);
    EXPECT_EQ(answer.status, STATUS_SUCCESS);
    SERIAL_WMI_COMM_DATA data{};
    if (answer.instances.size() == 1 && answer.instances[0].size() == sizeof data)
        std::memcpy(&data, answer.instances[0].data(), sizeof data);
    else
        ADD_FAILURE() << "the block of communication settings is not there";
    return data;
}

// Sizes ---------------------------------------------------------------------------------------------------

TEST(SerialControls, TakeBuffersThatAreLargeEnoughAndNoOthers)
{
    Rig rig;
    Port keeper = rig.Open();
    for (const SerialCode& code : SerialCodes()) {
        SCOPED_TRACE(std::to_string(code.n) + ": " + code.name);
        Port port = rig.Open();
        const std::size_t input = code.input.size();
        for (std::size_t less = 0; less < input; ++less)
            ExpectRefused(port.Control(code.code, Cut(code.input, less), code.output),
                          STATUS_BUFFER_TOO_SMALL);
        // The other buffer does not make up for it.
        for (std::size_t less = 0; less < code.output; ++less)
            ExpectRefused(port.Control(code.code, Cut(code.input, input + 64), less),
                          STATUS_BUFFER_TOO_SMALL);
        for (const std::size_t more : {std::size_t{0}, kMore}) {
            const Result result = port.Control(code.code, Cut(code.input, input + more), code.output + more);
            EXPECT_EQ(result.status, code.status) << more << " bytes more";
            EXPECT_EQ(result.information, code.information) << more << " bytes more";
        }
        EXPECT_TRUE(IsNothingPending(&ExtensionOf(rig)));
    }
}

// Whatever an application sets, the module does not hear of it.
TEST(SerialControls, NeedNoAccessAndSendNothingToTheModule)
{
    Rig rig;
    Port port;
    ASSERT_EQ(rig.TryOpen(&port, {.access = host::nt::Access::None}), STATUS_SUCCESS);
    rig.TakeBusLog();
    for (const SerialCode& code : SerialCodes())
        EXPECT_EQ(port.Control(code.code, code.input, code.output).status, code.status) << code.name;
    EXPECT_EQ(rig.TakeBusLog(), std::vector<std::string>());
}

TEST(SerialControls, RefuseCodesThatAreNotTheirs)
{
    constexpr ULONG kCodes[] = {
        IOCTL_SERIAL_GET_COMMCONFIG,
        IOCTL_SERIAL_SET_COMMCONFIG,
        IOCTL_SERENUM_EXPOSE_HARDWARE,
        IOCTL_SERENUM_REMOVE_HARDWARE,
        IOCTL_SERENUM_PORT_DESC,
        IOCTL_SERENUM_GET_PORT_NAME,
        IOCTL_SERIAL_APPLY_DEFAULT_CONFIGURATION,
        IOCTL_SERIAL_SET_BAUD_RATE | METHOD_NEITHER,
        IOCTL_SERIAL_GET_BAUD_RATE | METHOD_OUT_DIRECT,
        IOCTL_SERIAL_GET_BAUD_RATE | FILE_READ_ACCESS << 14,
        CTL_CODE(FILE_DEVICE_SERIAL_PORT, 0, METHOD_BUFFERED, FILE_ANY_ACCESS),
        CTL_CODE(FILE_DEVICE_SERIAL_PORT, 41, METHOD_BUFFERED, FILE_ANY_ACCESS),
        0x801B0004,
        0,
    };
    Rig rig;
    Port port = rig.Open();
    for (const ULONG code : kCodes)
        for (const std::size_t length : {0, 4, 64}) {
            SCOPED_TRACE(code);
            ExpectRefused(port.Control(code, Zeros(length), length), STATUS_INVALID_DEVICE_REQUEST);
        }
    EXPECT_TRUE(IsNothingPending(&ExtensionOf(rig)));
}

// Values --------------------------------------------------------------------------------------------------

// One control: refused with `status`, or done and answered with `output`.
struct Step {
    ULONG code;
    Bytes input{};
    Bytes output{};
    NTSTATUS status = STATUS_SUCCESS;
};

Step Set(ULONG code, Bytes input)
{
    return {code, std::move(input)};
}

Step Refuse(ULONG code, Bytes input)
{
    return {code, std::move(input), {}, STATUS_INVALID_PARAMETER};
}

Step Get(ULONG code, Bytes output)
{
    return {code, {}, std::move(output)};
}

void Play(const Port& port, const std::vector<Step>& steps)
{
    for (std::size_t i = 0; i < steps.size(); ++i) {
        SCOPED_TRACE("step " + std::to_string(i + 1));
        const Result result = port.Control(steps[i].code, steps[i].input, steps[i].output.size());
        EXPECT_EQ(result.status, steps[i].status);
        EXPECT_EQ(result.information, steps[i].output.size());
        EXPECT_EQ(Hex(result.data), Hex(steps[i].output));
    }
}

// What a client finds that has set nothing.
const std::vector<Step> kFresh = {
    Get(IOCTL_SERIAL_GET_BAUD_RATE, Zeros(4)),
    Get(IOCTL_SERIAL_GET_LINE_CONTROL, BytesFrom({0, 0, 5})),
    Get(IOCTL_SERIAL_GET_CHARS, Zeros(6)),
    Get(IOCTL_SERIAL_GET_HANDFLOW, Zeros(16)),
    Get(IOCTL_SERIAL_GET_TIMEOUTS, Zeros(20)),
    Get(IOCTL_SERIAL_GET_WAIT_MASK, Zeros(4)),
    Get(IOCTL_SERIAL_GET_MODEM_CONTROL, Zeros(4)),
    Get(IOCTL_SERIAL_GET_STATS, Zeros(24)),
    Get(IOCTL_SERIAL_GET_DTRRTS, Zeros(4)),
    Get(IOCTL_SERIAL_CONFIG_SIZE, Zeros(4)),
    Get(IOCTL_SERIAL_GET_COMMSTATUS, Words({0, 0, 32, 0, 0})),
};

constexpr ULONG kNever = 0xFFFFFFFF;
constexpr ULONG kNegative = 0x80000000; // as a limit

Step Flow(std::initializer_list<ULONG> words)
{
    return Set(IOCTL_SERIAL_SET_HANDFLOW, Words(words));
}

Step NoFlow(std::initializer_list<ULONG> words)
{
    return Refuse(IOCTL_SERIAL_SET_HANDFLOW, Words(words));
}

const Step kLine8 = Set(IOCTL_SERIAL_SET_LINE_CONTROL, BytesFrom({0, 0, 8}));

const std::pair<const char*, std::vector<Step>> kRulesOfValues[] = {
    {"a fresh client", kFresh},
    {"any baud rate",
     {Set(IOCTL_SERIAL_SET_BAUD_RATE, Words({57600})), Get(IOCTL_SERIAL_GET_BAUD_RATE, Words({57600})),
      Set(IOCTL_SERIAL_SET_BAUD_RATE, Words({0})), Get(IOCTL_SERIAL_GET_BAUD_RATE, Words({0})),
      Set(IOCTL_SERIAL_SET_BAUD_RATE, Words({kNever})), Get(IOCTL_SERIAL_GET_BAUD_RATE, Words({kNever}))}},
    {"time-outs, all but three times never",
     {Set(IOCTL_SERIAL_SET_TIMEOUTS, Words({1, 2, 3, 4, 5})),
      Refuse(IOCTL_SERIAL_SET_TIMEOUTS, Words({kNever, kNever, kNever, 7, 8})),
      Get(IOCTL_SERIAL_GET_TIMEOUTS, Words({1, 2, 3, 4, 5})),
      Set(IOCTL_SERIAL_SET_TIMEOUTS, Words({kNever, kNever, 0, kNever, kNever})),
      Set(IOCTL_SERIAL_SET_TIMEOUTS, Words({kNever, 0, kNever, 0, 0})),
      Set(IOCTL_SERIAL_SET_TIMEOUTS, Words({0, kNever, kNever, 6, 7})),
      Get(IOCTL_SERIAL_GET_TIMEOUTS, Words({0, kNever, kNever, 6, 7}))}},
    {"the wait mask has thirteen bits",
     {Set(IOCTL_SERIAL_SET_WAIT_MASK, Words({0x1FFF})), Refuse(IOCTL_SERIAL_SET_WAIT_MASK, Words({0x2000})),
      Refuse(IOCTL_SERIAL_SET_WAIT_MASK, Words({0x80000001})),
      Get(IOCTL_SERIAL_GET_WAIT_MASK, Words({0x1FFF})), Set(IOCTL_SERIAL_SET_WAIT_MASK, Words({0})),
      Get(IOCTL_SERIAL_GET_WAIT_MASK, Words({0}))}},
    {"characters are taken and not given back",
     {Set(IOCTL_SERIAL_SET_CHARS, BytesFrom({1, 2, 3, 4, 5, 6})), Get(IOCTL_SERIAL_GET_CHARS, Zeros(6))}},
    {"the escape character may be neither XON nor XOFF",
     {Set(IOCTL_SERIAL_LSRMST_INSERT, BytesFrom({0x1B})),
      Refuse(IOCTL_SERIAL_SET_CHARS, BytesFrom({0, 0, 0, 0, 0x1B, 0x13})),
      Refuse(IOCTL_SERIAL_SET_CHARS, BytesFrom({0, 0, 0, 0, 0x11, 0x1B})),
      Set(IOCTL_SERIAL_SET_CHARS, BytesFrom({0x1B, 0x1B, 0x1B, 0x1B, 0x11, 0x13})),
      Set(IOCTL_SERIAL_LSRMST_INSERT, BytesFrom({0})),
      Set(IOCTL_SERIAL_SET_CHARS, BytesFrom({0, 0, 0, 0, 0, 0x1B}))}},
    {"no error character beside an escape character",
     {Flow({0, SERIAL_ERROR_CHAR, 0, 0}), Set(IOCTL_SERIAL_LSRMST_INSERT, BytesFrom({0xFF})),
      NoFlow({0, SERIAL_ERROR_CHAR, 0, 0}), Flow({0, SERIAL_NULL_STRIPPING, 0, 0}),
      Set(IOCTL_SERIAL_LSRMST_INSERT, BytesFrom({0})), Flow({0, SERIAL_ERROR_CHAR, 0, 0})}},
    {"limits lie in the queue, which only grows",
     {NoFlow({0, 0, 1, 0}), NoFlow({0, 0, 0, 1}), Set(IOCTL_SERIAL_SET_QUEUE_SIZE, Words({0, 9999})),
      NoFlow({0, 0, 1, 0}), Set(IOCTL_SERIAL_SET_QUEUE_SIZE, Words({4096, 0})), Flow({0, 0, 4096, 4096}),
      NoFlow({0, 0, 4097, 0}), NoFlow({0, 0, 0, 4097}), Set(IOCTL_SERIAL_SET_QUEUE_SIZE, Words({16, 0})),
      Flow({0, 0, 4096, 1}), Get(IOCTL_SERIAL_GET_HANDFLOW, Words({0, 0, 4096, 1}))}},
    {"a limit is not negative, whatever the queue",
     {Set(IOCTL_SERIAL_SET_QUEUE_SIZE, Words({kNever, 0})), NoFlow({0, 0, kNegative, 0}),
      NoFlow({0, 0, 0, kNever}), Flow({0, 0, 0x7FFFFFFF, 0x7FFFFFFF})}},
    {"DTR belongs to its handshake",
     {Flow({SERIAL_DTR_CONTROL, 0, 0, 0}), Set(IOCTL_SERIAL_SET_DTR, {}), Set(IOCTL_SERIAL_CLR_DTR, {}),
      Flow({SERIAL_DTR_HANDSHAKE, 0, 0, 0}), Refuse(IOCTL_SERIAL_SET_DTR, {}),
      Refuse(IOCTL_SERIAL_CLR_DTR, {}), Set(IOCTL_SERIAL_SET_RTS, {}),
      NoFlow({SERIAL_DTR_CONTROL | SERIAL_DTR_HANDSHAKE, 0, 0, 0}), Flow({0, 0, 0, 0}),
      Set(IOCTL_SERIAL_SET_DTR, {}), Get(IOCTL_SERIAL_GET_DTRRTS, Zeros(4))}},
    {"RTS belongs to its handshake or toggles by itself",
     {Flow({0, SERIAL_RTS_CONTROL, 0, 0}), Set(IOCTL_SERIAL_SET_RTS, {}), Set(IOCTL_SERIAL_CLR_RTS, {}),
      Flow({0, SERIAL_RTS_HANDSHAKE, 0, 0}), Refuse(IOCTL_SERIAL_SET_RTS, {}),
      Refuse(IOCTL_SERIAL_CLR_RTS, {}), Set(IOCTL_SERIAL_CLR_DTR, {}),
      Flow({0, SERIAL_TRANSMIT_TOGGLE, 0, 0}), Refuse(IOCTL_SERIAL_SET_RTS, {}),
      Refuse(IOCTL_SERIAL_CLR_RTS, {}), Flow({0, 0, 0, 0}), Set(IOCTL_SERIAL_CLR_RTS, {})}},
    {"a client's own abort on error aborts nothing",
     {Flow({SERIAL_ERROR_ABORT, 0, 0, 0}),
      Get(IOCTL_SERIAL_GET_HANDFLOW, Words({SERIAL_ERROR_ABORT, 0, 0, 0})), kLine8}},
    {"the XOFF counter counts from one",
     {Refuse(IOCTL_SERIAL_XOFF_COUNTER, Words({1000, 0, 0x13})),
      Refuse(IOCTL_SERIAL_XOFF_COUNTER, Words({1000, kNegative, 0x13})),
      Refuse(IOCTL_SERIAL_XOFF_COUNTER, Words({0, kNever, 0})),
      Set(IOCTL_SERIAL_XOFF_COUNTER, Words({0, 0x7FFFFFFF, 0}))}},
    {"modem control is kept as it is",
     {Set(IOCTL_SERIAL_SET_MODEM_CONTROL, Words({0xDEADBEEF})),
      Get(IOCTL_SERIAL_GET_MODEM_CONTROL, Words({0xDEADBEEF})),
      Set(IOCTL_SERIAL_SET_FIFO_CONTROL, Words({1})),
      Get(IOCTL_SERIAL_GET_MODEM_CONTROL, Words({0xDEADBEEF}))}},
    {"no immediate character, whichever",
     {Refuse(IOCTL_SERIAL_IMMEDIATE_CHAR, BytesFrom({0})),
      Refuse(IOCTL_SERIAL_IMMEDIATE_CHAR, BytesFrom({0xFF}))}},
    {"break, XOFF and reset leave the line as it was",
     {kLine8, Set(IOCTL_SERIAL_SET_BREAK_ON, {}), Set(IOCTL_SERIAL_SET_XOFF, {}),
      Set(IOCTL_SERIAL_RESET_DEVICE, {}), Get(IOCTL_SERIAL_GET_LINE_CONTROL, BytesFrom({0, 0, 8}))}},
};

TEST(SerialControls, KeepTheirRulesOfValues)
{
    Rig rig;
    Port keeper = rig.Open();
    for (const auto& [what, steps] : kRulesOfValues) {
        SCOPED_TRACE(what);
        Play(rig.Open(), steps); // each is of one fresh client
    }
}

// Every bit by itself: which of them a handshake may have.
TEST(SerialControls, KnowTheBitsOfAHandshake)
{
    constexpr ULONG kControlHandShake = 0x8000007B; // SERIAL_DTR_MASK, CTS, DSR, DCD, sensitivity, abort
    constexpr ULONG kFlowReplace = 0x800000DF;      // auto transmit and receive, characters, RTS, continue
    Rig rig;
    Port port = rig.Open();
    for (unsigned bit = 0; bit < 32; ++bit) {
        const ULONG value = 1u << bit;
        const auto expected = [&](ULONG valid) {
            return (value & valid) != 0 ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER;
        };
        EXPECT_EQ(port.Set(IOCTL_SERIAL_SET_HANDFLOW, SERIAL_HANDFLOW{value, 0, 0, 0}),
                  expected(kControlHandShake))
            << "ControlHandShake, bit " << bit;
        EXPECT_EQ(port.Set(IOCTL_SERIAL_SET_HANDFLOW, SERIAL_HANDFLOW{0, value, 0, 0}),
                  expected(kFlowReplace))
            << "FlowReplace, bit " << bit;
    }
}

// All that three bytes can say, as far as it differs.
TEST(SerialControls, ReadBackEveryLineControl)
{
    Rig rig;
    Port port = rig.Open();
    SERIAL_LINE_CONTROL now = {0, 0, 5};
    for (const int word : {0, 4, 5, 6, 7, 8, 9, 255})
        for (const int parity : {0, 1, 2, 3, 4, 5, 255})
            for (const int stop : {0, 1, 2, 3, 255}) {
                const SERIAL_LINE_CONTROL line = {static_cast<UCHAR>(stop), static_cast<UCHAR>(parity),
                                                  static_cast<UCHAR>(word)};
                const bool stopFits = stop == 0 || (stop == 1 && word == 5) || (stop == 2 && word != 5);
                const bool valid = word >= 5 && word <= 8 && parity <= 4 && stopFits;
                SCOPED_TRACE("word length " + std::to_string(word) + ", parity " + std::to_string(parity) +
                             ", stop bits " + std::to_string(stop));
                EXPECT_EQ(port.Set(IOCTL_SERIAL_SET_LINE_CONTROL, line),
                          valid ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER);
                if (valid)
                    now = line;
                EXPECT_EQ(Hex(port.Control(IOCTL_SERIAL_GET_LINE_CONTROL, {}, 3).data), Hex(BytesFrom(now)));
            }
}

// The device's WMI block learns of settings, in an encoding of its own, also of those before the one that failed.
TEST(SerialControls, TellWmiOfLineAndCharacters)
{
    struct Case {
        Step step;
        std::array<ULONG, 3> line; // bits per byte, parity, stop bits
        std::array<ULONG, 2> chars = {0x11, 0x13};
    };
    constexpr ULONG kLine = IOCTL_SERIAL_SET_LINE_CONTROL;
    const std::vector<Case> cases = {
        {Get(IOCTL_SERIAL_GET_LINE_CONTROL, BytesFrom({0, 0, 5})), {8, 0, 1}},
        {Set(kLine, BytesFrom({2, 2, 7})), {7, 2, 2}},
        {Set(kLine, BytesFrom({0, 3, 8})), {8, 4, 0}}, // mark
        {Set(kLine, BytesFrom({1, 4, 5})), {5, 3, 1}}, // space
        {Set(kLine, BytesFrom({0, 1, 6})), {6, 1, 0}},
        {Refuse(kLine, BytesFrom({2, 2, 9})), {6, 1, 0}},
        {Refuse(kLine, BytesFrom({2, 5, 8})), {8, 1, 0}},
        {Refuse(kLine, BytesFrom({2, 2, 5})), {5, 2, 0}},
        {Refuse(kLine, BytesFrom({3, 0, 7})), {7, 0, 0}},
        {Set(IOCTL_SERIAL_SET_CHARS, BytesFrom({1, 2, 3, 4, 0xFE, 0xFF})), {7, 0, 0}, {0xFE, 0xFF}},
        {Set(IOCTL_SERIAL_LSRMST_INSERT, BytesFrom({6})), {7, 0, 0}, {0xFE, 0xFF}},
        {Refuse(IOCTL_SERIAL_SET_CHARS, BytesFrom({0, 0, 0, 0, 6, 7})), {7, 0, 0}, {0xFE, 0xFF}},
        {Refuse(IOCTL_SERIAL_SET_CHARS, BytesFrom({0, 0, 0, 0, 7, 6})), {7, 0, 0}, {0xFE, 0xFF}},
        {Set(IOCTL_SERIAL_SET_BAUD_RATE, Words({115200})), {7, 0, 0}, {0xFE, 0xFF}},
    };
    Rig rig;
    Port port = rig.Open();
    for (const Case& c : cases) {
        SCOPED_TRACE(Hex(c.step.input));
        EXPECT_EQ(port.Control(c.step.code, c.step.input, c.step.output.size()).status, c.step.status);
        const SERIAL_WMI_COMM_DATA data = CommInfo();
        EXPECT_EQ(data.BaudRate, 9600u);
        EXPECT_EQ((std::array{data.BitsPerByte, data.Parity, data.StopBits}), c.line);
        EXPECT_EQ((std::array{data.XonCharacter, data.XoffCharacter}), c.chars);
    }
    // The line that the client reads back is the last that was taken whole.
    EXPECT_EQ(Hex(port.Control(IOCTL_SERIAL_GET_LINE_CONTROL, {}, 3).data), Hex(BytesFrom({0, 1, 6})));
    // A restart changes neither.
    EXPECT_EQ(host::PnpManager::Current().Rebalance(rig.Node()), STATUS_SUCCESS);
    EXPECT_EQ(port.Get<ULONG>(IOCTL_SERIAL_GET_BAUD_RATE), 115200u);
    EXPECT_EQ(CommInfo().BitsPerByte, 7u);
    EXPECT_EQ(CommInfo().XonCharacter, 0xFEu);
}

// Clients, states, effects --------------------------------------------------------------------------------

TEST(SerialControls, OfOneClientAreNothingToAnother)
{
    Rig rig;
    Port one = rig.Open();
    Port other = rig.Open();
    Play(one, {Set(IOCTL_SERIAL_SET_BAUD_RATE, Words({4800})),
               Set(IOCTL_SERIAL_SET_LINE_CONTROL, BytesFrom({2, 2, 7})),
               Set(IOCTL_SERIAL_SET_TIMEOUTS, Words({1, 2, 3, 4, 5})),
               Set(IOCTL_SERIAL_SET_WAIT_MASK, Words({0x1FFF})),
               Set(IOCTL_SERIAL_SET_QUEUE_SIZE, Words({4096, 0})),
               Set(IOCTL_SERIAL_SET_HANDFLOW, Words({SERIAL_DTR_HANDSHAKE, SERIAL_RTS_HANDSHAKE, 1, 2})),
               Set(IOCTL_SERIAL_SET_MODEM_CONTROL, Words({3})),
               Set(IOCTL_SERIAL_LSRMST_INSERT, BytesFrom({0x1B}))});
    EXPECT_EQ(one.Read(10).information, 10u);
    Play(other, kFresh);
    Play(other, {Set(IOCTL_SERIAL_SET_DTR, {}), Set(IOCTL_SERIAL_SET_RTS, {}),
                 Set(IOCTL_SERIAL_SET_CHARS, BytesFrom({0, 0, 0, 0, 0x1B, 0})), // it has no escape character
                 Refuse(IOCTL_SERIAL_SET_HANDFLOW, Words({0, 0, 1, 0}))});      // and no queue
    EXPECT_EQ(one.InQueue(), 22u);
}

TEST(SerialControls, AreAdmittedByTheStateOfTheDevice)
{
    for (const DeviceState& state : DeviceStates()) {
        Rig rig;
        Port port = rig.Open();
        state.enter(rig);
        DEVICE_EXTENSION& extension = ExtensionOf(rig);
        ASSERT_EQ(GetPnpState(&extension), state.state) << state.name;
        for (const SerialCode& code : SerialCodes()) {
            SCOPED_TRACE(std::string(state.name) + ", " + code.name);
            const Result result = port.Control(code.code, code.input, code.output);
            EXPECT_EQ(result.status, state.admits ? code.status : STATUS_DELETE_PENDING);
            EXPECT_EQ(result.information, state.admits ? code.information : 0);
            // The gate comes before the size.
            if (!state.admits && code.output != 0)
                ExpectRefused(port.Control(code.code, {}, 0), STATUS_DELETE_PENDING);
        }
        ExpectRefused(port.Control(IOCTL_SERIAL_GET_COMMCONFIG),
                      state.admits ? STATUS_INVALID_DEVICE_REQUEST : STATUS_DELETE_PENDING);
        port.SetTimeouts(kNever, 0, 0);
        EXPECT_EQ(port.Read(1).status, state.admits ? STATUS_SUCCESS : STATUS_DELETE_PENDING);
        EXPECT_TRUE(IsNothingPending(&extension)) << state.name;
        Port second;
        const NTSTATUS opened = host::nt::File::Open("\\Device\\quorlex0", &second);
        EXPECT_EQ(opened, state.state == STATE_STARTED ? STATUS_SUCCESS : STATUS_INSUFFICIENT_RESOURCES);
        second.Close();
        state.leave(rig);
    }
}

// Statistics are the device's; clearing them clears the WMI block too. Nothing else writes them, so the record is
// made to look as if something had.
TEST(SerialControls, ClearTheStatisticsOfAllClients)
{
    constexpr GUID kPerf = SERIAL_PORT_WMI_PERF_GUID;
    Rig rig;
    Port one = rig.Open();
    Port other = rig.Open();
    ExtensionOf(rig).PerfStats.ReceivedCount = 7;
    ExtensionOf(rig).WmiPerfData.ParityErrorCount = 8;
    EXPECT_EQ(Hex(other.Control(IOCTL_SERIAL_GET_STATS, {}, 24).data), Hex(Words({7, 0, 0, 0, 0, 0})));
    EXPECT_EQ(one.Control(IOCTL_SERIAL_CLEAR_STATS).status, STATUS_SUCCESS);
    EXPECT_EQ(Hex(other.Control(IOCTL_SERIAL_GET_STATS, {}, 24).data), Hex(Zeros(24)));
    const host::WmiAnswer answer = host::WmiManager::Current().QuerySingleInstance(kPerf, 0);
    ASSERT_EQ(answer.instances.size(), 1u);
    EXPECT_EQ(Hex(answer.instances[0]), Hex(Zeros(24)));
}

// What would happen if anything set the device's own handshake, special characters and bauds.
TEST(SerialControls, ConsultTheDevicesOwnSettings)
{
    Rig rig;
    Port port = rig.Open();
    DEVICE_EXTENSION& extension = ExtensionOf(rig);
    extension.SupportedBauds = 0x1234;
    extension.BufferSize = 0x5678;
    const auto properties = port.Get<SERIAL_COMMPROP>(IOCTL_SERIAL_GET_PROPERTIES);
    EXPECT_EQ(properties.SettableBaud, 0x1234u);
    EXPECT_EQ(properties.CurrentRxQueue, 0x5678u);

    extension.DeviceSpecialChars.XonChar = 0x11;
    extension.DeviceSpecialChars.XoffChar = 0x13;
    EXPECT_EQ(port.Set(IOCTL_SERIAL_LSRMST_INSERT, UCHAR{0x11}), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(port.Set(IOCTL_SERIAL_LSRMST_INSERT, UCHAR{0x13}), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(port.Set(IOCTL_SERIAL_LSRMST_INSERT, UCHAR{0x12}), STATUS_SUCCESS);
    extension.DeviceHandFlow.FlowReplace = SERIAL_ERROR_CHAR;
    EXPECT_EQ(port.Set(IOCTL_SERIAL_LSRMST_INSERT, UCHAR{0x12}), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(port.Set(IOCTL_SERIAL_LSRMST_INSERT, UCHAR{0}), STATUS_SUCCESS);

    extension.DeviceHandFlow.ControlHandShake = SERIAL_ERROR_ABORT;
    for (const SerialCode& code : SerialCodes()) {
        const Result result = port.Control(code.code, code.input, code.output);
        EXPECT_EQ(result.status, code.code == IOCTL_SERIAL_GET_COMMSTATUS ? STATUS_SUCCESS : STATUS_CANCELLED)
            << code.name;
    }
    EXPECT_TRUE(IsNothingPending(&extension));
}

} // namespace
} // namespace navox_test
