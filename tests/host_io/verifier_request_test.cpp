// For each rule about requests a driver that breaks it, and nothing else; and what it leaves behind.
#include "scripted_driver.h"

#include "ke/isolated_run.h"

namespace {

using host::Rule;
using host_test::Below;
using host_test::Bench;
using host_test::Complete;
using host_test::Dispatch;
using host_test::Keep;
using host_test::Kept;
using host_test::MakeDevice;
using host_test::PassDown;

using Story = std::function<void(Bench&)>;

struct BrokenDriver {
    Rule rule;
    const char* name;
    Story run;
};

// A device above the bench's own one.
struct Upper {
    explicit Upper(Bench& of, PDRIVER_OBJECT driver) : bench(of), device(MakeDevice(driver, u""))
    {
        IoAttachDeviceToDeviceStack(device, bottom);
        bench.script.device = bottom;
    }
    ~Upper()
    {
        IoDetachDevice(bottom);
        IoDeleteDevice(device);
    }

    Bench& bench;
    PDEVICE_OBJECT bottom = bench.script.device;
    PDEVICE_OBJECT device;
};

// One read of a device whose read routine is `routine`.
void ReadOnce(Bench& bench, Dispatch routine)
{
    bench.OnRequest(IRP_MJ_READ, std::move(routine));
    bench.Open().StartRead(4);
    bench.OnRequest(IRP_MJ_READ, nullptr);
}

Story Reads(const std::function<NTSTATUS(PIRP)>& routine)
{
    return [=](Bench& bench) { ReadOnce(bench, [=](PDEVICE_OBJECT, PIRP irp) { return routine(irp); }); };
}

NTSTATUS Succeed(PDEVICE_OBJECT, PIRP irp)
{
    return Complete(irp, STATUS_SUCCESS);
}

// The same with a device above it, whose read routine is `upper`.
Story ReadsAbove(const Dispatch& upper, const Dispatch& lower = Succeed)
{
    return [=](Bench& bench) {
        const Upper top(bench, bench.driver);
        ReadOnce(bench, [&](PDEVICE_OBJECT device, PIRP irp) {
            return (device == top.device ? upper : lower)(device, irp);
        });
    };
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

VOID NTAPI CancelAndKeepLock(PDEVICE_OBJECT, PIRP) {}

PIRP NewRequest(UCHAR major = IRP_MJ_READ, UCHAR minor = 0, PIO_COMPLETION_ROUTINE routine = Stop)
{
    PIRP irp = IoAllocateIrp(2, FALSE);
    IoGetNextIrpStackLocation(irp)->MajorFunction = major;
    IoGetNextIrpStackLocation(irp)->MinorFunction = minor;
    if (routine != nullptr)
        IoSetCompletionRoutine(irp, routine, nullptr, TRUE, TRUE, TRUE);
    irp->IoStatus.Status = STATUS_NOT_SUPPORTED;
    return irp;
}

// Forgets all findings but the first, where one fault leads to others.
void KeepFirst(Bench& bench)
{
    const auto findings = bench.kernel.GetVerifier().TakeFindings();
    ASSERT_FALSE(findings.empty());
    bench.kernel.GetVerifier().Report(findings[0].rule, findings[0].detail, findings[0].text);
}

Story Sends(UCHAR major, UCHAR minor, KIRQL at = PASSIVE_LEVEL)
{
    return [=](Bench& bench) {
        PIRP irp = NewRequest(major, minor);
        const KIRQL irql = KfRaiseIrql(at);
        IoCallDriver(bench.script.device, irp);
        KeLowerIrql(irql);
        IoFreeIrp(irp);
        KeepFirst(bench);
    };
}

// A driver below has the request while `act` is done with it.
Story WhileBelow(void (*act)(PIRP))
{
    return [=](Bench& bench) {
        bench.OnRequest(IRP_MJ_READ, Keep);
        PIRP irp = NewRequest();
        IoCallDriver(bench.script.device, irp);
        act(irp);
        Complete(Kept(), STATUS_SUCCESS);
        IoFreeIrp(irp);
    };
}

Story WithNewRequest(void (*act)(PIRP))
{
    return [=](Bench&) { act(IoAllocateIrp(1, FALSE)); };
}

NTSTATUS ForwardCopy(PDEVICE_OBJECT device, PIRP irp)
{
    IoCopyCurrentIrpStackLocationToNext(irp);
    IoSetCompletionRoutine(irp, Continue, nullptr, TRUE, TRUE, TRUE);
    return IoCallDriver(Below(device), irp);
}

// `routine` runs with a spin lock held.
Dispatch WithSpinLock(const Dispatch& routine)
{
    return [=](PDEVICE_OBJECT device, PIRP irp) _Analysis_suppress_lock_checking_ {
        KSPIN_LOCK lock = 0;
        KeInitializeSpinLock(&lock);
        const KIRQL irql = KeAcquireSpinLockRaiseToDpc(&lock);
        const NTSTATUS status = routine(device, irp);
        KeReleaseSpinLock(&lock, irql);
        return status;
    };
}

// A driver of its own, which passes a read down and then does more with it.
Dispatch g_afterwards;

NTSTATUS NTAPI PassAndGoOn(PDEVICE_OBJECT device, PIRP irp)
{
    const NTSTATUS status = PassDown(device, irp);
    g_afterwards(device, irp);
    return status;
}

NTSTATUS NTAPI FilterEntry(PDRIVER_OBJECT driver, PUNICODE_STRING)
{
    driver->MajorFunction[IRP_MJ_READ] = PassAndGoOn;
    driver->DriverUnload = [](PDRIVER_OBJECT) NTAPI {};
    return STATUS_SUCCESS;
}

// The driver below keeps the read meanwhile.
Story PassesAnd(const Dispatch& afterwards)
{
    return [=](Bench& bench) {
        PDRIVER_OBJECT filter = nullptr;
        EXPECT_EQ(host::IoLoadDriver("filter", FilterEntry, &filter), STATUS_SUCCESS);
        const Upper top(bench, filter);
        bench.OnRequest(IRP_MJ_READ, Keep);
        g_afterwards = afterwards;
        PIRP irp = NewRequest();
        IoCallDriver(top.device, irp);
        if (irp->CurrentLocation <= irp->StackCount)
            Complete(irp, STATUS_SUCCESS);
        IoFreeIrp(irp);
    };
}

// Asks the device below with a status block on its own stack, and does not wait for the answer.
NTSTATUS AskAndReturn(PDEVICE_OBJECT device, PIRP irp)
{
    IO_STATUS_BLOCK block{};
    PIRP asked =
        IoBuildDeviceIoControlRequest(0, Below(device), nullptr, 0, nullptr, 0, FALSE, nullptr, &block);
    IoCallDriver(Below(device), asked);
    return Succeed(device, irp);
}

const BrokenDriver kDrivers[] = {
    // What a life may not be.
    {Rule::IrpInvalid, "frees twice", WithNewRequest([](PIRP irp) {
         IoFreeIrp(irp);
         IoFreeIrp(irp);
     })},
    {Rule::IrpInvalid, "cancels what was freed", WithNewRequest([](PIRP irp) {
         IoFreeIrp(irp);
         IoCancelIrp(irp);
     })},
    {Rule::IrpDoubleCompletion, "completes twice", Reads([](PIRP irp) {
         Complete(irp, STATUS_SUCCESS);
         IoCompleteRequest(irp, IO_NO_INCREMENT);
         return STATUS_SUCCESS;
     })},
    {Rule::IrpDoubleCompletion, "completes what came back",
     [](Bench& bench) {
         PIRP irp = NewRequest();
         IoCallDriver(bench.script.device, irp);
         IoCompleteRequest(irp, IO_NO_INCREMENT);
         IoFreeIrp(irp);
     }},
    {Rule::IrpFreedInUse, "frees what a driver below has", WhileBelow([](PIRP irp) { IoFreeIrp(irp); })},
    {Rule::IrpFreeNotOwned, "frees a client's request", Reads([](PIRP irp) {
         IoFreeIrp(irp);
         return Complete(irp, STATUS_SUCCESS);
     })},
    {Rule::IrpInitializeAllocated, "initialises what was allocated", WithNewRequest([](PIRP irp) {
         IoInitializeIrp(irp, IoSizeOfIrp(1), 1);
         IoFreeIrp(irp);
     })},
    {Rule::IrpReuseInUse, "reuses what a driver below has",
     WhileBelow([](PIRP irp) { IoReuseIrp(irp, STATUS_SUCCESS); })},
    {Rule::IrpNeverSent, "completes what was never sent", WithNewRequest([](PIRP irp) {
         Complete(irp, STATUS_SUCCESS);
         IoFreeIrp(irp);
     })},
    {Rule::IrpCompletionNotStopped, "lets its own request be completed to the end",
     [](Bench& bench) {
         PIRP irp = NewRequest(IRP_MJ_READ, 0, nullptr);
         IoCallDriver(bench.script.device, irp);
         IoFreeIrp(irp);
     }},
    {Rule::IrpFreedThenContinued, "frees in the completion routine and goes on",
     [](Bench& bench) { IoCallDriver(bench.script.device, NewRequest(IRP_MJ_READ, 0, FreeAndContinue)); }},
    // Completions.
    {Rule::IrpCompletedPending, "completes with STATUS_PENDING", Reads([](PIRP irp) {
         IoMarkIrpPending(irp);
         return Complete(irp, STATUS_PENDING);
     })},
    {Rule::IrpCompletedCancellable, "leaves the cancel routine set", Reads([](PIRP irp) {
         IoSetCancelRoutine(irp, CancelAndKeepLock);
         return Complete(irp, STATUS_SUCCESS);
     })},
    {Rule::IrpGarbageStatus, "completes with no status at all",
     Reads([](PIRP irp) { return Complete(irp, -1); })},
    {Rule::IrpInformationTooLarge, "claims more than the buffer holds",
     Reads([](PIRP irp) { return Complete(irp, STATUS_SUCCESS, 5); })},
    {Rule::SpinLockSafe, "completes with a spin lock held",
     [](Bench& bench) { ReadOnce(bench, WithSpinLock(Succeed)); }},
    {Rule::IrpCompletedWhilePassed, "completes what it passed down",
     PassesAnd([](PDEVICE_OBJECT, PIRP irp) { return Complete(irp, STATUS_CANCELLED); })},
    {Rule::CompletionRoutineRegistered, "completes what it has a completion routine for",
     ReadsAbove([](PDEVICE_OBJECT device, PIRP irp) {
         IoSetCompletionRoutine(irp, Continue, nullptr, TRUE, TRUE, TRUE);
         return Succeed(device, irp);
     })},
    {Rule::IrpStatusOnDeadStack, "returns before its own request has reported to its stack",
     [](Bench& bench) {
         bench.OnRequest(IRP_MJ_DEVICE_CONTROL, Keep);
         ReadsAbove(AskAndReturn)(bench);
         IO_STATUS_BLOCK alive{};
         Kept()->UserIosb = &alive;
         Complete(Kept(), STATUS_SUCCESS);
     }},
    {Rule::IrpCompletedAtHighIrql, "completes above DISPATCH_LEVEL",
     [](Bench& bench) {
         ReadOnce(bench, [](PDEVICE_OBJECT, PIRP irp) {
             const KIRQL old = KfRaiseIrql(DISPATCH_LEVEL + 1);
             const NTSTATUS status = Complete(irp, STATUS_SUCCESS);
             KeLowerIrql(old);
             return status;
         });
         KeepFirst(bench);
     }},
    // Forwarding.
    {Rule::IrpForwardedAtHighIrql, "sends a read above DISPATCH_LEVEL",
     Sends(IRP_MJ_READ, 0, DISPATCH_LEVEL + 1)},
    {Rule::ForwardedAtBadIrql, "sends a create from a spin lock's IRQL",
     Sends(IRP_MJ_CREATE, 0, DISPATCH_LEVEL)},
    {Rule::IrpForwardedCancellable, "passes down with the cancel routine set",
     ReadsAbove(
         [](PDEVICE_OBJECT device, PIRP irp) {
             IoSetCancelRoutine(irp, CancelAndKeepLock);
             return PassDown(device, irp);
         },
         [](PDEVICE_OBJECT device, PIRP irp) {
             IoSetCancelRoutine(irp, nullptr);
             return Succeed(device, irp);
         })},
    {Rule::IrpBadStackCopy, "copies the stack location whole",
     [](Bench& bench) {
         const Upper top(bench, bench.driver);
         bench.OnRequest(IRP_MJ_READ, [&](PDEVICE_OBJECT device, PIRP irp) {
             if (device == top.bottom)
                 return Succeed(device, irp);
             *IoGetNextIrpStackLocation(irp) = *IoGetCurrentIrpStackLocation(irp);
             return IoCallDriver(Below(device), irp);
         });
         PIRP irp = NewRequest();
         IoCallDriver(top.device, irp);
         IoCompleteRequest(irp, IO_NO_INCREMENT); // the copy of the routine had stopped it too early
         IoFreeIrp(irp);
         KeepFirst(bench);
     }},
    {Rule::IrpForwardedWhilePassed, "passes down once more what it passed down", PassesAnd(PassDown)},
    {Rule::IrpNeedlessCopy, "copies a stack location that it could skip",
     ReadsAbove([](PDEVICE_OBJECT device, PIRP irp) {
         IoCopyCurrentIrpStackLocationToNext(irp);
         return IoCallDriver(Below(device), irp);
     })},
    {Rule::IrpDeviceInvalid, "sends to a device that is gone",
     [](Bench& bench) {
         PDEVICE_OBJECT gone = MakeDevice(bench.driver, u"");
         IoDeleteDevice(gone);
         PIRP irp = IoAllocateIrp(1, FALSE);
         IoCallDriver(gone, irp);
         IoFreeIrp(irp);
     }},
    {Rule::SpinLockSafe, "passes down with a spin lock held", ReadsAbove(WithSpinLock(PassDown))},
    {Rule::PowerWrongCall, "passes a power request down with IoCallDriver",
     Sends(IRP_MJ_POWER, IRP_MN_POWER_SEQUENCE)},
    {Rule::PnpSystemOnly, "sends a request of the system's", Sends(IRP_MJ_PNP, IRP_MN_STOP_DEVICE)},
    // Answers of a dispatch routine.
    {Rule::PendingNotMarked, "keeps it pending without the mark",
     [](Bench& bench) {
         Reads([](PIRP irp) {
             Kept() = irp;
             return STATUS_PENDING;
         })(bench);
         bench.kernel.GetVerifier().TakeFindings();
         Complete(Kept(), STATUS_SUCCESS);
     }},
    {Rule::PendingNotMarked, "completes it and answers STATUS_PENDING", Reads([](PIRP irp) {
         Complete(irp, STATUS_SUCCESS);
         return STATUS_PENDING;
     })},
    {Rule::MarkedNotPending, "marks it and answers another status", Reads([](PIRP irp) {
         IoMarkIrpPending(irp);
         return Complete(irp, STATUS_SUCCESS);
     })},
    {Rule::MarkedNotPending, "keeps it, marked, and answers success",
     [](Bench& bench) {
         ReadOnce(bench, [](PDEVICE_OBJECT device, PIRP irp) {
             Keep(device, irp);
             return STATUS_SUCCESS;
         });
         Complete(Kept(), STATUS_SUCCESS);
     }},
    {Rule::PendingLost, "loses the mark in its completion routine",
     ReadsAbove(ForwardCopy,
                [](PDEVICE_OBJECT device, PIRP irp) {
                    Keep(device, irp);
                    Complete(irp, STATUS_SUCCESS);
                    return STATUS_PENDING;
                })},
    {Rule::StatusMismatch, "answers another status than it completed with", Reads([](PIRP irp) {
         Complete(irp, STATUS_UNSUCCESSFUL);
         return STATUS_SUCCESS;
     })},
    {Rule::IrpForgotten, "answers and never completes",
     [](Bench& bench) {
         Reads([](PIRP irp) {
             Kept() = irp;
             return STATUS_SUCCESS;
         })(bench);
         Complete(Kept(), STATUS_SUCCESS);
     }},
    {Rule::IrpForgotten, "answers while the driver below keeps it",
     [](Bench& bench) {
         ReadsAbove(
             [](PDEVICE_OBJECT device, PIRP irp) {
                 ForwardCopy(device, irp);
                 return STATUS_SUCCESS;
             },
             Keep)(bench);
         KeepFirst(bench);
         IoMarkIrpPending(Kept());
     }},
    {Rule::CancelLockHeldAtReturn, "keeps the cancel spin lock",
     [](Bench& bench) {
         bench.OnRequest(IRP_MJ_READ, [](PDEVICE_OBJECT device, PIRP irp) {
             IoSetCancelRoutine(irp, CancelAndKeepLock);
             return Keep(device, irp);
         });
         const host::nt::File file = bench.Open();
         const host::nt::Request read = file.StartRead(1);
         read.Cancel();
         IoReleaseCancelSpinLock(Kept()->CancelIrql);
         Complete(Kept(), STATUS_CANCELLED);
     }},
    {Rule::IrqlReturn, "returns from dispatch at another IRQL",
     [](Bench& bench) {
         Reads([](PIRP irp) {
             KfRaiseIrql(DISPATCH_LEVEL);
             return Complete(irp, STATUS_SUCCESS);
         })(bench);
         KeLowerIrql(PASSIVE_LEVEL);
     }},
};

TEST(VerifierOfRequests, CatchesEachRuleAndNothingElse)
{
    for (const BrokenDriver& driver : kDrivers) {
        SCOPED_TRACE(std::string(NameOf(driver.rule)) + ": a driver that " + driver.name);
        Bench bench;
        driver.run(bench);
        EXPECT_EQ(bench.Broken(), std::vector{driver.rule});
    }
}

TEST(VerifierOfRequests, CatchesAUseAfterCompletion)
{
    Bench bench;
    Reads([](PIRP irp) {
        Complete(irp, STATUS_SUCCESS);
        return irp->IoStatus.Status;
    })(bench);
    const std::vector<Rule> broken = bench.Broken();
    ASSERT_FALSE(broken.empty());
    EXPECT_EQ(broken.front(), Rule::PoolUseAfterFree);
}

// To the very end of a run, and sorted.
std::vector<Rule> BrokenBy(const Story& story, bool* ended)
{
    std::vector<Rule> broken;
    host::KernelOptions options = Bench::Recording();
    options.on_finding = [&](const host::Finding& finding) { broken.push_back(finding.rule); };
    *ended = host::RunIsolated([&] {
        Bench bench(options);
        story(bench);
    });
    std::sort(broken.begin(), broken.end());
    return broken;
}

TEST(VerifierOfRequests, EndsTheRunWhenNoLocationIsLeft)
{
    bool ended = true;
    const auto too_deep = [](Bench& bench) {
        PDEVICE_OBJECT other = MakeDevice(bench.driver, u"");
        ReadOnce(bench, [=](PDEVICE_OBJECT, PIRP irp) {
            IoCopyCurrentIrpStackLocationToNext(irp);
            return IoCallDriver(other, irp);
        });
    };
    EXPECT_EQ(BrokenBy(too_deep, &ended), std::vector{Rule::IrpOutOfStack});
    EXPECT_FALSE(ended);
}

TEST(Verifier, FindsWhatIsLeftAtTheEnd)
{
    bool ended = false;
    const auto forgetful = [](Bench& bench) {
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
        EXPECT_EQ(bench.Broken(), std::vector<Rule>{});
    };
    std::vector expected = {Rule::IrpLeak, Rule::HandleLeak, Rule::SymbolicLinkLeak};
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(BrokenBy(forgetful, &ended), expected);
    EXPECT_TRUE(ended);
    const auto makes_two = [](Bench& bench) {
        MakeDevice(bench.driver, u"");
        MakeDevice(bench.driver, u"");
    };
    EXPECT_EQ(BrokenBy(makes_two, &ended), (std::vector{Rule::DeviceLeak, Rule::DeviceLeak}));
}

} // namespace
