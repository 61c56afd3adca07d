// Touches of memory that is not a driver's to touch. The loads and stores go through volatile so that the compiler
// keeps them, and past AddressSanitizer, which would see some of them first.
#include "recorded.h"

#include <gtest/gtest.h>
#include <wdm/ex.h>

namespace host {
namespace {

constexpr ULONG kTag = 'meMT'; // "TMem"

__attribute__((no_sanitize("address"))) void Store(void* address, std::ptrdiff_t offset)
{
    static_cast<volatile char*>(address)[offset] = 1;
}

__attribute__((no_sanitize("address"))) char Load(void* address, std::ptrdiff_t offset)
{
    return static_cast<volatile char*>(address)[offset];
}

struct BadTouch {
    const char* name;
    const char* rules;
    void (*run)(char* block); // of 100 bytes, freed afterwards unless it is freed already
    POOL_TYPE type = NonPagedPool;
    KIRQL irql = PASSIVE_LEVEL;
};

void PrintTo(const BadTouch& touch, std::ostream* out)
{
    *out << touch.name;
}

constexpr std::size_t kSize = 100;

const BadTouch kTouches[] = {
    {"WithinTheBlock", "",
     [](char* block) {
         Store(block, 0);
         Store(block, kSize - 1);
     }},
    {"StoreBeyondTheSlack", "PoolAccessBeyondBlock", [](char* block) { Store(block, 112); }},
    {"StoreInTheSlack", "PoolOverrun", [](char* block) { Store(block, kSize); }},
    {"StoreBeforeTheBlock", "PoolUnderrun", [](char* block) { Store(block, -1); }},
    {"LoadAfterFree", "PoolUseAfterFree PoolDoubleFree",
     [](char* block) {
         ExFreePool(block);
         Load(block, 0);
     }},
    {"PagedAtPassive", "", [](char* block) { Store(block, 0); }, PagedPool},
    {"PagedAtApc", "", [](char* block) { Store(block, 0); }, PagedPool, APC_LEVEL},
    {"PagedAtDispatch", "PagedAccessAtDispatch", [](char* block) { Load(block, 0); }, PagedPool,
     DISPATCH_LEVEL},
    {"PagedInADpc", "PagedAccessAtDispatch",
     [](char* block) {
         KDPC dpc;
         KeInitializeDpc(
             &dpc, [](PKDPC, PVOID context, PVOID, PVOID) NTAPI { Store(context, 0); }, block);
         KeInsertQueueDpc(&dpc, nullptr, nullptr);
         KeFlushQueuedDpcs();
         Store(block, 0);
     },
     PagedPool},
};

class MemoryFaults : public ::testing::TestWithParam<BadTouch> {};

TEST_P(MemoryFaults, AreReportedWithTheBlock)
{
    const BadTouch& touch = GetParam();
    const std::vector<Finding> findings = Record([&touch](Kernel&) {
        auto* const block = static_cast<char*>(ExAllocatePoolWithTag(touch.type, kSize, kTag));
        const KIRQL old = KfRaiseIrql(touch.irql);
        touch.run(block);
        KeLowerIrql(old);
        ExFreePoolWithTag(block, kTag);
    });
    EXPECT_EQ(RuleNames(findings), touch.rules);
    for (const Finding& finding : findings) {
        EXPECT_EQ(finding.detail, "TMem");
        EXPECT_NE(finding.text.find("100 bytes tagged TMem, allocation 1 by main"), std::string::npos)
            << finding.text;
    }
}

INSTANTIATE_TEST_SUITE_P(Pool, MemoryFaults, ::testing::ValuesIn(kTouches),
                         [](const auto& info) { return info.param.name; });

TEST(MemoryFaultsDeathTest, AUseAfterFreeStopsTheRunAndSaysWhoFreedIt)
{
    const auto touch = [] {
        Kernel kernel;
        PVOID const block = ExAllocatePoolWithTag(NonPagedPool, 24, kTag);
        ExFreePool(block);
        Store(block, 8);
    };
    EXPECT_DEATH(touch(),
                 "\\*\\*\\* PoolUseAfterFree(.|\n)*byte 8 of 24 bytes tagged TMem(.|\n)*freed by main");
}

// A null pointer is nobody's block: it ends the process as it would without the kernel.
TEST(MemoryFaultsDeathTest, OtherFaultsAreNotSwallowed)
{
    const auto touch = [] {
        Kernel kernel;
        Store(nullptr, 16);
    };
    EXPECT_DEATH(touch(), "");
}

TEST(Pool, NewMemoryIsNotZeroed)
{
    for (const bool guard_pages : {true, false}) {
        Kernel kernel({.guard_pages = guard_pages});
        auto* const block = static_cast<UCHAR*>(ExAllocatePoolWithTag(NonPagedPool, 3, kTag));
        EXPECT_NE(block[0], 0);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % 16, 0u);
        ExFreePool(block);
    }
}

} // namespace
} // namespace host
