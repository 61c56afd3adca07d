// Pool: tagged blocks, each against an inaccessible page when the kernel is told so.
//
// What is known of a block is kept apart from it, so that a driver cannot destroy it. A freed block stays out
// of use, inaccessible, for as long as the quarantine has room: the next touch of it is reported with the
// place that freed it.
#pragma once

#include "ex/guard_arena.h"
#include "ke/mutex.h"
#include "ke/strategy.h"
#include "ke/time.h"
#include "verifier/verifier.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>
#include <wdm/ex.h>

namespace host {

class Kernel;
class Thread;

enum class PoolOwner : std::uint8_t {
    Driver,
    System, // the kernel's own objects: no fault points, and no leaks of the driver's
};

// "NavR": a tag as its four characters stand in memory.
std::string PoolTagText(ULONG tag);

struct PoolBlock {
    const std::byte* address = nullptr;
    std::size_t size = 0;
    ULONG tag = 0;
    PoolOwner owner = PoolOwner::Driver;
    bool paged = false;
    bool freed = false;
    bool reported = false; // as a leak
    std::optional<GuardSlot> slot;
    std::uint64_t number = 0; // of the allocation
    ThreadId allocated_by = 0;
    const void* allocated_at = nullptr;
    ThreadId freed_by = 0;
    const void* freed_at = nullptr;
};

class Pool {
  public:
    Pool(Kernel& kernel, bool verify, bool guard_pages);
    ~Pool();
    Pool(const Pool&) = delete;
    Pool& operator=(const Pool&) = delete;

    // nullptr when memory is short or a fault point says so. Contents are undefined: a pattern.
    void* Allocate(PoolOwner owner, POOL_TYPE type, std::size_t size, ULONG tag, const void* caller);
    // What new memory is filled with from now on: two runs with two patterns show what depends on it.
    void SetFreshFill(std::byte fill) { fresh_fill_ = fill; }
    // `by` is who frees it. `tag` 0: not checked.
    void Free(PoolOwner by, void* block, ULONG tag, const void* caller);

    // The block that holds `address`, freed ones that are still in quarantine included.
    std::optional<PoolBlock> Find(const void* address) const;
    bool InPagedBlock(const void* address) const;

    // Blocks that live, the oldest first.
    std::vector<PoolBlock> Live(PoolOwner owner) const;
    // Reports what the driver has not freed, each block once.
    void AuditLeaks(std::string_view when);

    // From now on every allocation of the driver's is reported.
    void SetUnloading(bool unloading);

    // Paged blocks become inaccessible, or accessible again. Simulated kernels with guard pages only.
    void HidePaged(bool hide);

    // The touch of an inaccessible address: reports it and makes it accessible. False: none of the pool's
    // business.
    bool HandleFault(const void* address, const void* instruction);

  private:
    using Blocks = std::map<const std::byte*, PoolBlock>;

    void CheckAllocation(POOL_TYPE type, std::size_t size, ULONG tag, const void* caller);
    bool CheckFree(PoolOwner by, const void* address, ULONG tag, const void* caller);
    void CheckPatterns(const PoolBlock& block, const void* caller);
    void* Place(PoolBlock& block) HOST_REQUIRES(mutex_);
    void Retire(Blocks::iterator found) HOST_REQUIRES(mutex_);
    void Release(const PoolBlock& block) HOST_REQUIRES(mutex_);
    std::optional<PoolBlock> FindLocked(const void* address) const HOST_REQUIRES(mutex_);
    void ReportFault(const PoolBlock& block, const void* address, const void* instruction);

    Kernel& kernel_;
    const bool verify_;
    const bool guard_;
    std::atomic<std::byte> fresh_fill_{std::byte{0xa5}};
    mutable Mutex mutex_;
    GuardArena arena_ HOST_GUARDED_BY(mutex_);
    Blocks blocks_ HOST_GUARDED_BY(mutex_); // live and quarantined
    std::deque<const std::byte*> quarantine_ HOST_GUARDED_BY(mutex_);
    std::size_t paged_live_ HOST_GUARDED_BY(mutex_) = 0;
    std::uint64_t last_number_ HOST_GUARDED_BY(mutex_) = 0;
    bool paged_hidden_ HOST_GUARDED_BY(mutex_) = false;
    bool unloading_ HOST_GUARDED_BY(mutex_) = false;
};

// What ExAllocatePoolWithTag and ExFreePool are; for the kernel's own folders.
// Memory that a driver is to free with ExFreePool is PoolOwner::Driver even when the kernel allocates it.
void* ExpAllocate(PoolOwner owner, POOL_TYPE type, std::size_t size, ULONG tag);
void ExpFree(void* block, ULONG tag);
// Pool::SetFreshFill of the running kernel, for tests.
void ExpSetFreshFill(std::byte fill);

} // namespace host
