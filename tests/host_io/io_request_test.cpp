// Requests on their way down and up: stack locations, completion routines, pending, cancel, buffers.
#include "scripted_driver.h"

#include <optional>

namespace {

using host::Rule;
using host::nt::BytesOf;
using host_test::Below;
using host_test::Bench;
using host_test::Complete;
using host_test::Keep;
using host_test::Kept;

// Three devices of the scripted driver, one above the other, and what each does with a read.
class Stack {
  public:
    Stack()
    {
        bench.OnRequest(IRP_MJ_READ, [this](PDEVICE_OBJECT device, PIRP irp) {
            const auto& routine = device == top ? on_top : device == middle ? on_middle : on_bottom;
            return routine(device, irp);
        });
        bottom = bench.script.device;
        middle = host_test::MakeDevice(bench.driver, u"");
        IoAttachDeviceToDeviceStack(middle, bottom);
        top = host_test::MakeDevice(bench.driver, u"");
        IoAttachDeviceToDeviceStack(top, bottom);
    }
    ~Stack()
    {
        IoDetachDevice(middle);
        IoDeleteDevice(top);
        IoDetachDevice(bottom);
        IoDeleteDevice(middle);
    }

    static NTSTATUS Forward(PDEVICE_OBJECT device, PIRP irp, PIO_COMPLETION_ROUTINE routine, PVOID context,
                            bool success = true, bool error = true, bool cancel = true)
    {
        IoCopyCurrentIrpStackLocationToNext(irp);
        if (routine != nullptr)
            IoSetCompletionRoutine(irp, routine, context, success, error, cancel);
        return IoCallDriver(Below(device), irp);
    }

