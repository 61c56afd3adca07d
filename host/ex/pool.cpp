#include "ex/pool.h"

#include "ke/kernel_impl.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace host {
namespace {

constexpr std::size_t kAlignment = 16;     // of every block, as on the platform
constexpr std::size_t kPatternBytes = 128; // before a guarded block
constexpr int kSlackPattern = 0x5c;
constexpr std::size_t kQuarantine = 4'096; // blocks

bool IsPaged(POOL_TYPE type)
{
    return (type & 1) != 0;
}

const std::byte* AsBytes(const void* address)
{
    return static_cast<const std::byte*>(address);
}

std::size_t RoundUp(std::size_t size)
{
    return (size + kAlignment - 1) / kAlignment * kAlignment;
}

// The pages of a guarded block outside it: the end of what is before it, and up to 15 bytes after it.
struct Slack {
    std::byte* begin;
    std::byte* end;
};

Slack SlackBefore(const PoolBlock& block)
{
    auto* const address = const_cast<std::byte*>(block.address);
    const auto room = static_cast<std::size_t>(address - block.slot->pages);
    return {address - std::min(room, kPatternBytes), address};
}

Slack SlackAfter(const PoolBlock& block)
{
    return {const_cast<std::byte*>(block.address) + block.size, block.slot->End()};
}

void Fill(const Slack& slack)
{
    std::memset(slack.begin, kSlackPattern, static_cast<std::size_t>(slack.end - slack.begin));
}

bool Intact(const Slack& slack)
{
    return std::all_of(slack.begin, slack.end,
                       [](std::byte byte) { return byte == static_cast<std::byte>(kSlackPattern); });
}

std::string NameOf(ThreadId actor)
{
    return KiKernel().threads.NameOf(actor);
}

std::string Describe(const PoolBlock& block)
{
    std::string text = std::to_string(block.size) + " bytes tagged " + PoolTagText(block.tag) +
                       ", allocation " + std::to_string(block.number) + " by " + NameOf(block.allocated_by) +
                       " at " + SymbolOf(block.allocated_at);
    if (block.freed)
        text += ", freed by " + NameOf(block.freed_by) + " at " + SymbolOf(block.freed_at);
    return text;
}

// Objects that something still uses and that go with the memory. They are taken out of use: under Policy::Record the
// run goes on.
void CheckContents(const PoolBlock& block, const void* caller)
{
    Kernel::Impl& kernel = KiKernel();
    const std::string tag = PoolTagText(block.tag);
    const std::byte* const end = block.address + block.size;
    while (KTIMER* const timer = kernel.timers.ArmedIn(block.address, end)) {
        VfReport(Rule::PoolFreeActiveTimer, tag, Describe(block), caller);
        kernel.timers.Cancel(*timer);
    }
    while (KDPC* const dpc = kernel.dpcs.QueuedIn(block.address, end)) {
        VfReport(Rule::PoolFreeQueuedDpc, tag, Describe(block), caller);
        const MutexLock lock(KiDispatcher());
        kernel.dpcs.Remove(*dpc);
    }
    if (const std::string waiter = KiWaiterIn(block.address, end); !waiter.empty())
        VfReport(Rule::PoolFreeWaitedObject, tag, waiter + " waits for it; " + Describe(block), caller);
    std::string lock;
    if (kernel.locks.ForgetRange(block.address, end, lock))
        VfReport(Rule::PoolFreeHeldLock, tag, lock + "; " + Describe(block), caller);
}

} // namespace

std::string PoolTagText(ULONG tag)
{
    std::string text;
    for (unsigned shift = 0; shift < 32; shift += 8) {
        const auto character = static_cast<char>(tag >> shift & 0x7f);
        text += character >= ' ' && character <= '~' ? character : '.';
    }
    return text;
}

Pool::Pool(Kernel& kernel, bool verify, bool guard_pages)
    : kernel_(kernel), verify_(verify), guard_(verify && guard_pages)
{}

Pool::~Pool()
{
    for (const auto& [address, block] : blocks_) {
        if (!block.slot && !block.freed)
            std::free(const_cast<std::byte*>(address));
    }
}

void* Pool::Allocate(PoolOwner owner, POOL_TYPE type, std::size_t size, ULONG tag, const void* caller)
{
    if (owner == PoolOwner::Driver) {
        if (verify_)
            CheckAllocation(type, size, tag, caller);
        const std::string name = PoolTagText(tag);
        if (kernel_.Faults().Hit(FaultPoint::PoolAllocate, name)) {
            kernel_.Log().Instant("fault", "pool.allocate", name);
            return nullptr;
        }
    }
    if (!verify_)
        return std::malloc(std::max<std::size_t>(size, 1));
    PoolBlock block = {.size = size,
                       .tag = tag,
                       .owner = owner,
                       .paged = IsPaged(type),
                       .allocated_by = KiSelf().id,
                       .allocated_at = caller};
    const MutexLock lock(mutex_);
    return Place(block);
}

