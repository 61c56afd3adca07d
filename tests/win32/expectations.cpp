#include "tests/win32/expectations.h"

namespace win32 {
namespace {

using namespace std::literals;

constexpr DWORD kNever = MAXDWORD;
constexpr DWORD kDenied = 5; // errors
constexpr DWORD kInvalidParameter = 87;
constexpr DWORD kAborted = 995;
constexpr DWORD kPending = 997;
constexpr DWORD kNotFound = 1168;
constexpr DWORD kTimeout = 0x102; // statuses
constexpr DWORD kCancelled = 0xC0000120;
constexpr DWORD kBadParameter = 0xC000000D;
constexpr DWORD kTooSmall = 0xC0000023;
constexpr DWORD kBadRequest = 0xC0000010;

constexpr const char* kSentence = "$GPGGA,,,,,,0,00,0.5,,M,,,,*00\r\n";
constexpr const char* kFreshState = "5N0 dtr 0 rts 0 limits 0 0 characters 0 0 0 0 0";

// A step's call.
#define CALL(call) [](Program& p) { return p.call; }
// One that succeeds or fails.
#define DO(...) [](Program& p) { return Program::Of(__VA_ARGS__); }

constexpr Step kFresh[] = {
    {"CreateFile", CALL(Open(0, false))},
    {"a fresh handle's state", CALL(State(0)), 0, 0, kFreshState},
    {"a fresh handle's time-outs", CALL(Timeouts(0)), 0, 0, "0 0 0 0 0"},
    {"a fresh handle's mask", CALL(Mask(0))},
    {"a fresh handle's queue", CALL(Queue(0)), 0, 32, "0, 0"},
    {"the properties", CALL(Properties(0)), 0, 0, "20040 1 0 0 0 10000000 1 ff 7f 0 1f07000f 0 0 0 0 0"},
    {"no modem status is reported", CALL(ModemStatus(0)), 0, 0x1234},
    {"a purge empties nothing", DO(PurgeComm(p[0], PURGE_ALL))},
    {"the first sentence", CALL(Read(0, 32)), 0, 32, kSentence},
    {"an empty queue", CALL(Queue(0)), 0, 0, "0, 0"},
    {"a time-out for a synchronous read", CALL(SetTimeouts(0, 0, 0, 30))},
    {"ends it without an error", CALL(Read(0, 8))},
    {"no time at all", CALL(SetTimeouts(0, MAXDWORD, 0, 0))},
    {"ends it, too", CALL(Read(0, 8))},
};

constexpr Step kSettings[] = {
    {"CreateFile", CALL(Open(0, false))},
    {"CreateFile again", CALL(Open(1, true))},
    {"any rate", CALL(SetState(0, 12'345, 0, 0))},
    {"a rate, and no characters", CALL(State(0)), 0, 12'345,
     "8N0 dtr 0 rts 0 limits 0 0 characters 0 0 0 0 0"},
    {"of this handle only", CALL(State(1)), 0, 0, kFreshState},
    {"a limit above the queue", CALL(SetState(0, 9600, 100, 0)), kInvalidParameter},
    {"which failed after it set the rate", CALL(State(0)), 0, 9600, nullptr},
    {"a queue", DO(SetupComm(p[0], 100, 100))},
    {"a limit within it", CALL(SetState(0, 9600, 100, 0))},
    {"a smaller queue", DO(SetupComm(p[0], 10, 10))},
    {"does not shrink it", CALL(SetState(0, 9600, 99, 2))},
    {"a handshake on DTR", CALL(State(0)), 0, 9600, "8N0 dtr 2 rts 0 limits 99 0 characters 0 0 0 0 0"},
    {"DTR by hand, under a handshake", DO(EscapeCommFunction(p[0], Escape::SETDTR)), kInvalidParameter},
    {"and without", DO(EscapeCommFunction(p[1], Escape::SETDTR))},
    {"time-outs", CALL(SetTimeouts(0, 1, 2, 3))},
    {"three times the highest", CALL(SetTimeouts(0, kNever, kNever, kNever)), kInvalidParameter},
    {"which changes none", CALL(Timeouts(0)), 0, 0, "1 2 3 7 8"},
    {"two times", CALL(SetTimeouts(0, kNever, kNever, 0))},
    {"are kept", CALL(Timeouts(0)), 0, 0, "ffffffff ffffffff 0 7 8"},
    {"TransmitCommChar", DO(TransmitCommChar(p[0], 'x')), kInvalidParameter},
    {"a write", CALL(Write(0, "nowhere")), 0, 7},
    {"FlushFileBuffers", DO(FlushFileBuffers(p[0])), 1},
};

constexpr Step kOpen[] = {
    {"CreateFile, and the first sentence", CALL(OpenEmpty(0)), 0, 32, kSentence},
};

constexpr ControlStep kControls[] = {
    {"SET_BAUD_RATE, short", 0x1B0004, "abc"sv, 0, kTooSmall},
    {"SET_BAUD_RATE", 0x1B0004, "\x80\x25\0\0"sv, 0},
    {"GET_BAUD_RATE", 0x1B0050, ""sv, 8, 0, 4, "80250000"},
    {"SET_LINE_CONTROL, 9 bits", 0x1B000C, "\0\0\x09"sv, 0, kBadParameter},
    {"SET_LINE_CONTROL, 5 bits and 2 stop bits", 0x1B000C, "\x02\0\x05"sv, 0, kBadParameter},
    {"SET_LINE_CONTROL, 5 bits and 1.5 stop bits", 0x1B000C, "\x01\x03\x05"sv, 0},
    {"GET_LINE_CONTROL", 0x1B0054, ""sv, 3, 0, 3, "010305"},
    {"CLR_DTR", 0x1B0028, ""sv, 0},
    {"CLR_RTS", 0x1B0034, ""sv, 0},
    {"SET_WAIT_MASK, unknown event", 0x1B0044, "\0\x20\0\0"sv, 0, kBadParameter},
    {"SET_WAIT_MASK", 0x1B0044, "\x03\0\0\0"sv, 0},
    {"GET_WAIT_MASK", 0x1B0040, ""sv, 4, 0, 4, "03000000"},
    {"WAIT_ON_MASK, short", 0x1B0048, ""sv, 3, kTooSmall},
    {"SET_CHARS", 0x1B005C, "123456"sv, 0},
    {"GET_CHARS", 0x1B0058, ""sv, 6, 0, 6, "000000000000"},
    {"SET_HANDFLOW, DTR of 3", 0x1B0064, "\3\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0"sv, 0, kBadParameter},
    {"GET_HANDFLOW", 0x1B0060, ""sv, 16, 0, 16, "00000000000000000000000000000000"},
    {"GET_MODEMSTATUS", 0x1B0068, ""sv, 4},
    {"XOFF_COUNTER, none", 0x1B0070, "\0\0\0\0\0\0\0\0\0\0\0\0"sv, 0, kBadParameter},
    {"GET_DTRRTS", 0x1B0078, ""sv, 4, 0, 4, "00000000"},
    {"CONFIG_SIZE", 0x1B0080, ""sv, 4, 0, 4, "00000000"},
    {"GET_STATS", 0x1B008C, ""sv, 24, 0, 24, "000000000000000000000000000000000000000000000000"},
    {"SET_MODEM_CONTROL", 0x1B0098, "\x12\0\0\0"sv, 0},
    {"GET_MODEM_CONTROL", 0x1B0094, ""sv, 4, 0, 4, "12000000"},
    {"no such control", 0x1B00A0, ""sv, 64, kBadRequest},
    {"GPS_GET_COMM_PORT, with input", 0x08004008, "x"sv, 4, kBadParameter},
    {"GPS_GET_COMM_PORT, short", 0x08004008, ""sv, 3, kTooSmall},
    {"GPS_GET_COMM_PORT", 0x08004008, ""sv, 4, 0, 4, "05000000"},
    {"GPS_GET_APPLICATION_COUNT", 0x0800400C, ""sv, 4, 0, 4, "02000000"},
    {"GPS_SET_NMEA_MODE", 0x08008014, "\xFF\xFF\xFF\xFF"sv, 0},
    {"GPS_GET_NMEA_MODE, short, which it calls a success", 0x08004010, ""sv, 2},
    {"GPS_GET_NMEA_MODE", 0x08004010, ""sv, 4, 0, 4, "ffffffff"},
    {"GPS_RESET_GPS, which gives back what it got", 0x08004018, "12345678"sv, 8, 0, 8, "3132333435363738"},
    {"GPS_QUERY_VERSION, short", 0x08004024, ""sv, 19, kTooSmall},
    {"GPS_QUERY_VERSION", 0x08004024, ""sv, 20, 0, 20, "372e322e312e3100000000000000000000000000"},
    {"GPS_QUERY_SHORT_VERSION, short", 0x08004040, ""sv, 9, kTooSmall},
    {"GPS_QUERY_SHORT_VERSION", 0x08004040, ""sv, 10, 0, 10, "372e3200000000000000"},
    {"GPS_QUERY_BUILD_DATE, short", 0x08004080, ""sv, 19, kTooSmall},
    {"GPS_QUERY_BUILD_DATE", 0x08004080, ""sv, 20, 0, 20, "4d61722020312032303132000000000000000000"},
    {"GPS_SET_DEBUG_LEVEL", 0x080080C0, "\0\0\0\0"sv, 0, kBadRequest},
    {"NAVOX_OPERATION", 0x0800C004, "\0\0\0\0"sv, 4, kBadRequest},
    {"SERENUM_GET_PORT_NAME", 0x0037020C, ""sv, 64, kBadRequest},
};

constexpr ReadStep kTimeouts[] = {
    {"no time-outs: until it is full", 0, 0, 0, "ab", "", 3, kStillPending, "", 0},
    {"no time-outs, filled later", 0, 0, 0, "ab", "cd", 4, 0, "abcd", 0},
    {"no length", 0, 0, 0, "", "", 0, 0, "", 0},
    {"what is there, and that is nothing", kNever, 0, 0, "", "", 8, 0, "", 0},
    {"what is there", kNever, 0, 0, "abc", "", 8, 0, "abc", 0},
    {"the first byte, which is there", kNever, kNever, 200, "abc", "", 8, 0, "abc", 0},
    {"the first byte, which comes", kNever, kNever, 5000, "", "x", 8, 0, "x", 0},
    {"the first byte, which does not come", kNever, kNever, 120, "", "", 8, kTimeout, "", 120},
    {"the first byte, and no time for it", kNever, kNever, 0, "", "", 8, kTimeout, "", 0},
    {"the first bytes, with a multiplier", kNever, 10, 50, "", "", 8, kTimeout, "", 130},
    {"a constant that is the highest: no time-out", kNever, 0, kNever, "ab", "", 3, kStillPending, "", 0},
    {"a constant", 0, 0, 150, "abcd", "", 8, kTimeout, "abcd", 150},
    {"a multiplier", 0, 10, 0, "", "", 8, kTimeout, "", 80},
    {"both", 0, 10, 40, "a", "", 8, kTimeout, "a", 120},
    {"an interval behind what was there", 80, 0, 0, "abcd", "", 8, kTimeout, "abcd", 80},
    {"an interval, and no first byte", 20, 0, 0, "", "", 8, kStillPending, "", 0},
    {"an interval behind what came", 80, 0, 0, "", "abcd", 8, kTimeout, "abcd", 80},
    {"an interval, and a total that is shorter", 5000, 0, 100, "ab", "", 8, kTimeout, "ab", 100},
    {"an interval below zero", 0x80000000, 0, 0, "ab", "", 8, kTimeout, "ab", 0},
};

constexpr Step kEvents[] = {
    {"CreateFile, and the first sentence", CALL(OpenEmpty(0)), 0, 32, kSentence},
    {"a wait without a mask", CALL(StartWait(1, 0)), kInvalidParameter},
    {"a mask", DO(SetCommMask(p[0], 1))},
    {"is kept", CALL(Mask(0)), 0, 1},
    {"a wait", CALL(StartWait(1, 0)), kPending},
    {"a second wait", CALL(StartWait(2, 0)), kInvalidParameter},
    {"the first waits on", CALL(Look(1)), kStillPending},
    {"two bytes", CALL(Feed("ab"))},
    {"end the wait", CALL(End(1)), 0, 4, "1"},
    {"two more", CALL(Feed("cd"))},
    {"arrive without a wait", CALL(AwaitQueue(0, 4)), 0, 4, "0, 0"},
    {"the same mask", DO(SetCommMask(p[0], 1))},
    {"forgets no event",
     [](Program& p) {
         p.StartWait(1, 0);
         return p.End(1);
     },
     0, 4, "1"},
    {"a third wait", CALL(StartWait(1, 0)), kPending},
    {"a mask for what never comes", DO(SetCommMask(p[0], 0x1FC))},
    {"ends the wait, with no event", CALL(End(1)), 0, 4, "0"},
    {"a fourth wait", CALL(StartWait(1, 0)), kPending},
    {"bytes", CALL(Feed("ef"))},
    {"arrive", CALL(AwaitQueue(0, 6)), 0, 6, "0, 0"},
    {"and are not waited for", CALL(Look(1)), kStillPending},
    {"a cancelled wait", CALL(CancelOne(0, 1))},
    {"ends as such", CALL(End(1)), kCancelled},
    {"and its error", CALL(Error(1)), kAborted},
};

constexpr Step kCancelling[] = {
    {"CreateFile, and the first sentence", CALL(OpenEmpty(0)), 0, 32, kSentence},
    {"nothing to cancel", DO(CancelIoEx(p[0])), kNotFound, 0, nullptr, 0},
    {"a read", CALL(StartRead(1, 0, 4)), kPending},
    {"a second", CALL(StartRead(2, 0, 4)), kPending},
    {"the first is cancelled", CALL(CancelOne(0, 1))},
    {"and ends", CALL(End(1)), kCancelled},
    {"with an error", CALL(Error(1)), kAborted},
    {"the second goes on", CALL(Look(2)), kStillPending},
    {"a third", CALL(StartRead(3, 0, 4)), kPending},
    {"is cancelled behind it", CALL(CancelOne(0, 3))},
    {"and ends", CALL(End(3)), kCancelled},
    {"a purge", DO(PurgeComm(p[0], PURGE_ALL))},
    {"ends nothing", CALL(Look(2)), kStillPending},
    {"bytes", CALL(Feed("abcd"))},
    {"for the second", CALL(End(2)), 0, 4, "abcd"},
    {"it can not be cancelled any more", CALL(CancelOne(0, 2)), kNotFound},
    {"three bytes are kept", CALL(Feed("efg"))},
    {"in the queue", CALL(AwaitQueue(0, 3)), 0, 3, "0, 0"},
    {"for a read that wants four", CALL(StartRead(1, 0, 4)), kPending},
    {"and one behind it", CALL(StartRead(2, 0, 4)), kPending},
    {"both are cancelled", DO(CancelIoEx(p[0]))},
    {"one", CALL(End(1)), kCancelled},
    {"two", CALL(End(2)), kCancelled},
    {"what was taken is gone", CALL(Queue(0)), 0, 0, "0, 0"},
    {"a last one", CALL(StartRead(1, 0, 4)), kPending},
    {"CloseHandle", CALL(Close(0))},
    {"ends it", CALL(End(1)), kCancelled},
    {"a new handle", CALL(OpenEmpty(0)), 0, 32, kSentence},
    {"with a time-out", CALL(SetTimeouts(0, 0, 0, 30))},
    {"a read that nothing comes for", CALL(StartRead(1, 0, 4)), kPending},
    {"ends", CALL(End(1)), kTimeout},
    {"a time-out is no error", CALL(Error(1)), 0, 0, nullptr, 1460},
};

constexpr Step kStopped[] = {
    {"CreateFile, and the first sentence", CALL(OpenEmpty(0)), 0, 32, kSentence},
    {"the device is stopped", CALL(Stop())},
    {"a read while it is", CALL(StartRead(1, 0, 4)), kDenied},
    {"a mask while it is", DO(SetCommMask(p[0], 1)), kDenied},
    {"a write while it is", CALL(Write(0, "x")), 0, 1},
    {"a private control while it is", CALL(Control(0, 0x08004008, {}, 4)), 0, 4, "05000000"},
    {"CreateFile while it is", CALL(Open(1, true)), 1450},
    {"the device is started", CALL(Start())},
    {"a mask again", DO(SetCommMask(p[0], 1))},
    {"CreateFile again", CALL(OpenEmpty(1)), 0, 32, kSentence},
};

constexpr Step kAsleep[] = {
    {"CreateFile, and the first sentence", CALL(OpenEmpty(0)), 0, 32, kSentence},
    {"a read", CALL(StartRead(1, 0, 4)), kPending},
    {"the system sleeps", CALL(Sleep())},
    {"the read waits", CALL(Look(1)), kStillPending},
    {"nothing else can be asked for", CALL(Mask(0)), kDenied},
    {"the system wakes", CALL(Wake())},
    {"the read still waits", CALL(Look(1)), kStillPending},
    {"bytes", CALL(Feed("abcd"))},
    {"end it", CALL(End(1)), 0, 4, "abcd"},
};

// The last: nothing is there after it.
constexpr Step kUnplugged[] = {
    {"CreateFile, and the first sentence", CALL(OpenEmpty(0)), 0, 32, kSentence},
    {"a second handle", CALL(OpenEmpty(1)), 0, 32, kSentence},
    {"with a mask", DO(SetCommMask(p[1], 1))},
    {"a read", CALL(StartRead(1, 0, 4)), kPending},
    {"a read behind it", CALL(StartRead(2, 0, 4)), kPending},
    {"a wait", CALL(StartWait(3, 1)), kPending},
    {"the module is pulled", CALL(Unplug())},
    {"the read ends", CALL(End(1)), kCancelled},
    {"the one behind it", CALL(End(2)), kCancelled},
    {"the wait", CALL(End(3)), kCancelled},
    {"a read without a module", CALL(StartRead(1, 0, 4)), kDenied},
    {"a mask without a module", DO(SetCommMask(p[0], 1)), kDenied},
    {"a write without a module", CALL(Write(1, "x")), 0, 1},
};
#undef CALL
#undef DO

constexpr Scenario kScenarios[] = {
    {"FreshHandle", kFresh},
    {"Settings", kSettings},
    {"Controls", kOpen, kControls},
    {"ReadTimeouts", kOpen, {}, kTimeouts},
    {"Events", kEvents},
    {"Cancelling", kCancelling},
    {"Asleep", kAsleep},
    {"Stopped", kStopped},
    {"Unplugged", kUnplugged},
};

std::string Show(const Outcome& outcome)
{
    char numbers[40];
    std::snprintf(numbers, sizeof(numbers), "%lx, %lu, \"", static_cast<unsigned long>(outcome.result),
                  static_cast<unsigned long>(outcome.count));
    return numbers + outcome.text + '"';
}

class Comparison {
  public:
    void Compare(const char* what, const Outcome& actual, const Outcome& expected)
    {
        if (Show(actual) != Show(expected))
            lines.push_back(std::string(what) + ": " + Show(actual) + ", not " + Show(expected));
    }

    std::vector<std::string> lines;
};

Outcome ReadTimed(Program& program, const ReadStep& step)
{
    const std::string_view held = step.held;
    const std::string_view later = step.later;
    program.SetTimeouts(0, step.interval, step.multiplier, step.constant);
    if (!held.empty()) {
        program.Feed(held);
        program.AwaitQueue(0, static_cast<DWORD>(held.size()));
    }
    program.StartRead(1, 0, step.length);
    if (!later.empty()) {
        if (program.Look(1).result != kStillPending)
            return {0, 0, "ended before the last bytes came"};
        program.Feed(later);
    }
    if (step.result != kStillPending)
        return program.End(1);
    const Outcome outcome = program.Look(1);
    program.CancelOne(0, 1);
    program.End(1);
    return outcome;
}

} // namespace

std::span<const Scenario> Scenarios()
{
    return kScenarios;
}

std::vector<std::string> Play(Program& program, const Scenario& scenario, bool on_wine)
{
    Comparison comparison;
    for (const Step& step : scenario.steps) {
        Outcome actual = step.run(program);
        if (step.text == nullptr)
            actual.text.clear();
        Outcome expected{step.result, step.count, step.text == nullptr ? "" : step.text};
        if (on_wine && step.result_on_wine)
            expected = {*step.result_on_wine, 0, {}};
        comparison.Compare(step.what, actual, expected);
    }
    for (const ControlStep& step : scenario.controls)
        comparison.Compare(step.what, program.Control(0, step.code, step.input, step.room),
                           {step.result, step.count, step.text});
    for (const ReadStep& step : scenario.reads) {
        const Outcome actual = ReadTimed(program, step);
        const double took = program.Took();
        const std::string_view text = step.text;
        comparison.Compare(step.what, actual, {step.result, static_cast<DWORD>(text.size()), step.text});
        // A tick of the clock early is on time.
        if (step.result != kStillPending && (took + 2 < step.after || took > step.after + program.Slack()))
            comparison.lines.push_back(std::string(step.what) + ": after " + std::to_string(took) + " ms");
    }
    return comparison.lines;
}

} // namespace win32