    Bench bench;
    PDEVICE_OBJECT bottom = nullptr;
    PDEVICE_OBJECT middle = nullptr;
    PDEVICE_OBJECT top = nullptr;
    host_test::Dispatch on_top = host_test::PassDown;
    host_test::Dispatch on_middle = host_test::PassDown;
    host_test::Dispatch on_bottom = [](PDEVICE_OBJECT, PIRP irp) { return Complete(irp, STATUS_SUCCESS); };
};

struct Visit {
    PDEVICE_OBJECT device = nullptr;
    int location = 0;
    int calls = 0;
    bool pending = false;
};

NTSTATUS NTAPI NoteVisit(PDEVICE_OBJECT device, PIRP irp, PVOID context)
{
    auto* visit = static_cast<Visit*>(context);
    visit->device = device;
    visit->location = irp->CurrentLocation;
    visit->pending = irp->PendingReturned != FALSE;
    ++visit->calls;
    if (irp->PendingReturned && irp->CurrentLocation <= irp->StackCount)
        IoMarkIrpPending(irp);
    return STATUS_SUCCESS;
}

TEST(Request, CompletionRoutinesRunFromTheBottomUp)
{
    Stack stack;
    Visit middle;
    Visit top;
    stack.on_top = [&](PDEVICE_OBJECT device, PIRP irp) {
        return Stack::Forward(device, irp, NoteVisit, &top);
    };
    stack.on_middle = [&](PDEVICE_OBJECT device, PIRP irp) {
        EXPECT_EQ(irp->CurrentLocation, 2);
        return Stack::Forward(device, irp, NoteVisit, &middle);
    };
    const host::nt::Result result = stack.bench.Open().Read(4);
    EXPECT_EQ(result.status, STATUS_SUCCESS);
    // A routine sees the device that set it, at that device's own stack location.
    EXPECT_EQ(middle.device, stack.middle);
    EXPECT_EQ(middle.location, 2);
    EXPECT_EQ(top.device, stack.top);
    EXPECT_EQ(top.location, 3);
}

struct InvokeCase {
    NTSTATUS status;
    bool cancelled;
    bool success, error, cancel;
    int calls;
};

TEST(Request, CompletionRoutinesRunOnWhatTheyAskedFor)
{
    const InvokeCase cases[] = {
        {STATUS_SUCCESS, false, true, false, false, 1},
        {STATUS_SUCCESS, false, false, true, true, 0},
        {STATUS_BUFFER_OVERFLOW, false, false, true, false, 1},
        {STATUS_UNSUCCESSFUL, false, false, true, false, 1},
        {STATUS_UNSUCCESSFUL, false, true, false, true, 0},
        {STATUS_CANCELLED, true, false, false, true, 1},
        {STATUS_TIMEOUT, false, true, false, false, 1},
    };
    for (const InvokeCase& item : cases) {
        Stack stack;
        Visit visit;
        stack.on_middle = [&](PDEVICE_OBJECT device, PIRP irp) {
            return Stack::Forward(device, irp, NoteVisit, &visit, item.success, item.error, item.cancel);
        };
        stack.on_bottom = [&](PDEVICE_OBJECT, PIRP irp) {
            irp->Cancel = item.cancelled;
            return Complete(irp, item.status);
        };
        EXPECT_EQ(stack.bench.Open().Read(4).status, item.status);
        EXPECT_EQ(visit.calls, item.calls);
    }
}

NTSTATUS NTAPI KeepIt(PDEVICE_OBJECT, PIRP, PVOID context)
{
    KeSetEvent(static_cast<PKEVENT>(context), IO_NO_INCREMENT, FALSE);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

TEST(Request, PendingTravelsUpTheStack)
{
    for (const bool with_routine : {false, true}) {
        Stack stack;
        Visit visit;
        stack.on_bottom = Keep;
        stack.on_middle = [&](PDEVICE_OBJECT device, PIRP irp) {
            return Stack::Forward(device, irp, with_routine ? NoteVisit : nullptr, &visit);
        };
        const host::nt::File file = stack.bench.Open();
        const host::nt::Request read = file.StartRead(4);
        EXPECT_EQ(read.Status(), STATUS_PENDING);
        Complete(Kept(), STATUS_SUCCESS);
        EXPECT_EQ(read.Status(), STATUS_SUCCESS);
        EXPECT_EQ(visit.pending, with_routine);
        if (!with_routine)
            EXPECT_EQ(stack.bench.Broken(), std::vector{host::Rule::IrpNeedlessCopy})
                << "which works all the same";
    }
}

struct CopyCase {
    NTSTATUS status;
    ULONG_PTR information;
    std::string seen; // by the client
};

TEST(Request, BufferedDataAreCopiedOutOnSuccessAndWarning)
{
    const CopyCase cases[] = {
        {STATUS_SUCCESS, 5, "hello"},
        {STATUS_SUCCESS, 2, "he"},
        {STATUS_SUCCESS, 0, ""},
        {STATUS_TIMEOUT, 3, "hel"},
        {STATUS_BUFFER_OVERFLOW, 5, "hello"},
        {STATUS_CANCELLED, 5, ""},
        {STATUS_UNSUCCESSFUL, 5, ""},
    };
    for (const CopyCase& item : cases) {
        Bench bench;
        bench.OnRequest(IRP_MJ_READ, [&](PDEVICE_OBJECT, PIRP irp) {
            std::memcpy(irp->AssociatedIrp.SystemBuffer, "hello", 5);
            return Complete(irp, item.status, item.information);
        });
        const host::nt::Result result = bench.Open().Read(5);
        EXPECT_EQ(result.status, item.status);
        EXPECT_EQ(result.information, item.information);
        EXPECT_EQ(result.Text(), item.seen);
    }
}

TEST(Request, BytesThatADriverNeverWroteShowTheFillPattern)
{
    Bench bench;
    bench.OnRequest(IRP_MJ_DEVICE_CONTROL,
                    [](PDEVICE_OBJECT, PIRP irp) { return Complete(irp, STATUS_SUCCESS, 4); });
    const host::nt::File file = bench.Open();
    const USHORT input = 0x1234;
    for (const int fill : {0x5A, 0xA5}) {
        host::IoManager::Current().SetSystemBufferFill(static_cast<std::byte>(fill));
        const auto data = file.Control(0x80002000, BytesOf(input), 4).data;
        ASSERT_EQ(data.size(), 4U);
        EXPECT_EQ(data[0], std::byte{0x34});
        EXPECT_EQ(data[1], std::byte{0x12});
        EXPECT_EQ(data[2], static_cast<std::byte>(fill));
        EXPECT_EQ(data[3], static_cast<std::byte>(fill));
    }
}

TEST(Request, ABuiltRequestReportsToItsEventAndStatusBlock)
{
    for (const bool pends : {false, true}) {
        Bench bench;
        PDEVICE_OBJECT device = bench.script.device;
        bench.OnRequest(IRP_MJ_INTERNAL_DEVICE_CONTROL, [&](PDEVICE_OBJECT, PIRP irp) {
            const auto& control = IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl;
            EXPECT_EQ(control.IoControlCode, 0x80002000U);
            EXPECT_EQ(control.InputBufferLength, 3U);
            std::memcpy(irp->AssociatedIrp.SystemBuffer, "ab", 2);
            if (pends)
                return Keep(device, irp);
            return Complete(irp, STATUS_SUCCESS, 2);
        });
        KEVENT event;
        KeInitializeEvent(&event, NotificationEvent, FALSE);
        IO_STATUS_BLOCK block{};
        char input[] = {'x', 'y', 'z'};
        char output[8] = {};
        PIRP irp =
            IoBuildDeviceIoControlRequest(0x80002000, device, input, 3, output, 8, TRUE, &event, &block);
        ASSERT_NE(irp, nullptr);
        EXPECT_EQ(IoCallDriver(device, irp), pends ? STATUS_PENDING : STATUS_SUCCESS);
        if (pends) {
            EXPECT_EQ(KeReadStateEvent(&event), 0);
            Complete(Kept(), STATUS_SUCCESS, 2);
        }
        EXPECT_NE(KeReadStateEvent(&event), 0);
        EXPECT_EQ(block.Status, STATUS_SUCCESS);
        EXPECT_EQ(block.Information, 2U);
        EXPECT_EQ(std::string(output), "ab");
    }
}

TEST(Request, AnAllocatedOneIsItsDriversToFree)
{
    Bench bench;
    PDEVICE_OBJECT device = bench.script.device;
    bench.OnRequest(IRP_MJ_READ, [](PDEVICE_OBJECT, PIRP irp) { return Complete(irp, STATUS_SUCCESS); });
    KEVENT back;
    KeInitializeEvent(&back, NotificationEvent, FALSE);
    PIRP irp = IoAllocateIrp(device->StackSize, FALSE);
    for (int round = 0; round < 2; ++round) {
        IoGetNextIrpStackLocation(irp)->MajorFunction = IRP_MJ_READ;
        IoSetCompletionRoutine(irp, KeepIt, &back, TRUE, TRUE, TRUE);
        EXPECT_EQ(IoCallDriver(device, irp), STATUS_SUCCESS);
        EXPECT_NE(KeReadStateEvent(&back), 0);
        IoReuseIrp(irp, STATUS_NOT_SUPPORTED);
        EXPECT_EQ(irp->CurrentLocation, irp->StackCount + 1);
        EXPECT_EQ(irp->IoStatus.Status, STATUS_NOT_SUPPORTED);
    }
    IoFreeIrp(irp);
}

TEST(Request, CancelOfOneWithoutARoutineOnlyMarksIt)
{
    Bench bench;
    bench.OnRequest(IRP_MJ_READ, Keep);
    const host::nt::File file = bench.Open();
    const host::nt::Request read = file.StartRead(4);
    EXPECT_TRUE(read.Cancel());
    EXPECT_EQ(read.Status(), STATUS_PENDING);
    EXPECT_TRUE(Kept()->Cancel);
    Complete(Kept(), STATUS_CANCELLED);
    EXPECT_EQ(read.Status(), STATUS_CANCELLED);
}

using LowerCase = std::tuple<host::FaultAction, NTSTATUS, NTSTATUS>;

TEST(Request, TheDriverBelowCanBeMadeToMisbehave)
{
    const LowerCase cases[] = {
        {host::FaultAction::Fail, STATUS_DEVICE_NOT_READY, STATUS_DEVICE_NOT_READY},
        {host::FaultAction::Pend, STATUS_PENDING, STATUS_SUCCESS},
        {host::FaultAction::Delay, STATUS_PENDING, STATUS_SUCCESS},
        {host::FaultAction::Hang, STATUS_PENDING, STATUS_CANCELLED},
    };
    for (const auto& [action, immediate, final] : cases) {
        Stack stack;
        stack.bench.kernel.Faults().Arm(
            host::FaultPoint::LowerDriver,
            {.detail = "IRP_MJ_READ", .fault = {action, STATUS_DEVICE_NOT_READY, 5 * host::kSecond}});
        const host::nt::File file = stack.bench.Open();
        const host::Time before = stack.bench.kernel.InterruptTime();
        const host::nt::Request read = file.StartRead(4);
        EXPECT_EQ(read.Status(), immediate);
        stack.bench.kernel.RunFor(host::kSecond);
        if (action == host::FaultAction::Hang) {
            EXPECT_EQ(read.Status(), STATUS_PENDING);
            EXPECT_TRUE(read.Cancel());
        }
        EXPECT_EQ(read.Wait().status, final);
        if (action == host::FaultAction::Delay)
            EXPECT_GE(stack.bench.kernel.InterruptTime() - before, 5 * host::kSecond);
    }
}

TEST(RequestTable, RemembersTheLastOfThoseThatWereFreed)
{
    const Bench bench;
    host::IrpTable& table = host::IrpTable::Current();
    std::vector<IRP> requests(host::IrpTable::kFreedRemembered);
    const auto free = [&](std::size_t index) {
        table.Remove(table.Add(&requests[index], host::IrpOrigin::Initialized, nullptr, nullptr));
    };
    free(0); // and again: only the second time counts
    for (std::size_t i = 0; i < requests.size(); ++i)
        free(i);
    EXPECT_TRUE(table.WasFreed(requests.data()));
    free(1);
    EXPECT_FALSE(table.WasFreed(requests.data())) << "the oldest";
    EXPECT_TRUE(table.WasFreed(&requests[1]));
}

} // namespace