void Pool::CheckAllocation(POOL_TYPE type, std::size_t size, ULONG tag, const void* caller)
{
    const std::string name = PoolTagText(tag);
    const int irql = KiSelf().irql;
    const std::string state = std::to_string(size) + " bytes tagged " + name + " at IRQL " +
                              std::to_string(irql) + "; " + VfDescribeLocksHeld();
    if (size == 0)
        VfReport(Rule::PoolZeroBytes, name, state, caller);
    if (IsPaged(type) && irql > APC_LEVEL)
        VfReport(Rule::IrqlExAllocatePaged, name, state, caller);
    if (irql > DISPATCH_LEVEL)
        VfReport(Rule::IrqlExAllocatePool, name, state, caller);
    bool unloading = false;
    {
        const MutexLock lock(mutex_);
        unloading = unloading_;
    }
    if (unloading)
        VfReport(Rule::PoolAllocationInUnload, name, state, caller);
}

void* Pool::Place(PoolBlock& block)
{
    std::byte* address = nullptr;
    if (guard_) {
        const GuardSlot slot = arena_.Take(RoundUp(std::max<std::size_t>(block.size, 1)));
        if (slot.pages == nullptr)
            return nullptr;
        block.slot = slot;
        address = slot.End() - RoundUp(std::max<std::size_t>(block.size, 1));
    } else {
        address = static_cast<std::byte*>(std::malloc(std::max<std::size_t>(block.size, 1)));
        if (address == nullptr)
            return nullptr;
    }
    std::memset(address, std::to_integer<int>(fresh_fill_.load()), block.size);
    block.address = address;
    block.number = ++last_number_;
    if (guard_) {
        Fill(SlackBefore(block));
        Fill(SlackAfter(block));
        if (block.paged) {
            ++paged_live_;
            if (paged_hidden_)
                GuardArena::SetAccessible(*block.slot, false);
        }
    }
    blocks_[address] = block;
    return address;
}

void Pool::Free(PoolOwner by, void* address, ULONG tag, const void* caller)
{
    if (!verify_) {
        std::free(address);
        return;
    }
    if (!CheckFree(by, address, tag, caller))
        return;
    const MutexLock lock(mutex_);
    const auto found = blocks_.find(AsBytes(address));
    PoolBlock& block = found->second;
    block.freed = true;
    block.freed_by = KiSelf().id;
    block.freed_at = caller;
    if (block.slot && block.paged)
        --paged_live_;
    Retire(found);
}

// False: there is nothing that could be freed.
bool Pool::CheckFree(PoolOwner by, const void* address, ULONG tag, const void* caller)
{
    const std::optional<PoolBlock> block = Find(address);
    const int irql = KiSelf().irql;
    if (!block || block->address != address) {
        VfReport(Rule::PoolFreeUnknown, PoolTagText(tag),
                 block ? "it lies within " + Describe(*block) : "no block begins there", caller);
        return false;
    }
    const std::string name = PoolTagText(block->tag);
    if (block->freed) {
        VfReport(Rule::PoolDoubleFree, name, Describe(*block), caller);
        return false;
    }
    if (by == PoolOwner::Driver && block->owner == PoolOwner::System) {
        VfReport(Rule::PoolFreeSystemObject, name, Describe(*block), caller);
        return false;
    }
    if (block->paged && irql > APC_LEVEL)
        VfReport(Rule::IrqlExFreePaged, name, "at IRQL " + std::to_string(irql) + ": " + Describe(*block),
                 caller);
    if (irql > DISPATCH_LEVEL)
        VfReport(Rule::IrqlExFreePool, name, "at IRQL " + std::to_string(irql) + ": " + Describe(*block),
                 caller);
    if (tag != 0 && tag != block->tag)
        VfReport(Rule::PoolWrongTag, name, "freed as " + PoolTagText(tag) + ": " + Describe(*block), caller);
    CheckPatterns(*block, caller);
    CheckContents(*block, caller);
    return true;
}

void Pool::CheckPatterns(const PoolBlock& block, const void* caller)
{
    if (!block.slot)
        return;
    const bool hidden = block.paged && KiSelf().irql >= DISPATCH_LEVEL;
    if (hidden)
        return; // that it is freed here has been reported
    if (!Intact(SlackAfter(block)))
        VfReport(Rule::PoolOverrun, PoolTagText(block.tag), Describe(block), caller);
    if (!Intact(SlackBefore(block)))
        VfReport(Rule::PoolUnderrun, PoolTagText(block.tag), Describe(block), caller);
}

void Pool::Retire(Blocks::iterator found)
{
    if (found->second.slot)
        arena_.Close(*found->second.slot);
    else
        std::free(const_cast<std::byte*>(found->first)); // AddressSanitizer has a quarantine of its own
    quarantine_.push_back(found->first);
    if (quarantine_.size() <= kQuarantine)
        return;
    const auto oldest = blocks_.find(quarantine_.front());
    quarantine_.pop_front();
    // Without guard pages the address may have been allocated again.
    if (oldest == blocks_.end() || !oldest->second.freed)
        return;
    if (oldest->second.slot)
        arena_.Reuse(*oldest->second.slot);
    blocks_.erase(oldest);
}

