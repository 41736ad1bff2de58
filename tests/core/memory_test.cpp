// The version record and the aligned allocator, seen through the hooks.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>

#include "alloc_count.h"

namespace {

TEST(Version, IsOneStaticRecord) {
    const KelLibraryVersion* v = kelrGetLibVersion();
    ASSERT_NE(v, nullptr);
    EXPECT_EQ(v, kelrGetLibVersion());
    EXPECT_TRUE(v->versionMajor == 5 && v->versionMinor == 2 && v->buildSeries == 108 &&
                v->buildNumber == 270);
    EXPECT_EQ(std::memcmp(v->cpuCode, "t7\0\0", 4), 0);
    EXPECT_STREQ(v->libraryName, "libkelrt7.so.5.2");
    EXPECT_STREQ(v->versionText, "5.2");
    EXPECT_STREQ(v->buildDateText, "Jul 11 2007");
}

void* anyBlock(int len, bool wide) {
    return wide ? static_cast<void*>(kelsMalloc_64s(len)) : static_cast<void*>(kelsMalloc_32s(len));
}

// The elements plus room to align and keep the raw address; the whole
// promised range is writable. A byte count that does not fit a size_t (only
// on a 32-bit target) is refused without calling the hook, instead of
// wrapping to a small block the caller would overrun; lengths below 1 are
// refused without a call too, and a refused call gives null.
TEST(Allocator, RequestsExactlyWhatFitsAndRefusesTheRest) {
    kelt::AllocationCount count;
    const uint64_t overhead = 32 + sizeof(void*);
    for (bool wide : {false, true}) {
        const uint64_t unit = wide ? 8 : 4;
        for (int len : {1, 7, 8, 1000, 123457}) {
            void* block = anyBlock(len, wide);
            ASSERT_NE(block, nullptr);
            EXPECT_EQ(uint64_t(count.lastRequest()), unit * uint64_t(len) + overhead) << len;
            std::memset(block, 0x5A, size_t(unit) * size_t(len));
            kelsFree(block);
        }
        for (int len : {0, -1, INT32_MIN, 4, 0x1FFFFFFB, 0x1FFFFFFC, 0x3FFFFFF6, 0x3FFFFFF7,
                        0x3FFFFFF8, INT32_MAX}) {
            count.refuseAllocation(1);
            EXPECT_EQ(anyBlock(len, wide), nullptr);
            const uint64_t bytes = unit * uint64_t(len) + overhead;
            const bool asked = len > 0 && bytes <= SIZE_MAX;
            EXPECT_EQ(count.allocations(), asked ? 1 : 0) << len << " x " << unit;
            if (asked) EXPECT_EQ(uint64_t(count.lastRequest()), bytes) << len << " x " << unit;
        }
        count.refuseAllocation(0);
    }
    EXPECT_EQ(count.liveBlocks(), 0);
}

// Blocks from an arena at every raw alignment.
unsigned char* g_raw = nullptr;
void* fromArena(size_t) {
    return g_raw;
}
void* g_freed = nullptr;
void intoArena(void* p) {
    g_freed = p;
}

TEST(Allocator, AlignsEveryRawAddressAndKeepsItJustBefore) {
    alignas(64) static unsigned char arena[256];
    void* (*savedMalloc)(size_t) = i_malloc;
    void (*savedFree)(void*) = i_free;
    i_malloc = fromArena, i_free = intoArena;
    for (size_t offset = 0; offset < 64; offset += alignof(void*))
        for (bool wide : {false, true}) {
            g_raw = arena + offset;
            void* block = anyBlock(wide ? 3 : 5, wide);
            const uintptr_t a = uintptr_t(block);
            EXPECT_EQ(a % 32, 0u) << offset;
            // The stored word lies inside the raw block, before the data.
            EXPECT_TRUE(a >= uintptr_t(g_raw) + sizeof(void*) &&
                        a <= uintptr_t(g_raw) + 31 + sizeof(void*))
                << offset;
            EXPECT_EQ(static_cast<void**>(block)[-1], g_raw) << offset;
            g_freed = nullptr;
            kelsFree(block);
            EXPECT_EQ(g_freed, g_raw) << offset;
        }
    g_freed = arena;
    kelsFree(nullptr);
    EXPECT_EQ(g_freed, arena) << "a null block reached the hook";
    i_malloc = savedMalloc, i_free = savedFree;
}

}  // namespace
