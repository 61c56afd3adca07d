// Pool memory: one tag per kind of allocation, one helper that allocates, one type that owns.
#pragma once

#include "navox_ddk.h"

// Tags read from left to right in a pool dump.
constexpr ULONG MakePoolTag(char a, char b, char c, char d)
{
    return static_cast<ULONG>(static_cast<UCHAR>(a)) | static_cast<ULONG>(static_cast<UCHAR>(b)) << 8 |
           static_cast<ULONG>(static_cast<UCHAR>(c)) << 16 | static_cast<ULONG>(static_cast<UCHAR>(d)) << 24;
}

inline constexpr ULONG kTagRegistryPath = MakePoolTag('N', 'x', 'R', 'p');
inline constexpr ULONG kTagDeviceName = MakePoolTag('N', 'x', 'D', 'n');
inline constexpr ULONG kTagSettingQuery = MakePoolTag('N', 'x', 'S', 'q');
inline constexpr ULONG kTagValueQuery = MakePoolTag('N', 'x', 'V', 'q');
inline constexpr ULONG kTagWorkingName = MakePoolTag('N', 'x', 'W', 'n');
inline constexpr ULONG kTagQueriedName = MakePoolTag('N', 'x', 'Q', 'n');
inline constexpr ULONG kTagLinkName = MakePoolTag('N', 'x', 'L', 'n');
inline constexpr ULONG kTagPortName = MakePoolTag('N', 'x', 'P', 'n');
inline constexpr ULONG kTagPortNameCopy = MakePoolTag('N', 'x', 'P', 'c');
inline constexpr ULONG kTagReadBuffer = MakePoolTag('N', 'x', 'R', 'b');
inline constexpr ULONG kTagAuxBuffer = MakePoolTag('N', 'x', 'A', 'b');
inline constexpr ULONG kTagAuxUrb = MakePoolTag('N', 'x', 'A', 'u');
inline constexpr ULONG kTagClient = MakePoolTag('N', 'x', 'C', 'l');
inline constexpr ULONG kTagRing = MakePoolTag('N', 'x', 'R', 'g');
inline constexpr ULONG kTagReaderUrb = MakePoolTag('N', 'x', 'R', 'u');
inline constexpr ULONG kTagDescriptorUrb = MakePoolTag('N', 'x', 'D', 'u');
inline constexpr ULONG kTagDescriptor = MakePoolTag('N', 'x', 'D', 's');
inline constexpr ULONG kTagPipeUrb = MakePoolTag('N', 'x', 'P', 'u');
inline constexpr ULONG kTagCdcUrb = MakePoolTag('N', 'x', 'C', 'u');
inline constexpr ULONG kTagCdcData = MakePoolTag('N', 'x', 'C', 'd');
inline constexpr ULONG kTagAtUrb = MakePoolTag('N', 'x', 'A', 't');
inline constexpr ULONG kTagAtPacket = MakePoolTag('N', 'x', 'A', 'p');
inline constexpr ULONG kTagAtResponse = MakePoolTag('N', 'x', 'A', 'r');
inline constexpr ULONG kTagDrainContext = MakePoolTag('N', 'x', 'D', 'c');
inline constexpr ULONG kTagIdleCallback = MakePoolTag('N', 'x', 'I', 'c');
inline constexpr ULONG kTagIdleContext = MakePoolTag('N', 'x', 'I', 'x');

// Allocates `bytes` of zeroed memory, or returns null. IRQL: <= APC_LEVEL for paged pool,
// <= DISPATCH_LEVEL for non-paged pool.
inline void* AllocatePool(POOL_TYPE type, SIZE_T bytes, ULONG tag)
{
    void* block = ExAllocatePoolWithTag(type, bytes, tag);
    if (block != nullptr)
        RtlZeroMemory(block, bytes);
    return block;
}

inline void FreePool(void* block, ULONG tag)
{
    if (block != nullptr)
        ExFreePoolWithTag(block, tag);
}

// Owns one block of pool memory with the tag `Tag`.
template <class T, ULONG Tag>
class PoolPointer {
  public:
    PoolPointer() = default;
    ~PoolPointer() { FreePool(block_, Tag); }
    PoolPointer(const PoolPointer&) = delete;
    PoolPointer& operator=(const PoolPointer&) = delete;

    // Replaces what is owned by a fresh zeroed block. False when memory is short.
    [[nodiscard]] bool Allocate(POOL_TYPE type, SIZE_T bytes = sizeof(T))
    {
        FreePool(block_, Tag);
        block_ = static_cast<T*>(AllocatePool(type, bytes, Tag));
        return block_ != nullptr;
    }

    T* get() const { return block_; }
    T* operator->() const { return block_; }
    T& operator*() const { return *block_; }

    // Takes over a block that was detached.
    void Adopt(T* block)
    {
        FreePool(block_, Tag);
        block_ = block;
    }

    // The block is the caller's from here on.
    [[nodiscard]] T* Detach()
    {
        T* block = block_;
        block_ = nullptr;
        return block;
    }

  private:
    T* block_ = nullptr;
};
