#include "ke/dispatcher.h"

#include "ke/kernel_impl.h"

#include <algorithm>
#include <optional>

namespace host {
namespace {

bool IsSignalled(const DISPATCHER_HEADER& header)
{
    return header.SignalState > 0;
}

// Zero for what is no dispatcher object.
UCHAR SizeInLongs(ObjectType type)
{
    switch (type) {
    case ObjectType::NotificationEvent:
    case ObjectType::SynchronizationEvent: return sizeof(KEVENT) / sizeof(LONG);
    case ObjectType::NotificationTimer:
    case ObjectType::SynchronizationTimer: return sizeof(KTIMER) / sizeof(LONG);
    case ObjectType::Thread: return sizeof(DISPATCHER_HEADER) / sizeof(LONG);
    }
    return 0;
}

// What a satisfied wait does to the object.
void Consume(DISPATCHER_HEADER& header)
{
    switch (static_cast<ObjectType>(header.Type)) {
    case ObjectType::SynchronizationEvent:
    case ObjectType::SynchronizationTimer: header.SignalState = 0; break;
    case ObjectType::NotificationEvent:
    case ObjectType::NotificationTimer:
    case ObjectType::Thread: break;
    }
}

DISPATCHER_HEADER& HeaderOf(PVOID object)
{
    return *static_cast<DISPATCHER_HEADER*>(object);
}

// Takes the objects when the wait can end now.
bool TrySatisfy(std::span<PVOID const> objects, WAIT_TYPE type, NTSTATUS& status)
{
    if (type == WaitAll) {
        if (!std::all_of(objects.begin(), objects.end(),
                         [](PVOID object) { return IsSignalled(HeaderOf(object)); }))
            return false;
        for (PVOID const object : objects)
            Consume(HeaderOf(object));
        status = STATUS_SUCCESS;
        return true;
    }
    for (std::size_t i = 0; i < objects.size(); ++i) {
        if (IsSignalled(HeaderOf(objects[i]))) {
            Consume(HeaderOf(objects[i]));
            status = static_cast<NTSTATUS>(STATUS_WAIT_0 + i);
            return true;
        }
    }
    return false;
}

void Enqueue(Thread& self, std::span<PVOID const> objects, WAIT_TYPE type, KWAIT_BLOCK* blocks)
{
    self.wait = {.blocks = blocks, .count = static_cast<ULONG>(objects.size()), .all = type == WaitAll};
    for (std::size_t i = 0; i < objects.size(); ++i) {
        blocks[i] = {};
        blocks[i].WaitType = static_cast<UCHAR>(type);
        blocks[i].WaitKey = static_cast<USHORT>(i);
        blocks[i].Thread = KiHandleOf(self);
        blocks[i].Object = objects[i];
        InsertTailList(&HeaderOf(objects[i]).WaitListHead, &blocks[i].WaitListEntry);
    }
}

void Dequeue(Thread& thread)
{
    for (ULONG i = 0; i < thread.wait.count; ++i)
        RemoveEntryList(&thread.wait.blocks[i].WaitListEntry);
    thread.wait.count = 0;
    thread.wait.blocks = nullptr;
}

// Ends the wait of a thread when `header`, which is signalled, was what it lacked.
bool TryRelease(KWAIT_BLOCK& block, DISPATCHER_HEADER& header)
{
    Thread& thread = KiThreadOf(block.Thread);
    if (thread.wait.all) {
        for (ULONG i = 0; i < thread.wait.count; ++i) {
            if (!IsSignalled(HeaderOf(thread.wait.blocks[i].Object)))
                return false;
        }
        for (ULONG i = 0; i < thread.wait.count; ++i)
            Consume(HeaderOf(thread.wait.blocks[i].Object));
        thread.wait.status = STATUS_SUCCESS;
    } else {
        Consume(header);
        thread.wait.status = STATUS_WAIT_0 + block.WaitKey;
    }
    Dequeue(thread);
    thread.wait.satisfied = true;
    thread.kernel.GetScheduler().Wake(thread);
    return true;
}

} // namespace

Mutex& KiDispatcher()
{
    return KiKernel().dispatcher;
}

void KiInitializeHeader(DISPATCHER_HEADER& header, ObjectType type, LONG state)
{
    header.Lock = 0;
    header.Type = static_cast<UCHAR>(type);
    header.Size = SizeInLongs(type);
    header.SignalState = state;
    InitializeListHead(&header.WaitListHead);
}

bool KiIsInitialized(const DISPATCHER_HEADER& header)
{
    const UCHAR size = SizeInLongs(static_cast<ObjectType>(header.Type));
    return size != 0 && header.Size == size;
}

void KiSignal(DISPATCHER_HEADER& header)
{
    header.SignalState = 1;
    for (LIST_ENTRY* entry = header.WaitListHead.Flink;
         entry != &header.WaitListHead && IsSignalled(header);) {
        KWAIT_BLOCK* const block = CONTAINING_RECORD(entry, KWAIT_BLOCK, WaitListEntry);
        // A released thread takes all its blocks off, the next one of this list perhaps among them.
        entry = TryRelease(*block, header) ? header.WaitListHead.Flink : entry->Flink;
    }
}

std::string KiWaiterIn(const void* begin, const void* end)
{
    const MutexLock lock(KiDispatcher());
    ThreadTable& threads = KiKernel().threads;
    std::optional<ThreadId> found;
    threads.ForEach([&](const Thread& thread) {
        for (ULONG i = 0; i < thread.wait.count; ++i) {
            if (thread.wait.blocks[i].Object >= begin && thread.wait.blocks[i].Object < end)
                found = thread.id;
        }
    });
    return found ? threads.NameOf(*found) : "";
}

Time KiDeadlineOf(LONGLONG due)
{
    const Kernel& kernel = Kernel::Current();
    const Time now = kernel.InterruptTime();
    if (due <= 0)
        return due < now - kForever + 1 ? kForever - 1 : now - due;
    return due - kernel.Now() + now;
}

NTSTATUS KiWait(std::span<PVOID const> objects, WAIT_TYPE type, Time deadline, KWAIT_BLOCK* blocks,
                const WaitReason& reason)
{
    Thread& self = KiSelf();
    Scheduler& scheduler = self.kernel.GetScheduler();
    scheduler.Yield(YieldPoint::Wait);
    {
        const MutexLock lock(KiDispatcher());
        NTSTATUS status = STATUS_SUCCESS;
        if (TrySatisfy(objects, type, status))
            return status;
        if (deadline <= scheduler.Now())
            return STATUS_TIMEOUT;
        Enqueue(self, objects, type, blocks);
    }
    for (;;) {
        const bool woken = scheduler.Block(reason, deadline);
        const MutexLock lock(KiDispatcher());
        if (self.wait.satisfied)
            return self.wait.status;
        if (!woken) {
            Dequeue(self);
            return STATUS_TIMEOUT;
        }
    }
}

NTSTATUS KiWaitOne(DISPATCHER_HEADER& header, Time deadline, const WaitReason& reason)
{
    KWAIT_BLOCK block;
    PVOID const object = &header;
    return KiWait({&object, 1}, WaitAny, deadline, &block, reason);
}

} // namespace host
