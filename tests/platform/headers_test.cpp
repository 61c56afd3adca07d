// The routines that the platform headers define inline: lists, stack locations, safe strings.
#include <initguid.h>

#include <ntddk.h>
#include <ntddser.h>
#include <ntstrsafe.h>
#include <usbdlib.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

struct Item {
    int id;
    LIST_ENTRY link;
};

std::vector<int> Drain(LIST_ENTRY* head, PLIST_ENTRY (*remove)(PLIST_ENTRY))
{
    std::vector<int> ids;
    while (!IsListEmpty(head))
        ids.push_back(CONTAINING_RECORD(remove(head), Item, link)->id);
    return ids;
}

TEST(Lists, KeepTheirOrderFromBothEnds)
{
    LIST_ENTRY head;
    Item items[] = {{1, {}}, {2, {}}, {3, {}}, {4, {}}};
    for (const auto& [remove, expected] :
         {std::pair{&RemoveHeadList, std::vector{4, 1, 3}}, {&RemoveTailList, std::vector{3, 1, 4}}}) {
        InitializeListHead(&head);
        InsertTailList(&head, &items[0].link);
        InsertTailList(&head, &items[1].link);
        InsertTailList(&head, &items[2].link);
        InsertHeadList(&head, &items[3].link);
        EXPECT_FALSE(RemoveEntryList(&items[1].link));
        EXPECT_EQ(Drain(&head, remove), expected);
    }
}

TEST(Lists, RemovingTheLastEntrySaysSo)
{
    LIST_ENTRY head;
    Item only{7, {}};
    InitializeListHead(&head);
    InsertHeadList(&head, &only.link);
    EXPECT_TRUE(RemoveEntryList(&only.link));
    EXPECT_TRUE(IsListEmpty(&head));
}

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

TEST(StackLocations, SkippingHandsTheSameLocationDown)
{
    Request request;
    IO_STACK_LOCATION* current = IoGetCurrentIrpStackLocation(&request.irp);
    IoSkipCurrentIrpStackLocation(&request.irp);
    EXPECT_EQ(IoGetNextIrpStackLocation(&request.irp), current);
    EXPECT_EQ(request.irp.CurrentLocation, 3);
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

TEST(SafeStrings, RefuseAnEmptyDestination)
{
    char text[] = "x";
    EXPECT_EQ(RtlStringCbCopyA(text, 0, "y"), STATUS_INVALID_PARAMETER);
    EXPECT_STREQ(text, "x");
    size_t length = 99;
    EXPECT_EQ(RtlStringCchLengthA("abcd", 4, &length), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(RtlStringCchLengthA("abcd", 5, &length), STATUS_SUCCESS);
    EXPECT_EQ(length, 4u);
}

TEST(Guids, AreDefinedOnceAndCompareByValue)
{
    const GUID same = {0x86e0d1e0, 0x8089, 0x11d0, {0x9c, 0xe4, 0x08, 0x00, 0x3e, 0x30, 0x1f, 0x73}};
    EXPECT_TRUE(same == GUID_DEVINTERFACE_COMPORT);
    GUID other = same;
    ++other.Data4[7];
    EXPECT_FALSE(other == GUID_DEVINTERFACE_COMPORT);
}

} // namespace
