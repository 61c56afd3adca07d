// Processes, system threads, prints and event tracing.
#include "recorded.h"

#include <gtest/gtest.h>
#include <wdm/etw.h>
#include <wdm/ps.h>
#include <wdm/rtl.h>
#include <wdm/zw.h>

namespace host {
namespace {

TEST(Processes, ThreadsRunForTheirMakersProcess)
{
    Kernel kernel;
    const HANDLE mine = PsGetCurrentProcessId();
    EXPECT_NE(mine, ULongToPtr(4));
    SetActorProcess(1234);
    kernel.Spawn("child", [] { EXPECT_EQ(PsGetCurrentProcessId(), ULongToPtr(1234)); }).Join();
    EXPECT_NE(PsGetCurrentThreadId(), nullptr);
}

TEST(SystemThreads, RunAtPassiveLevelInTheSystemProcessAndEndWhereTheyLike)
{
    Kernel kernel;
    struct Context {
        KEVENT done;
        HANDLE process = nullptr;
        bool after = false;
    } context;
    KeInitializeEvent(&context.done, NotificationEvent, FALSE);
    HANDLE thread = nullptr;
    EXPECT_EQ(PsCreateSystemThread(
                  &thread, THREAD_ALL_ACCESS, nullptr, nullptr, nullptr,
                  [](PVOID argument) NTAPI {
                      auto* const its = static_cast<Context*>(argument);
                      its->process = PsGetCurrentProcessId();
                      KeSetEvent(&its->done, 0, FALSE);
                      PsTerminateSystemThread(STATUS_SUCCESS);
                      its->after = true;
                  },
                  &context),
              STATUS_SUCCESS);
    KeWaitForSingleObject(&context.done, Executive, KernelMode, FALSE, nullptr);
    kernel.RunUntilIdle();
    EXPECT_EQ(context.process, ULongToPtr(4));
    EXPECT_FALSE(context.after);
    EXPECT_EQ(ZwClose(thread), STATUS_SUCCESS);
    EXPECT_EQ(PsTerminateSystemThread(STATUS_SUCCESS), STATUS_INVALID_PARAMETER); // main is none
}

TEST(DebugPrints, TakeThePlatformsFormatsInItsCallingConvention)
{
    Kernel kernel;
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, L"COM3");
    DbgPrint("open %wZ: %08x, %I64d bytes, %s\n", &name, 0xC0000001, -5LL, "text");
    DbgPrintEx(DPFLTR_IHVDRIVER_ID, DPFLTR_ERROR_LEVEL, "%ws %d %d %d %d", L"wide", 1, 2, 3, 4);
    EXPECT_EQ(kernel.DebugPrints(),
              (std::vector<std::string>{"open COM3: c0000001, -5 bytes, text", "wide 1 2 3 4"}));
}

TEST(EventTracing, EnablesTheProviderAndLogsWhatItWrites)
{
    Kernel kernel;
    const GUID id = {1, 2, 3, {4, 5, 6, 7, 8, 9, 10, 11}};
    UCHAR level = 0;
    REGHANDLE handle = 0;
    EXPECT_EQ(EtwRegister(
                  &id,
                  [](LPCGUID, ULONG code, UCHAR at, ULONGLONG, ULONGLONG, PEVENT_FILTER_DESCRIPTOR,
                     PVOID context) NTAPI {
                      *static_cast<UCHAR*>(context) = code == EVENT_CONTROL_CODE_ENABLE_PROVIDER ? at : 0;
                  },
                  &level, &handle),
              STATUS_SUCCESS);
    EXPECT_EQ(level, 255);
    EVENT_DESCRIPTOR event = {};
    event.Id = 12;
    event.Level = 3;
    const UCHAR bytes[] = {0xab, 0xcd};
    EVENT_DATA_DESCRIPTOR data;
    EventDataDescCreate(&data, bytes, sizeof bytes);
    EXPECT_EQ(EtwWrite(handle, &event, nullptr, 1, &data), STATUS_SUCCESS);
    EXPECT_EQ(kernel.Log().Events().back().detail, "id 12 level 3 data ab cd");
    EXPECT_TRUE(EtwEventEnabled(handle, &event));
    EXPECT_EQ(EtwUnregister(handle), STATUS_SUCCESS);
    EXPECT_EQ(EtwUnregister(handle), STATUS_INVALID_HANDLE);
    EXPECT_EQ(EtwWrite(handle, &event, nullptr, 0, nullptr), STATUS_INVALID_HANDLE);
    EXPECT_FALSE(EtwEventEnabled(handle, &event));
}

} // namespace
} // namespace host
