// The routines that the platform headers define inline: stack locations, safe strings.
#include <ntddk.h>
#include <ntddser.h>
#include <ntstrsafe.h>

#include <gtest/gtest.h>

namespace {

// A request with two stack locations, as the I/O manager lays it out: the current one is past the end
// until the first driver is called.
struct Request {
    IRP irp{};
    IO_STACK_LOCATION stack[2]{};
    Request()
    {
        irp.StackCount = 2;
        irp.CurrentLocation = 3;
        irp.Tail.Overlay.CurrentStackLocation = stack + 2;
        IoSetNextIrpStackLocation(&irp);
    }
};

NTSTATUS NTAPI Completed(PDEVICE_OBJECT, PIRP, PVOID)
{
    return STATUS_MORE_PROCESSING_REQUIRED;
}

TEST(StackLocations, CopyLeavesTheCompletionRoutineBehind)
{
    Request request;
    IO_STACK_LOCATION* current = IoGetCurrentIrpStackLocation(&request.irp);
    ASSERT_EQ(current, &request.stack[1]);
    current->MajorFunction = IRP_MJ_DEVICE_CONTROL;
    current->Parameters.DeviceIoControl.IoControlCode = IOCTL_SERIAL_GET_STATS;
    current->FileObject = reinterpret_cast<PFILE_OBJECT>(&request);
    current->CompletionRoutine = Completed;
    IoMarkIrpPending(&request.irp);

    IoCopyCurrentIrpStackLocationToNext(&request.irp);
    const IO_STACK_LOCATION* next = IoGetNextIrpStackLocation(&request.irp);
    EXPECT_EQ(next, &request.stack[0]);
    EXPECT_EQ(next->MajorFunction, IRP_MJ_DEVICE_CONTROL);
    EXPECT_EQ(next->Parameters.DeviceIoControl.IoControlCode, 0x1b008cu);
    EXPECT_EQ(next->FileObject, current->FileObject);
    EXPECT_EQ(next->CompletionRoutine, nullptr);
    EXPECT_EQ(next->Control, 0);
    EXPECT_EQ(current->Control, SL_PENDING_RETURNED);
}

TEST(StackLocations, CompletionRoutineReplacesTheControlBits)
{
    Request request;
    IO_STACK_LOCATION* next = IoGetNextIrpStackLocation(&request.irp);
    next->Control = SL_PENDING_RETURNED;
    const struct {
        BOOLEAN success, error, cancel;
        int control;
    } cases[] = {{TRUE, TRUE, TRUE, 0xe0},
                 {TRUE, FALSE, FALSE, 0x40},
                 {FALSE, TRUE, FALSE, 0x80},
                 {FALSE, FALSE, TRUE, 0x20}};
    for (const auto& c : cases) {
        IoSetCompletionRoutine(&request.irp, Completed, &request, c.success, c.error, c.cancel);
        EXPECT_EQ(next->Control, c.control);
        EXPECT_EQ(next->CompletionRoutine, &Completed);
        EXPECT_EQ(next->Context, &request);
    }
}

TEST(SafeStrings, CutTerminateAndReport)
{
    const struct {
        const char* before;
        const char* source;
        size_t size;
        NTSTATUS status;
        const char* after;
    } cases[] = {
        {"", "", 1, STATUS_SUCCESS, ""},
        {"", "abc", 4, STATUS_SUCCESS, "abc"},
        {"", "abc", 3, STATUS_BUFFER_OVERFLOW, "ab"},
        {"", "abc", 1, STATUS_BUFFER_OVERFLOW, ""},
        {"COM", "17", 6, STATUS_SUCCESS, "COM17"},
        {"COM", "17", 5, STATUS_BUFFER_OVERFLOW, "COM1"},
        {"COM", "17", 4, STATUS_BUFFER_OVERFLOW, "COM"},
        {"COM", "17", 3, STATUS_INVALID_PARAMETER, "COM"},
    };
    for (const auto& c : cases) {
        char narrow[8] = {};
        WCHAR wide[8] = {};
        for (size_t i = 0; c.before[i] != 0; ++i)
            wide[i] = static_cast<WCHAR>(narrow[i] = c.before[i]);
        WCHAR source[8] = {};
        for (size_t i = 0; c.source[i] != 0; ++i)
            source[i] = static_cast<WCHAR>(c.source[i]);
        EXPECT_EQ(RtlStringCbCatA(narrow, c.size, c.source), c.status) << c.before << c.source;
        EXPECT_EQ(RtlStringCbCatW(wide, c.size * sizeof(WCHAR), source), c.status) << c.before << c.source;
        EXPECT_STREQ(narrow, c.after);
        for (size_t i = 0; i < sizeof(narrow); ++i)
            EXPECT_EQ(wide[i], static_cast<WCHAR>(narrow[i])) << i;
    }
}

} // namespace
