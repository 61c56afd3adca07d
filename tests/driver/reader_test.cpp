// The continuous reader: how it makes the module talk, what it brings to the clients, and what ends it.
#include "scripted_module.h"

#include <algorithm>

namespace navox_test {
namespace {

using host::FaultPoint;
using host::nt::Request;
using module::AnswerFault;
using module::PacketFault;
using module::Pipe;
using Strings = std::vector<std::string>;

constexpr host::Time kTick = 16 * kMillisecond; // of the clock, rounded up

// What the reader has on the bus since the log was emptied: "reset 02", "command", "answer" (a read of one packet),
// "stream" (a transfer of 4096 bytes), "abort 82", "line" for each set-up request.
Strings ReaderLog()
{
    Strings log;
    for (const host::UsbRequest& request : host::UsbBus::Current().Log()) {
        const std::string end = request.endpoint == kBulkIn ? " 82" : " 02";
        switch (request.function) {
        case URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL: log.push_back("reset" + end); break;
        case URB_FUNCTION_ABORT_PIPE: log.push_back("abort" + end); break;
        case URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER:
            log.push_back(request.endpoint != kBulkIn ? "command"
                          : request.length == 4096    ? "stream"
                                                      : "answer");
            break;
        default: log.push_back("line"); break;
        }
    }
    return log;
}

const Strings kAsk = {"reset 02", "reset 82", "command"};

// The exchange -----------------------------------------------------------------------------------------------

const std::string kOk = "\r\nOK\r\n";
const std::string kError = "\r\nERROR\r\n";
const std::string kEcho = "AT*Q7GPSNPD\r";
using std::string_literals::operator""s;

struct Dialogue {
    std::vector<Strings> answers;   // packets to each command
    std::vector<std::size_t> reads; // of an answer, after each command
};

TEST(Exchange, GoesOnUntilTheModuleAgrees)
{
    const Dialogue dialogues[] = {
        {{{kOk}}, {1}},
        {{{kEcho, kOk}}, {2}},
        {{{"$GPGGA,already,streaming\r\n"}}, {1}},
        {{{"$"}}, {1}},
        {{{kOk + "$GPGGA,in,the,same,packet\r\n"}}, {1}},
        // Refused, and tried again at once.
        {{{kError}, {kOk}}, {1, 1}},
        {{{kEcho, kError}, {kError}, {"$GPGGA"}}, {2, 1, 1}},
        // What begins otherwise is no answer.
        {{{"OK\r\n", kOk}}, {2}},
        {{{"\r\nO", "K\r\n", "$"}}, {3}},
        {{{"\r\nERROR", "\r\n", kOk}}, {3}},
        {{{kEcho + kOk, kOk}}, {2}},
        {{{"\xFF\x00\x01"s + kOk, "\0"s + kOk, kOk}}, {3}},
        {{{"", "", kOk}}, {3}}, // empty packets
        {{{std::string(512, 'x'), kOk}}, {2}},
        {{{" $GPGGA", kOk}}, {2}},
    };
    for (const auto& [answers, reads] : dialogues) {
        SCOPED_TRACE(::testing::PrintToString(answers));
        Conversation conversation(answers);
        const Port port = conversation.rig.Open();
        host::UsbBus::Current().ClearLog();
        conversation.rig.RunFor(1'520 * kMillisecond);
        Strings expected;
        for (const std::size_t count : reads)
            expected = expected + kAsk + Strings(count, "answer");
        EXPECT_EQ(ReaderLog(), expected + Strings{"stream"});

        // What came with the answer is gone; what comes now is for the clients.
        conversation.Send("$GPTXT,1\r\n");
        EXPECT_EQ(port.Read(42).Text(), std::string(kEmptyFix) + "$GPTXT,1\r\n");
    }
}

TEST(Exchange, BeginsOneAndAHalfSecondsAfterTheFirstOpen)
{
    Conversation conversation({{kOk}});
    const Port port = conversation.rig.Open();
    const host::Time opened = conversation.rig.kernel.InterruptTime();
    host::UsbBus::Current().ClearLog();
    conversation.rig.RunFor(2 * kSecond);
    const auto log = host::UsbBus::Current().Log();
    ASSERT_GE(log.size(), 4U);
    EXPECT_GE(log[0].submitted - opened, 1'500 * kMillisecond);
    EXPECT_LE(log[0].submitted - opened, 1'500 * kMillisecond + kTick);
    EXPECT_EQ(log[2].length, 13U); // the command, without a terminator
    EXPECT_EQ(log[3].length, 512U);
}

// Seven seconds, then the pipe is aborted, the read comes back, and the next round asks again.
TEST(Exchange, WithASilentModuleIsGivenUpAfterSevenSecondsAndTriedAgain)
{
    Conversation conversation({{}, {kEcho}, {kOk}});
    const Port port = conversation.rig.Open();
    host::UsbBus::Current().ClearLog();
    conversation.rig.RunFor(30 * kSecond);
    const Strings expected = kAsk + Strings{"answer", "abort 82"} + kAsk +
                             Strings{"answer", "answer", "abort 82"} + kAsk + Strings{"answer", "stream"};
    EXPECT_EQ(ReaderLog(), expected);
    const auto log = host::UsbBus::Current().Log();
    const host::UsbRequest& answer = log[3];
    const host::UsbRequest& abort = log[4];
    EXPECT_GE(abort.submitted - answer.submitted, 7 * kSecond);
    EXPECT_LE(abort.submitted - answer.submitted, 7 * kSecond + kTick);
    EXPECT_EQ(answer.usbd_status, USBD_STATUS_CANCELED);
    EXPECT_GE(answer.completed, abort.submitted);
    EXPECT_GE(log[5].submitted, answer.completed);
    EXPECT_GE(log[10].submitted - log[9].submitted, 7 * kSecond); // each read has its own seven seconds
}

TEST(Exchange, WithAModuleThatNeverSpeaksGoesOnForeverAndEndsWithTheLastClose)
{
    Conversation conversation({});
    Port port = conversation.rig.Open();
    conversation.rig.RunFor(1'500 * kMillisecond + 70 * kSecond);
    const Strings log = ReaderLog();
    EXPECT_EQ(std::ranges::count(log, "command"), 10);
    port.Close();
    conversation.rig.RunFor(30 * kSecond);
    host::UsbBus::Current().ClearLog();
    conversation.rig.RunFor(30 * kSecond);
    EXPECT_TRUE(ReaderLog().empty());
}

// A stalled answer is asked for again at once. The command is not checked by itself: the module's silence tells.
TEST(Exchange, OvercomesWhatTheModuleDoesWrong)
{
    const auto stall = [](Pipe pipe, unsigned nth) {
        return module::Faults{.packets = {{.kind = PacketFault::Kind::Stall, .pipe = pipe, .nth = nth}}};
    };
    struct {
        const char* what;
        module::Faults faults;
        host::Time silent; // at least so long after the first command
        int commands, aborts;
    } const rows[] = {
        {"the command stalls", stall(Pipe::BulkOut, 1), 6 * kSecond, 2, 1},
        {"the first packet of the answer stalls", stall(Pipe::BulkIn, 1), 0, 2, 0},
        {"the second packet of the answer stalls", stall(Pipe::BulkIn, 2), 0, 2, 0},
        {"the answer is late",
         {.answers = {{.kind = AnswerFault::Kind::Late, .delay = 6 * kSecond}}},
         5 * kSecond,
         1,
         0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        Rig rig({.module = {.faults = row.faults}});
        host::UsbBus::Current().ClearLog();
        const Port port = rig.Open();
        rig.RunFor(1'500 * kMillisecond + row.silent);
        EXPECT_EQ(port.InQueue(), kEmptyFix.size());
        EXPECT_TRUE(rig.kernel.RunUntil([&] { return port.InQueue() > kEmptyFix.size(); }, 4 * kSecond));
        const Strings log = ReaderLog();
        EXPECT_EQ(std::ranges::count(log, "command"), row.commands);
        EXPECT_EQ(std::ranges::count(log, "abort 82"), row.aborts);
        EXPECT_EQ(log.back(), "stream");
    }
}

TEST(Exchange, IsRepeatedWhenMemoryIsShort)
{
    for (const char* tag : {"NxAt", "NxAp", "NxAr"}) {
        Rig rig;
        rig.kernel.Faults().Arm(FaultPoint::PoolAllocate, {.detail = tag});
        const Port port = rig.OpenStreaming();
        EXPECT_EQ(rig.kernel.Faults().Faults(FaultPoint::PoolAllocate), 1U) << tag;
        EXPECT_TRUE(rig.kernel.RunUntil([&] { return port.InQueue() > 32; }, 20 * kSecond)) << tag;
    }
}

// Who closes and opens again while the module is being asked must not have it asked twice at a time.
TEST(Exchange, IsNeverHeldTwiceAtATime)
{
    Conversation conversation({{}, {kOk}});
    Rig& rig = conversation.rig;
    Port port = rig.Open();
    rig.RunFor(3 * kSecond); // the exchange runs until 8.5 s
    port.Close();
    rig.RunFor(kSecond);
    port = rig.Open();
    rig.RunFor(30 * kSecond);
    host::Time free = 0; // when the data pipes were last free
    for (const host::UsbRequest& request : host::UsbBus::Current().Log()) {
        if (request.function != URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER)
            continue;
        EXPECT_GE(request.submitted, free) << "request " << request.number;
        free = request.done ? request.completed : rig.kernel.InterruptTime();
    }
    EXPECT_EQ(ReaderLog().back(), "stream");
}

// Fan-out ----------------------------------------------------------------------------------------------------

std::string Line(int number)
{
    return "$GPTXT," + std::to_string(1'000'000 + number) + "\r\n";
}

std::string Lines(int from, int to)
{
    std::string text;
    for (int i = from; i < to; ++i)
        text += Line(i);
    return text;
}

RigOptions Counting(int lines, host::Time every)
{
    RigOptions options;
    options.source = [=] {
        ScriptedSource::Script script;
        for (int i = 0; i < lines; ++i)
            script.bursts.emplace_back((i + 1) * every, Line(i));
        return std::make_unique<ScriptedSource>(std::move(script));
    };
    return options;
}

TEST(FanOut, IsNotHeldUpByAClientThatDoesNotRead)
{
    constexpr int kLines = 600; // 10 KB
    Rig rig(Counting(kLines, 20 * kMillisecond));
    const Port lazy = rig.Open();
    const Port keen = rig.OpenStreaming();
    EXPECT_EQ(keen.Read(32).Text(), kEmptyFix);
    const host::Time start = rig.kernel.InterruptTime();
    for (int i = 0; i < kLines; ++i) {
        ASSERT_EQ(keen.Read(Line(i).size()).Text(), Line(i));
        ASSERT_LE(rig.kernel.InterruptTime() - start, 20 * kMillisecond * (i + 1) + 2 * kTick);
    }
    EXPECT_EQ(lazy.InQueue(), 4096U);
}

TEST(FanOut, BeginsForAClientWhenItOpens)
{
    Rig rig(Counting(20, kSecond));
    const Port first = rig.OpenStreaming();
    rig.RunFor(5'500 * kMillisecond);
    const Port second = rig.Open();
    rig.RunFor(3 * kSecond);
    EXPECT_EQ(second.Read(32 + 3 * Line(0).size()).Text(), std::string(kEmptyFix) + Lines(5, 8));
    EXPECT_EQ(first.Read(32 + 8 * Line(0).size()).Text(), std::string(kEmptyFix) + Lines(0, 8));
}

// Transfers --------------------------------------------------------------------------------------------------

void ExpectReadingAnew(Rig& rig, Port& port)
{
    port.Close();
    port = rig.OpenStreaming();
    EXPECT_TRUE(rig.kernel.RunUntil([&] { return port.InQueue() > 32; }, 2 * kSecond));
}

// No retry and no reset: it is over until the port has been closed by everybody and opened again.
TEST(Transfer, ThatFailsOrCannotBeMadeEndsReadingUntilTheNextFirstOpen)
{
    using enum FaultPoint;
    std::vector<std::pair<FaultPoint, host::FaultPlan>> faults = {{IrpAllocate, {}},
                                                                  {PoolAllocate, {.detail = "NxRu"}}};
    for (const NTSTATUS status : {STATUS_UNSUCCESSFUL, STATUS_DEVICE_NOT_CONNECTED,
                                  STATUS_INSUFFICIENT_RESOURCES, STATUS_IO_TIMEOUT, STATUS_DEVICE_DATA_ERROR})
        faults.emplace_back(BusRequest, host::FaultPlan{.fault = {.status = status}});
    for (const auto& [point, plan] : faults) {
        SCOPED_TRACE(host::FaultPointName(point) + std::string(" ") + std::to_string(plan.fault.status));
        Rig rig(Counting(100, 200 * kMillisecond));
        Port port = rig.OpenStreaming();
        rig.kernel.Faults().Arm(point, plan);
        rig.RunFor(kSecond);
        EXPECT_EQ(rig.kernel.Faults().Faults(point), 1U);
        const ULONG had = port.InQueue();
        host::UsbBus::Current().ClearLog();
        rig.Open().Close(); // not a first open, nor a last close
        rig.RunFor(5 * kSecond);
        EXPECT_TRUE(ReaderLog().empty());
        EXPECT_EQ(port.InQueue(), had);
        ExpectReadingAnew(rig, port);
    }
}

TEST(Transfer, ThatTheModuleSpoilsEndsReadingUntilTheNextFirstOpen)
{
    for (const auto kind : {PacketFault::Kind::Stall, PacketFault::Kind::Babble}) {
        RigOptions options = Counting(100, 200 * kMillisecond);
        options.module.faults.packets = {
            {.kind = kind, .pipe = Pipe::BulkIn, .nth = 6}}; // echo, OK, four lines
        Rig rig(options);
        Port port = rig.OpenStreaming();
        port.SetTimeouts(0, 0, 2'000);
        EXPECT_EQ(port.Read(1000).Text(), std::string(kEmptyFix) + Lines(0, 3));
        ExpectReadingAnew(rig, port);
    }
}

TEST(Transfer, OfNothingDeliversNothingAndTheNextFollows)
{
    Conversation conversation({{kOk}});
    const Port port = conversation.rig.Open();
    const Request read = port.StartRead(40);
    conversation.rig.RunFor(2 * kSecond);
    conversation.Send("");
    conversation.Send("");
    conversation.rig.RunFor(kSecond);
    EXPECT_FALSE(read.Done());
    EXPECT_EQ(std::ranges::count(ReaderLog(), "stream"), 3);
    conversation.Send("12345678");
    EXPECT_EQ(read.Wait().Text(), std::string(kEmptyFix) + "12345678");
}

// Without a work item the DPC tries again, and again.
TEST(Transfer, WaitsForTheMemoryOfItsWorkItem)
{
    Rig rig;
    const Port port = rig.OpenStreaming();
    rig.kernel.Faults().Arm(FaultPoint::WorkItemAllocate, {.count = 100});
    EXPECT_TRUE(rig.kernel.RunUntil([&] { return port.InQueue() > 1000; }, 20 * kSecond));
    EXPECT_EQ(rig.kernel.Faults().Faults(FaultPoint::WorkItemAllocate), 100U);
}

// The last close takes the transfer back before it tells the module, and what that had is nobody's.
TEST(Transfer, IsCancelledByTheLastClose)
{
    Rig rig(Counting(100, kSecond));
    Port one = rig.OpenStreaming();
    Port two = rig.Open();
    rig.RunFor(500 * kMillisecond);
    one.Close();
    EXPECT_FALSE(host::UsbBus::Current().Log().back().done);
    const host::Time closing = rig.kernel.InterruptTime();
    two.Close();
    const auto log = host::UsbBus::Current().Log();
    const host::UsbRequest& transfer = log[log.size() - 4]; // three requests release the line
    EXPECT_EQ(transfer.endpoint, kBulkIn);
    EXPECT_EQ(transfer.usbd_status, USBD_STATUS_CANCELED);
    EXPECT_EQ(transfer.completed, closing);
    rig.RunFor(10 * kSecond);
    EXPECT_EQ(host::UsbBus::Current().Log().size(), log.size());
}

} // namespace
} // namespace navox_test
