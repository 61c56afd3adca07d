#include "tests/host_io/scripted_driver.h"
#include "tests/win32/file.h"

#include <gtest/gtest.h>

#include <ntstatus.h>

using namespace win32;
using host_test::Complete;

namespace {

constexpr DWORD kBoth = GENERIC_READ_ACCESS | GENERIC_WRITE_ACCESS;

TEST(File, OnlyTheFirstNineNamesNeedNoPrefix)
{
    struct Case {
        const char* name;
        bool opens;
    } const cases[] = {{"COM1", true},         {"com9", true}, {"COM0", false},    {"COM10", false},
                       {"\\\\.\\COM10", true}, {"T", false},   {"\\\\.\\T", true}, {"\\\\.\\COM7", false}};
    host_test::Bench bench;
    for (const char16_t* link : {u"\\??\\COM0", u"\\??\\COM1", u"\\??\\COM9", u"\\??\\COM10"})
        host::IoManager::Current().Names().AddLink(link, u"\\Device\\t");
    for (const Case& c : cases) {
        SetLastError(ERROR_SUCCESS);
        const Handle handle = CreateFile(c.name, kBoth, 0, 0);
        EXPECT_EQ(static_cast<bool>(handle), c.opens) << c.name;
        EXPECT_EQ(GetLastError(), c.opens ? ERROR_SUCCESS : ERROR_FILE_NOT_FOUND) << c.name;
    }
}

TEST(File, AStatusBecomesAnError)
{
    struct Case {
        NTSTATUS status;
        bool succeeds;
        DWORD error;
    } const cases[] = {
        {STATUS_SUCCESS, true, ERROR_SUCCESS},
        {STATUS_TIMEOUT, true, ERROR_SUCCESS}, // what came until then is read
        {STATUS_DELETE_PENDING, false, ERROR_ACCESS_DENIED},
        {STATUS_CANCELLED, false, ERROR_OPERATION_ABORTED},
        {STATUS_INVALID_DEVICE_REQUEST, false, ERROR_INVALID_FUNCTION},
        {STATUS_WMI_TRY_AGAIN, false, ERROR_MR_MID_NOT_FOUND},
    };
    for (const Case& c : cases) {
        host_test::Bench bench;
        bench.OnRequest(IRP_MJ_READ, [&](PDEVICE_OBJECT, PIRP irp) {
            *static_cast<char*>(irp->AssociatedIrp.SystemBuffer) = 'x';
            return Complete(irp, c.status, 1);
        });
        const Handle handle = CreateFile("\\\\.\\T", kBoth, 0, 0);
        SetLastError(ERROR_SUCCESS);
        char text[2] = {};
        DWORD length = 0;
        EXPECT_EQ(ReadFile(handle, text, sizeof(text), &length, nullptr), c.succeeds);
        EXPECT_EQ(GetLastError(), c.error);
        EXPECT_STREQ(text, c.succeeds ? "x" : "");
        EXPECT_EQ(length, c.succeeds ? 1u : 0u);
    }
}

// A read that its driver keeps until it is told.
struct Keeper {
    Keeper()
    {
        bench.OnRequest(IRP_MJ_READ, host_test::KeepCancellable);
        handle = CreateFile("\\\\.\\T", kBoth, 0, FILE_FLAG_OVERLAPPED);
    }
    static void LetGo()
    {
        PIRP kept = host_test::TakeKept();
        static_cast<char*>(kept->AssociatedIrp.SystemBuffer)[0] = 'y';
        Complete(kept, STATUS_SUCCESS, 1);
    }

    host_test::Bench bench;
    Handle handle;
    Overlapped overlapped;
    char text[4] = {};
    DWORD length = 0;
};

TEST(File, AnOverlappedCallIsUnderWayUntilItsDriverEndsIt)
{
    Keeper k;
    EXPECT_FALSE(ReadFile(k.handle, k.text, 4, nullptr, &k.overlapped));
    EXPECT_EQ(GetLastError(), ERROR_IO_PENDING);
    EXPECT_EQ(WaitForSingleObject(k.overlapped, 100), WAIT_TIMEOUT);
    EXPECT_FALSE(GetOverlappedResult(k.handle, k.overlapped, &k.length, false));
    EXPECT_EQ(GetLastError(), ERROR_IO_INCOMPLETE);
    k.LetGo();
    EXPECT_EQ(WaitForSingleObject(k.overlapped, INFINITE), WAIT_OBJECT_0);
    EXPECT_TRUE(GetOverlappedResult(k.handle, k.overlapped, &k.length, false));
    EXPECT_EQ(k.length, 1u);
    EXPECT_STREQ(k.text, "y");
}

TEST(File, ACancelledCallIsAborted)
{
    Keeper k;
    EXPECT_FALSE(CancelIoEx(k.handle));
    EXPECT_EQ(GetLastError(), ERROR_NOT_FOUND);
    EXPECT_TRUE(CancelIo(k.handle));
    for (bool (*cancel)(const Handle&) : {CancelIo, CancelIoEx}) {
        ReadFile(k.handle, k.text, 4, nullptr, &k.overlapped);
        EXPECT_TRUE(cancel(k.handle));
        EXPECT_FALSE(GetOverlappedResult(k.handle, k.overlapped, &k.length, true));
        EXPECT_EQ(GetLastError(), ERROR_OPERATION_ABORTED);
    }
}

TEST(File, AccessIsWhatTheHandleWasOpenedWith)
{
    host_test::Bench bench;
    const Handle reader = CreateFile("\\\\.\\T", GENERIC_READ_ACCESS, 0, 0);
    DWORD written = 0;
    EXPECT_FALSE(WriteFile(reader, "x", 1, &written, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
    EXPECT_FALSE(FlushFileBuffers(reader));
    EXPECT_EQ(GetFileType(reader), FILE_TYPE_CHAR);

    const Handle none;
    EXPECT_EQ(GetFileType(none), FILE_TYPE_UNKNOWN);
    EXPECT_FALSE(WriteFile(none, "x", 1, &written, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
}

} // namespace