std::optional<PoolBlock> Pool::Find(const void* address) const
{
    const MutexLock lock(mutex_);
    return FindLocked(address);
}

std::optional<PoolBlock> Pool::FindLocked(const void* address) const
{
    auto found = blocks_.upper_bound(AsBytes(address));
    if (found == blocks_.begin())
        return std::nullopt;
    --found;
    const PoolBlock& block = found->second;
    if (address != block.address && AsBytes(address) >= block.address + block.size)
        return std::nullopt;
    return block;
}

bool Pool::InPagedBlock(const void* address) const
{
    const std::optional<PoolBlock> block = Find(address);
    return block && block->paged && !block->freed;
}

std::vector<PoolBlock> Pool::Live(PoolOwner owner) const
{
    const MutexLock lock(mutex_);
    std::vector<PoolBlock> live;
    for (const auto& [address, block] : blocks_) {
        if (!block.freed && block.owner == owner)
            live.push_back(block);
    }
    std::sort(live.begin(), live.end(),
              [](const PoolBlock& a, const PoolBlock& b) { return a.number < b.number; });
    return live;
}

void Pool::AuditLeaks(std::string_view when)
{
    for (const PoolBlock& block : Live(PoolOwner::Driver)) {
        if (block.reported)
            continue;
        VfReport(Rule::PoolLeak, PoolTagText(block.tag), Describe(block) + ", not freed" + std::string(when),
                 block.allocated_at);
        const MutexLock lock(mutex_);
        blocks_[block.address].reported = true;
    }
}

void Pool::SetUnloading(bool unloading)
{
    const MutexLock lock(mutex_);
    unloading_ = unloading;
}

void Pool::HidePaged(bool hide)
{
    if (!guard_)
        return;
    const MutexLock lock(mutex_);
    if (hide == paged_hidden_)
        return;
    paged_hidden_ = hide;
    if (paged_live_ == 0)
        return;
    for (const auto& [address, block] : blocks_) {
        if (block.paged && !block.freed)
            GuardArena::SetAccessible(*block.slot, !hide);
    }
}

bool Pool::HandleFault(const void* address, const void* instruction)
{
    std::optional<PoolBlock> touched;
    {
        const MutexLock lock(mutex_);
        // The block whose pages, or the guard page after them, hold the address.
        auto found = blocks_.upper_bound(AsBytes(address));
        const auto holds = [address](const PoolBlock& block) {
            return block.slot && address >= block.slot->pages && address < block.slot->End() + kGuardPage;
        };
        if ((found != blocks_.end() && holds(found->second)) ||
            (found != blocks_.begin() && holds((--found)->second)))
            touched = found->second;
    }
    if (!touched)
        return false;
    ReportFault(*touched, address, instruction);
    const GuardSlot page = {const_cast<std::byte*>(AsBytes(address)) -
                                reinterpret_cast<std::uintptr_t>(address) % kGuardPage,
                            kGuardPage};
    GuardArena::SetAccessible(page, true);
    return true;
}

void Pool::ReportFault(const PoolBlock& block, const void* address, const void* instruction)
{
    const auto offset = AsBytes(address) - block.address;
    const std::string where =
        "byte " + std::to_string(offset) + " of " + Describe(block) + "; " + VfDescribeLocksHeld();
    Rule rule = Rule::PoolAccessBeyondBlock;
    if (block.freed)
        rule = Rule::PoolUseAfterFree;
    else if (AsBytes(address) < block.slot->End())
        rule = Rule::PagedAccessAtDispatch;
    VfReport(rule, PoolTagText(block.tag), where, instruction);
}

void* ExpAllocate(PoolOwner owner, POOL_TYPE type, std::size_t size, ULONG tag)
{
    return KiKernel().pool.Allocate(owner, type, size, tag, __builtin_return_address(0));
}

void ExpFree(void* block, ULONG tag)
{
    KiKernel().pool.Free(PoolOwner::System, block, tag, __builtin_return_address(0));
}

void ExpSetFreshFill(std::byte fill)
{
    KiKernel().pool.SetFreshFill(fill);
}

} // namespace host

using namespace host;

PVOID NTAPI ExAllocatePoolWithTag(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag)
{
    return KiKernel().pool.Allocate(PoolOwner::Driver, PoolType, NumberOfBytes, Tag,
                                    __builtin_return_address(0));
}

VOID NTAPI ExFreePoolWithTag(PVOID P, ULONG Tag)
{
    KiKernel().pool.Free(PoolOwner::Driver, P, Tag, __builtin_return_address(0));
}

VOID NTAPI ExFreePool(PVOID P)
{
    KiKernel().pool.Free(PoolOwner::Driver, P, 0, __builtin_return_address(0));
}
