#include "io/memory.h"

#include "ex/pool.h"

namespace host {
namespace {

constexpr ULONG kTag = 0x206f4920; // " Io "

}

void* IopAllocateMemory(std::size_t bytes)
{
    return ExpAllocate(PoolOwner::System, NonPagedPool, bytes, kTag);
}

void IopFreeMemory(void* memory)
{
    ExpFree(memory, kTag);
}

} // namespace host
