// For each rule about requests a driver that breaks it, and nothing else.
#include "scripted_driver.h"

#include "ke/isolated_run.h"
#include "ke/kernel.h"

namespace {

using host::Rule;
using host_test::Below;
using host_test::Bench;
using host_test::Complete;
using host_test::MakeDevice;
using host_test::PassDown;

struct BrokenDriver {
    Rule rule;
    const char* name;
    std::function<void(Bench&)> run;
};

// Reads once from a device whose read routine is `routine`.
void ReadWith(Bench& bench, host_test::Dispatch routine)
{
    bench.OnRequest(IRP_MJ_READ, std::move(routine));
    const host::nt::File file = bench.Open();
    file.StartRead(4);
    bench.OnRequest(IRP_MJ_READ, nullptr);
}

// The same with a device above it, whose read routine is `upper`.
void ReadAbove(Bench& bench, host_test::Dispatch upper, host_test::Dispatch lower = nullptr)
{
    PDEVICE_OBJECT bottom = bench.script.device;
    PDEVICE_OBJECT top = MakeDevice(bench.driver, u"");
    IoAttachDeviceToDeviceStack(top, bottom);
    ReadWith(bench, [=](PDEVICE_OBJECT device, PIRP irp) {
        if (device == top)
            return upper(device, irp);
        return lower ? lower(device, irp) : Complete(irp, STATUS_SUCCESS);
    });
    IoDetachDevice(bottom);
    IoDeleteDevice(top);
    bench.script.device = bottom;
}

NTSTATUS NTAPI Stop(PDEVICE_OBJECT, PIRP, PVOID)
{
    return STATUS_MORE_PROCESSING_REQUIRED;
}

NTSTATUS NTAPI Continue(PDEVICE_OBJECT, PIRP, PVOID)
{
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI FreeAndContinue(PDEVICE_OBJECT, PIRP irp, PVOID)
{
    IoFreeIrp(irp);
    return STATUS_SUCCESS;
}

VOID NTAPI CancelNothing(PDEVICE_OBJECT, PIRP irp)
{
    IoReleaseCancelSpinLock(irp->CancelIrql);
}

VOID NTAPI CancelAndKeepLock(PDEVICE_OBJECT, PIRP) {}

PIRP AllocatedRead(Bench& bench, PIO_COMPLETION_ROUTINE routine)
{
    PIRP irp = IoAllocateIrp(bench.script.device->StackSize, FALSE);
    IoGetNextIrpStackLocation(irp)->MajorFunction = IRP_MJ_READ;
    if (routine != nullptr)
        IoSetCompletionRoutine(irp, routine, nullptr, TRUE, TRUE, TRUE);
    return irp;
}

PIRP g_kept = nullptr;

NTSTATUS Keep(PDEVICE_OBJECT, PIRP irp)
{
    IoMarkIrpPending(irp);
    g_kept = irp;
    return STATUS_PENDING;
}

NTSTATUS ForwardCopy(PDEVICE_OBJECT device, PIRP irp, PIO_COMPLETION_ROUTINE routine)
{
    IoCopyCurrentIrpStackLocationToNext(irp);
    IoSetCompletionRoutine(irp, routine, nullptr, TRUE, TRUE, TRUE);
    return IoCallDriver(Below(device), irp);
}

// A driver of its own, which passes a read down and completes it all the same.
NTSTATUS NTAPI PassAndComplete(PDEVICE_OBJECT device, PIRP irp)
{
    IoSkipCurrentIrpStackLocation(irp);
    const NTSTATUS status = IoCallDriver(Below(device), irp);
    Complete(irp, STATUS_CANCELLED);
    return status;
}

VOID NTAPI FilterUnload(PDRIVER_OBJECT) {}

NTSTATUS NTAPI FilterEntry(PDRIVER_OBJECT driver, PUNICODE_STRING)
{
    driver->MajorFunction[IRP_MJ_READ] = PassAndComplete;
    driver->DriverUnload = FilterUnload;
    return STATUS_SUCCESS;
}

// Forgets all findings but the first, where one fault leads to others.
void KeepFirst(Bench& bench)
{
    const auto findings = bench.kernel.GetVerifier().TakeFindings();
    ASSERT_FALSE(findings.empty());
    bench.kernel.GetVerifier().Report(findings[0].rule, findings[0].detail, findings[0].text);
}

const BrokenDriver kLifeRules[] = {
    {Rule::IrpInvalid, "frees twice",
     [](Bench&) {
         PIRP irp = IoAllocateIrp(1, FALSE);
         IoFreeIrp(irp);
         IoFreeIrp(irp);
     }},
    {Rule::IrpInvalid, "cancels what was freed",
     [](Bench&) {
         PIRP irp = IoAllocateIrp(1, FALSE);
         IoFreeIrp(irp);
         IoCancelIrp(irp);
     }},
    {Rule::IrpDoubleCompletion, "completes twice",
     [](Bench& bench) {
         ReadWith(bench, [](PDEVICE_OBJECT, PIRP irp) {
             Complete(irp, STATUS_SUCCESS);
             IoCompleteRequest(irp, IO_NO_INCREMENT);
             return STATUS_SUCCESS;
         });
     }},
    {Rule::IrpDoubleCompletion, "completes what came back",
     [](Bench& bench) {
         PIRP irp = AllocatedRead(bench, Stop);
         IoCallDriver(bench.script.device, irp);
         IoCompleteRequest(irp, IO_NO_INCREMENT);
         IoFreeIrp(irp);
     }},
    {Rule::IrpFreedInUse, "frees what a driver below has",
     [](Bench& bench) {
         bench.OnRequest(IRP_MJ_READ, Keep);
         PIRP irp = AllocatedRead(bench, Stop);
         IoCallDriver(bench.script.device, irp);
         IoFreeIrp(irp);
         Complete(g_kept, STATUS_SUCCESS);
         IoFreeIrp(irp);
     }},
    {Rule::IrpFreeNotOwned, "frees a client's request",
     [](Bench& bench) {
         ReadWith(bench, [](PDEVICE_OBJECT, PIRP irp) {
             IoFreeIrp(irp);
             return Complete(irp, STATUS_SUCCESS);
         });
     }},
    {Rule::IrpInitializeAllocated, "initialises what was allocated",
     [](Bench&) {
         PIRP irp = IoAllocateIrp(1, FALSE);
         IoInitializeIrp(irp, IoSizeOfIrp(1), 1);
         IoFreeIrp(irp);
     }},
    {Rule::IrpReuseInUse, "reuses what a driver below has",
     [](Bench& bench) {
         bench.OnRequest(IRP_MJ_READ, Keep);
         PIRP irp = AllocatedRead(bench, Stop);
         IoCallDriver(bench.script.device, irp);
         IoReuseIrp(irp, STATUS_SUCCESS);
         Complete(g_kept, STATUS_SUCCESS);
         IoFreeIrp(irp);
     }},
    {Rule::IrpNeverSent, "completes what was never sent",
     [](Bench&) {
         PIRP irp = IoAllocateIrp(1, FALSE);
         Complete(irp, STATUS_SUCCESS);
         IoFreeIrp(irp);
     }},
    {Rule::IrpCompletionNotStopped, "lets its own request be completed to the end",
     [](Bench& bench) {
         PIRP irp = AllocatedRead(bench, nullptr);
         IoCallDriver(bench.script.device, irp);
         IoFreeIrp(irp);
     }},
    {Rule::IrpFreedThenContinued, "frees in the completion routine and goes on",
     [](Bench& bench) { IoCallDriver(bench.script.device, AllocatedRead(bench, FreeAndContinue)); }},
};

const BrokenDriver kCompletionRules[] = {
    {Rule::IrpCompletedPending, "completes with STATUS_PENDING",
     [](Bench& bench) {
         ReadWith(bench, [](PDEVICE_OBJECT, PIRP irp) {
             IoMarkIrpPending(irp);
             return Complete(irp, STATUS_PENDING);
         });
     }},
    {Rule::IrpCompletedCancellable, "leaves the cancel routine set",
     [](Bench& bench) {
         ReadWith(bench, [](PDEVICE_OBJECT, PIRP irp) {
             IoSetCancelRoutine(irp, CancelNothing);
             return Complete(irp, STATUS_SUCCESS);
         });
     }},
    {Rule::IrpGarbageStatus, "completes with no status at all",
     [](Bench& bench) { ReadWith(bench, [](PDEVICE_OBJECT, PIRP irp) { return Complete(irp, -1); }); }},
    {Rule::IrpInformationTooLarge, "claims more than the buffer holds",
     [](Bench& bench) {
         ReadWith(bench, [](PDEVICE_OBJECT, PIRP irp) { return Complete(irp, STATUS_SUCCESS, 5); });
     }},
    {Rule::SpinLockSafe, "completes with a spin lock held",
     [](Bench& bench) {
         KSPIN_LOCK lock = 0;
         KeInitializeSpinLock(&lock);
         ReadWith(bench, [&](PDEVICE_OBJECT, PIRP irp) _Analysis_suppress_lock_checking_ {
             const KIRQL irql = KeAcquireSpinLockRaiseToDpc(&lock);
             const NTSTATUS status = Complete(irp, STATUS_SUCCESS);
             KeReleaseSpinLock(&lock, irql);
             return status;
         });
     }},
    {Rule::IrpCompletedWhilePassed, "completes what it passed down",
     [](Bench& bench) {
         PDRIVER_OBJECT filter = nullptr;
         EXPECT_EQ(host::IoLoadDriver("filter", FilterEntry, &filter), STATUS_SUCCESS);
         PDEVICE_OBJECT bottom = bench.script.device;
         PDEVICE_OBJECT top = MakeDevice(filter, u"");
         IoAttachDeviceToDeviceStack(top, bottom);
         bench.OnRequest(IRP_MJ_READ, Keep);
         PIRP irp = IoAllocateIrp(2, FALSE);
         IoGetNextIrpStackLocation(irp)->MajorFunction = IRP_MJ_READ;
         IoSetCompletionRoutine(irp, Stop, nullptr, TRUE, TRUE, TRUE);
         IoCallDriver(top, irp);
         IoFreeIrp(irp);
         IoDetachDevice(bottom);
         IoDeleteDevice(top);
         bench.script.device = bottom;
     }},
};

const BrokenDriver kForwardRules[] = {
    {Rule::ForwardedAtBadIrql, "sends a create from a spin lock's IRQL",
     [](Bench& bench) {
         PIRP irp = AllocatedRead(bench, Stop);
         IoGetNextIrpStackLocation(irp)->MajorFunction = IRP_MJ_CREATE;
         KIRQL irql = PASSIVE_LEVEL;
         KeRaiseIrql(DISPATCH_LEVEL, &irql);
         IoCallDriver(bench.script.device, irp);
         KeLowerIrql(irql);
         IoFreeIrp(irp);
     }},
    {Rule::IrpForwardedCancellable, "passes down with the cancel routine set",
     [](Bench& bench) {
         ReadAbove(
             bench,
             [](PDEVICE_OBJECT device, PIRP irp) {
                 IoSetCancelRoutine(irp, CancelNothing);
                 return PassDown(device, irp);
             },
             [](PDEVICE_OBJECT, PIRP irp) {
                 IoSetCancelRoutine(irp, nullptr);
                 return Complete(irp, STATUS_SUCCESS);
             });
     }},
    {Rule::IrpBadStackCopy, "copies the stack location whole",
     [](Bench& bench) {
         PDEVICE_OBJECT bottom = bench.script.device;
         PDEVICE_OBJECT top = MakeDevice(bench.driver, u"");
         IoAttachDeviceToDeviceStack(top, bottom);
         bench.OnRequest(IRP_MJ_READ, [=](PDEVICE_OBJECT device, PIRP irp) {
             if (device == bottom)
                 return Complete(irp, STATUS_SUCCESS);
             *IoGetNextIrpStackLocation(irp) = *IoGetCurrentIrpStackLocation(irp);
             return IoCallDriver(Below(device), irp);
         });
         PIRP irp = IoAllocateIrp(2, FALSE);
         IoGetNextIrpStackLocation(irp)->MajorFunction = IRP_MJ_READ;
         IoSetCompletionRoutine(irp, Stop, nullptr, TRUE, TRUE, TRUE);
         IoCallDriver(top, irp);
         IoCompleteRequest(irp, IO_NO_INCREMENT); // the copy of the routine had stopped it too early
         IoFreeIrp(irp);
         KeepFirst(bench);
         IoDetachDevice(bottom);
         IoDeleteDevice(top);
         bench.script.device = bottom;
     }},
    {Rule::IrpDeviceInvalid, "sends to a device that is gone",
     [](Bench& bench) {
         PDEVICE_OBJECT gone = MakeDevice(bench.driver, u"");
         IoDeleteDevice(gone);
         PIRP irp = IoAllocateIrp(1, FALSE);
         IoCallDriver(gone, irp);
         IoFreeIrp(irp);
     }},
    {Rule::SpinLockSafe, "passes down with a spin lock held",
     [](Bench& bench) {
         KSPIN_LOCK lock = 0;
         KeInitializeSpinLock(&lock);
         ReadAbove(bench, [&](PDEVICE_OBJECT device, PIRP irp) _Analysis_suppress_lock_checking_ {
             const KIRQL irql = KeAcquireSpinLockRaiseToDpc(&lock);
             const NTSTATUS status = PassDown(device, irp);
             KeReleaseSpinLock(&lock, irql);
             return status;
         });
     }},
    {Rule::PowerWrongCall, "passes a power request down with IoCallDriver",
     [](Bench& bench) {
         PIRP irp = AllocatedRead(bench, Stop);
         IoGetNextIrpStackLocation(irp)->MajorFunction = IRP_MJ_POWER;
         IoGetNextIrpStackLocation(irp)->MinorFunction = IRP_MN_POWER_SEQUENCE;
         IoCallDriver(bench.script.device, irp);
         IoFreeIrp(irp);
         KeepFirst(bench);
     }},
    {Rule::PnpSystemOnly, "sends a request of the system's",
     [](Bench& bench) {
         PIRP irp = AllocatedRead(bench, Stop);
         IoGetNextIrpStackLocation(irp)->MajorFunction = IRP_MJ_PNP;
         IoGetNextIrpStackLocation(irp)->MinorFunction = IRP_MN_STOP_DEVICE;
         irp->IoStatus.Status = STATUS_NOT_SUPPORTED;
         IoCallDriver(bench.script.device, irp);
         IoFreeIrp(irp);
     }},
};

const BrokenDriver kDispatchRules[] = {
    {Rule::PendingNotMarked, "keeps it pending without the mark",
     [](Bench& bench) {
         ReadWith(bench, [](PDEVICE_OBJECT, PIRP irp) {
             g_kept = irp;
             return STATUS_PENDING;
         });
         bench.kernel.GetVerifier().TakeFindings();
         Complete(g_kept, STATUS_SUCCESS);
     }},
    {Rule::PendingNotMarked, "completes it and answers STATUS_PENDING",
     [](Bench& bench) {
         ReadWith(bench, [](PDEVICE_OBJECT, PIRP irp) {
             Complete(irp, STATUS_SUCCESS);
             return STATUS_PENDING;
         });
     }},
    {Rule::MarkedNotPending, "marks it and answers another status",
     [](Bench& bench) {
         ReadWith(bench, [](PDEVICE_OBJECT, PIRP irp) {
             IoMarkIrpPending(irp);
             return Complete(irp, STATUS_SUCCESS);
         });
     }},
    {Rule::MarkedNotPending, "keeps it, marked, and answers success",
     [](Bench& bench) {
         ReadWith(bench, [](PDEVICE_OBJECT device, PIRP irp) {
             Keep(device, irp);
             return STATUS_SUCCESS;
         });
         Complete(g_kept, STATUS_SUCCESS);
     }},
    {Rule::PendingLost, "loses the mark in its completion routine",
     [](Bench& bench) {
         ReadAbove(
             bench, [](PDEVICE_OBJECT device, PIRP irp) { return ForwardCopy(device, irp, Continue); },
             [](PDEVICE_OBJECT device, PIRP irp) {
                 Keep(device, irp);
                 Complete(irp, STATUS_SUCCESS);
                 return STATUS_PENDING;
             });
     }},
    {Rule::StatusMismatch, "answers another status than it completed with",
     [](Bench& bench) {
         ReadWith(bench, [](PDEVICE_OBJECT, PIRP irp) {
             Complete(irp, STATUS_UNSUCCESSFUL);
             return STATUS_SUCCESS;
         });
     }},
    {Rule::IrpForgotten, "answers and never completes",
     [](Bench& bench) {
         ReadWith(bench, [](PDEVICE_OBJECT, PIRP irp) {
             g_kept = irp;
             return STATUS_SUCCESS;
         });
         Complete(g_kept, STATUS_SUCCESS);
     }},
    {Rule::IrpForgotten, "answers while the driver below keeps it",
     [](Bench& bench) {
         ReadAbove(
             bench,
             [](PDEVICE_OBJECT device, PIRP irp) {
                 ForwardCopy(device, irp, Continue);
                 return STATUS_SUCCESS;
             },
             Keep);
         KeepFirst(bench);
         IoMarkIrpPending(g_kept);
     }},
    {Rule::CancelLockHeldAtReturn, "keeps the cancel spin lock",
     [](Bench& bench) {
         bench.OnRequest(IRP_MJ_READ, [](PDEVICE_OBJECT, PIRP irp) {
             IoMarkIrpPending(irp);
             IoSetCancelRoutine(irp, CancelAndKeepLock);
             g_kept = irp;
             return STATUS_PENDING;
         });
         const host::nt::File file = bench.Open();
         const host::nt::Request read = file.StartRead(1);
         read.Cancel();
         IoReleaseCancelSpinLock(g_kept->CancelIrql);
         Complete(g_kept, STATUS_CANCELLED);
     }},
    {Rule::IrqlReturn, "returns from dispatch at another IRQL",
     [](Bench& bench) {
         ReadWith(bench, [](PDEVICE_OBJECT, PIRP irp) {
             KIRQL irql = PASSIVE_LEVEL;
             KeRaiseIrql(DISPATCH_LEVEL, &irql);
             return Complete(irp, STATUS_SUCCESS);
         });
         KeLowerIrql(PASSIVE_LEVEL);
     }},
};

void Judge(std::span<const BrokenDriver> drivers)
{
    for (const BrokenDriver& driver : drivers) {
        SCOPED_TRACE(std::string(NameOf(driver.rule)) + ": a driver that " + driver.name);
        Bench bench;
        driver.run(bench);
        EXPECT_EQ(bench.Broken(), std::vector{driver.rule});
    }
}

TEST(VerifierOfRequests, CatchesWhatALifeMayNotBe)
{
    Judge(kLifeRules);
}

TEST(VerifierOfRequests, CatchesBadCompletions)
{
    Judge(kCompletionRules);
}

TEST(VerifierOfRequests, CatchesBadForwarding)
{
    Judge(kForwardRules);
}

TEST(VerifierOfRequests, CatchesBadAnswers)
{
    Judge(kDispatchRules);
}

TEST(VerifierOfRequests, CatchesAUseAfterCompletion)
{
    Bench bench;
    ReadWith(bench, [](PDEVICE_OBJECT, PIRP irp) {
        Complete(irp, STATUS_SUCCESS);
        return irp->IoStatus.Status;
    });
    const std::vector<Rule> broken = bench.Broken();
    ASSERT_FALSE(broken.empty());
    EXPECT_EQ(broken.front(), Rule::PoolUseAfterFree);
}

TEST(VerifierOfRequests, EndsTheRunWhenNoLocationIsLeft)
{
    std::vector<Rule> broken;
    host::KernelOptions options = Bench::Recording();
    options.on_finding = [&](const host::Finding& finding) { broken.push_back(finding.rule); };
    EXPECT_FALSE(host::RunIsolated([&options] {
        Bench bench(options);
        PDEVICE_OBJECT other = MakeDevice(bench.driver, u"");
        ReadWith(bench, [=](PDEVICE_OBJECT, PIRP irp) {
            IoCopyCurrentIrpStackLocationToNext(irp);
            return IoCallDriver(other, irp);
        });
    }));
    EXPECT_EQ(broken, std::vector{Rule::IrpOutOfStack});
}

TEST(VerifierOfRequests, FindsWhatIsLeftAtTheEnd)
{
    std::vector<Rule> left;
    host::KernelOptions options = Bench::Recording();
    options.on_finding = [&](const host::Finding& finding) { left.push_back(finding.rule); };
    {
        Bench bench(options);
        IoAllocateIrp(1, FALSE);
        HANDLE key = nullptr;
        UNICODE_STRING name{};
        RtlInitUnicodeString(&name, L"\\Registry\\Machine");
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, &name, 0, nullptr, nullptr);
        EXPECT_EQ(ZwOpenKey(&key, KEY_READ, &attributes), STATUS_SUCCESS);
        std::u16string link = u"\\DosDevices\\GONE";
        std::u16string target = u"\\Device\\gone";
        UNICODE_STRING link_name = host_test::Counted(link);
        UNICODE_STRING target_name = host_test::Counted(target);
        EXPECT_EQ(IoCreateSymbolicLink(&link_name, &target_name), STATUS_SUCCESS);
        EXPECT_TRUE(bench.Broken().empty());
    }
    std::sort(left.begin(), left.end());
    std::vector expected = {Rule::IrpLeak, Rule::HandleLeak, Rule::SymbolicLinkLeak};
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(left, expected);
}

} // namespace
