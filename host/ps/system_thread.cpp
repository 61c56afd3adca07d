#include "ps/system_thread.h"

#include "ke/kernel_impl.h"

#include <wdm/ps.h>

using namespace host;

NTSTATUS NTAPI PsCreateSystemThread(PHANDLE ThreadHandle, ULONG /*DesiredAccess*/,
                                    POBJECT_ATTRIBUTES /*ObjectAttributes*/, HANDLE /*ProcessHandle*/,
                                    PCLIENT_ID ClientId, PKSTART_ROUTINE StartRoutine, PVOID StartContext)
{
    VfRequireIrqlAtMost(PASSIVE_LEVEL, Rule::IrqlPassive, __func__, __builtin_return_address(0));
    const std::shared_ptr<Thread> thread =
        KiStartThread("system thread", ThreadKind::User, [=] { StartRoutine(StartContext); });
    thread->process = Thread::kSystemProcess;
    *ThreadHandle = KiKernel().kernel.Get<ObHandleTable>().Insert(std::make_shared<PsThreadHandle>(thread));
    if (ClientId != nullptr)
        *ClientId = {ULongToPtr(thread->process), ULongToPtr((thread->id + 1) * 4)};
    KiYield(YieldPoint::Spawn);
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI PsTerminateSystemThread(NTSTATUS ExitStatus)
{
    VfRequireIrqlAtMost(PASSIVE_LEVEL, Rule::IrqlPassive, __func__, __builtin_return_address(0));
    if (KiSelf().kind != ThreadKind::User)
        return STATUS_INVALID_PARAMETER;
    KiExitThread(ExitStatus);
}
