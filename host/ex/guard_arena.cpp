#include "ex/guard_arena.h"

#include <algorithm>
#include <sys/mman.h>

#if __has_feature(address_sanitizer)
#include <sanitizer/lsan_interface.h>
#else
static void __lsan_register_root_region(const void*, std::size_t) {}
static void __lsan_unregister_root_region(const void*, std::size_t) {}
#endif

namespace host {
namespace {

constexpr std::size_t kRegion = 64u << 20; // of addresses: no memory until it is used

std::size_t PagesFor(std::size_t size)
{
    return (std::max<std::size_t>(size, 1) + kGuardPage - 1) / kGuardPage * kGuardPage;
}

} // namespace

GuardArena::~GuardArena()
{
    for (const Region& region : regions_) {
        __lsan_unregister_root_region(region.begin, region.length);
        munmap(region.begin, region.length);
    }
}

GuardSlot GuardArena::Take(std::size_t size)
{
    const std::size_t length = PagesFor(size);
    if (length < size)
        return {};
    std::byte* pages = nullptr;
    if (const auto found = free_.find(length); found != free_.end()) {
        pages = found->second;
        free_.erase(found);
    } else {
        pages = Carve(length + kGuardPage);
    }
    const GuardSlot slot = {pages, length};
    if (pages == nullptr || mprotect(pages, length, PROT_READ | PROT_WRITE) != 0)
        return {};
    return slot;
}

std::byte* GuardArena::Carve(std::size_t length)
{
    if (regions_.empty() || regions_.back().length - regions_.back().used < length) {
        const std::size_t whole = std::max(kRegion, length);
        void* const memory =
            mmap(nullptr, whole, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (memory == MAP_FAILED)
            return nullptr;
        // What the pool of an abandoned kernel points to is not lost.
        __lsan_register_root_region(memory, whole);
        regions_.push_back({static_cast<std::byte*>(memory), whole, 0});
    }
    Region& region = regions_.back();
    std::byte* const piece = region.begin + region.used;
    region.used += length;
    return piece;
}

void GuardArena::Close(const GuardSlot& slot)
{
    // One call that drops the pages and the access to them, and to the page after them.
    (void)mmap(slot.pages, slot.length + kGuardPage, PROT_NONE,
               MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED, -1, 0);
}

void GuardArena::Reuse(const GuardSlot& slot)
{
    free_.emplace(slot.length, slot.pages);
}

void GuardArena::SetAccessible(const GuardSlot& slot, bool accessible)
{
    mprotect(slot.pages, slot.length, accessible ? PROT_READ | PROT_WRITE : PROT_NONE);
}

} // namespace host
