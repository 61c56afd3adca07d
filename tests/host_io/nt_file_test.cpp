// Files as applications see them: opening, closing, rights, cancelling, synchronous handles.
#include "scripted_driver.h"

#include "io/device_interfaces.h"

namespace {

using host::Rule;
using host::nt::Access;
using host::nt::File;
using host::nt::OpenOptions;
using host_test::Bench;
using host_test::Bytes;
using host_test::Complete;
using host_test::Keep;
using host_test::Kept;

constexpr std::initializer_list<const char*> kLife = {"IRP_MJ_CREATE", "IRP_MJ_CLEANUP", "IRP_MJ_CLOSE"};

class NtFile : public testing::Test {
  protected:
    Bench bench;
};

TEST_F(NtFile, OpensCleansUpAndCloses)
{
    PFILE_OBJECT seen = nullptr;
    bench.OnRequest(IRP_MJ_CREATE, [&](PDEVICE_OBJECT, PIRP irp) {
        const PIO_STACK_LOCATION location = IoGetCurrentIrpStackLocation(irp);
        seen = location->FileObject;
        EXPECT_EQ(seen->DeviceObject, bench.script.device);
        EXPECT_EQ(seen->FileName.Length, 0);
        EXPECT_EQ(location->Parameters.Create.SecurityContext->DesiredAccess & FILE_READ_DATA,
                  ULONG{FILE_READ_DATA});
        seen->FsContext = &bench;
        return Complete(irp, STATUS_SUCCESS);
    });
    bench.OnRequest(IRP_MJ_CLOSE, [&](PDEVICE_OBJECT, PIRP irp) {
        EXPECT_EQ(IoGetCurrentIrpStackLocation(irp)->FileObject, seen);
        EXPECT_EQ(seen->FsContext, &bench);
        return Complete(irp, STATUS_SUCCESS);
    });
    File file = bench.Open();
    EXPECT_EQ(bench.script.device->ReferenceCount, 1);
    file.Close();
    file.Close();
    EXPECT_EQ(bench.script.seen, (std::vector<std::string>{kLife.begin(), kLife.end()}));
    EXPECT_EQ(bench.script.device->ReferenceCount, 0);
}

TEST_F(NtFile, IsCleanedUpWithItsLastHandleAndClosedWithItsLastRequest)
{
    bench.OnRequest(IRP_MJ_READ, Keep);
    File file = bench.Open();
    File second = file.Duplicate();
    const host::nt::Request read = file.StartRead(1);
    file.Close();
    EXPECT_FALSE(bench.script.Saw("IRP_MJ_CLEANUP"));
    second.Close();
    EXPECT_TRUE(bench.script.Saw("IRP_MJ_CLEANUP"));
    EXPECT_FALSE(bench.script.Saw("IRP_MJ_CLOSE"));
    // Completed from a DPC's IRQL: the close comes from a system thread, at PASSIVE_LEVEL.
    KIRQL at_close = HIGH_LEVEL;
    bench.OnRequest(IRP_MJ_CLOSE, [&](PDEVICE_OBJECT, PIRP irp) {
        at_close = KeGetCurrentIrql();
        return Complete(irp, STATUS_SUCCESS);
    });
    const KIRQL irql = KfRaiseIrql(DISPATCH_LEVEL);
    Complete(Kept(), STATUS_CANCELLED);
    KeLowerIrql(irql);
    bench.kernel.RunUntilIdle();
    EXPECT_EQ(at_close, PASSIVE_LEVEL);
    EXPECT_EQ(read.Status(), STATUS_CANCELLED);
}

struct PathCase {
    const char* path;
    NTSTATUS status;
    const char16_t* file_name;
};

TEST(NtFileTables, IsFoundByEveryKindOfName)
{
    const PathCase cases[] = {
        {"T", STATUS_SUCCESS, u""},
        {"t", STATUS_SUCCESS, u""},
        {"\\\\.\\T", STATUS_SUCCESS, u""},
        {"\\\\?\\t", STATUS_SUCCESS, u""},
        {"\\DosDevices\\T", STATUS_SUCCESS, u""},
        {"\\Device\\t", STATUS_SUCCESS, u""},
        {"\\\\.\\T\\sub", STATUS_SUCCESS, u"\\sub"},
        {"\\\\.\\T\\", STATUS_SUCCESS, u"\\"},
        {"\\\\.\\T2", STATUS_OBJECT_NAME_NOT_FOUND, u""},
        {"", STATUS_OBJECT_NAME_NOT_FOUND, u""},
    };
    for (const PathCase& item : cases) {
        Bench bench;
        std::u16string name;
        bench.OnRequest(IRP_MJ_CREATE, [&](PDEVICE_OBJECT, PIRP irp) {
            name = *host::IopText(&IoGetCurrentIrpStackLocation(irp)->FileObject->FileName);
            return Complete(irp, STATUS_SUCCESS);
        });
        File file;
        EXPECT_EQ(File::Open(item.path, &file), item.status) << item.path;
        EXPECT_EQ(name, item.file_name) << item.path;
    }
}

constexpr ULONG kAny = CTL_CODE(FILE_DEVICE_SERIAL_PORT, 1, METHOD_BUFFERED, FILE_ANY_ACCESS);
constexpr ULONG kRead = CTL_CODE(FILE_DEVICE_SERIAL_PORT, 2, METHOD_BUFFERED, FILE_READ_ACCESS);
constexpr ULONG kWrite = CTL_CODE(FILE_DEVICE_SERIAL_PORT, 3, METHOD_BUFFERED, FILE_WRITE_ACCESS);

struct AccessCase {
    Access access;
    bool read, write, flush, any_control, read_control, write_control;
};

TEST(NtFileTables, DoesWhatItWasOpenedFor)
{
    const AccessCase cases[] = {
        {Access::None, false, false, false, true, false, false},
        {Access::Read, true, false, false, true, true, false},
        {Access::Write, false, true, true, true, false, true},
        {Access::ReadWrite, true, true, true, true, true, true},
    };
    for (const AccessCase& item : cases) {
        Bench bench;
        OpenOptions options;
        options.access = item.access;
        const File file = bench.Open(options);
        const auto allowed = [](const host::nt::Result& result) {
            return result.status != STATUS_ACCESS_DENIED;
        };
        EXPECT_EQ(allowed(file.Read(1)), item.read);
        EXPECT_EQ(allowed(file.Write(Bytes("x"))), item.write);
        EXPECT_EQ(allowed(file.Flush()), item.flush);
        EXPECT_EQ(allowed(file.Control(kAny)), item.any_control);
        EXPECT_EQ(allowed(file.Control(kRead)), item.read_control);
        EXPECT_EQ(allowed(file.Control(kWrite)), item.write_control);
    }
}

struct MethodCase {
    ULONG method;
    bool system_buffer, type3, mdl;
};

TEST(NtFileTables, ControlsCarryTheirBuffersByMethod)
{
    const MethodCase cases[] = {
        {METHOD_BUFFERED, true, false, false},
        {METHOD_IN_DIRECT, true, false, true},
        {METHOD_OUT_DIRECT, true, false, true},
        {METHOD_NEITHER, false, true, false},
    };
    for (const MethodCase& item : cases) {
        Bench bench;
        bench.OnRequest(IRP_MJ_DEVICE_CONTROL, [&](PDEVICE_OBJECT, PIRP irp) {
            const auto& control = IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl;
            EXPECT_EQ(control.InputBufferLength, 2U);
            EXPECT_EQ(control.OutputBufferLength, 4U);
            EXPECT_EQ(irp->AssociatedIrp.SystemBuffer != nullptr, item.system_buffer);
            EXPECT_EQ(control.Type3InputBuffer != nullptr, item.type3);
            EXPECT_EQ(irp->MdlAddress != nullptr, item.mdl);
            return Complete(irp, STATUS_SUCCESS);
        });
        EXPECT_EQ(bench.Open().Control(CTL_CODE(0x800, 1, item.method, 0), Bytes("ab"), 4).status,
                  STATUS_SUCCESS);
    }
}

TEST_F(NtFile, CancelIoTakesTheCallersRequestsAndCancelIoExAll)
{
    bench.OnRequest(IRP_MJ_READ, host_test::KeepCancellable);
    const File file = bench.Open();
    const File other = bench.Open();
    const host::nt::Request mine = file.StartRead(1);
    const host::nt::Request elsewhere = other.StartRead(1);
    host::nt::Request theirs;
    bench.kernel.Spawn("another", [&] { theirs = file.StartRead(1); }).Join();
    EXPECT_TRUE(file.CancelIo());
    EXPECT_EQ(mine.Status(), STATUS_CANCELLED);
    EXPECT_EQ(theirs.Status(), STATUS_PENDING);
    EXPECT_TRUE(file.CancelIoEx());
    EXPECT_EQ(theirs.Status(), STATUS_CANCELLED);
    EXPECT_EQ(elsewhere.Status(), STATUS_PENDING);
    EXPECT_FALSE(file.CancelIoEx());
    EXPECT_TRUE(elsewhere.Cancel());
}

TEST_F(NtFile, ARequestThatWillNotBeCancelledIsReported)
{
    bench.OnRequest(IRP_MJ_READ, Keep);
    const File file = bench.Open();
    host::nt::SpawnClient("client", [&] { file.StartRead(1); }).Join();
    EXPECT_GE(bench.kernel.InterruptTime(), 300 * host::kSecond);
    EXPECT_EQ(bench.Broken(), std::vector{Rule::IrpCancelledTooSlowly});
    Complete(Kept(), STATUS_CANCELLED);
}

TEST_F(NtFile, ASynchronousHandleDoesOneThingAtATime)
{
    bench.OnRequest(IRP_MJ_READ, Keep);
    OpenOptions options;
    options.overlapped = false;
    const File file = bench.Open(options);
    host::ThreadHandle reader =
        bench.kernel.Spawn("reader", [&] { EXPECT_EQ(file.Read(1).status, STATUS_TIMEOUT); });
    host::ThreadHandle asker = bench.kernel.Spawn("asker", [&] { file.Control(kAny); });
    bench.kernel.RunFor(host::kSecond);
    EXPECT_NE(Kept(), nullptr);
    EXPECT_FALSE(bench.script.Saw("IRP_MJ_DEVICE_CONTROL")) << "the read has the handle";
    Complete(Kept(), STATUS_TIMEOUT);
    reader.Join();
    asker.Join();
    EXPECT_TRUE(bench.script.Saw("IRP_MJ_DEVICE_CONTROL"));
}

} // namespace
