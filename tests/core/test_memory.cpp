// The version record, the allocation hooks and the aligned allocator, seen
// through counting hooks.
#include <gtest/gtest.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <vector>

#include "kelr.h"

namespace {

struct HookLog {
    std::vector<size_t> requests;
    std::vector<void*> frees;
    bool failNext = false;
    // When set, blocks come from this arena at the given offset, so the
    // rounding can be checked for every raw alignment.
    unsigned char* arena = nullptr;
    size_t arenaOffset = 0;
};
HookLog* g_log = nullptr;

void* countingMalloc(size_t bytes) {
    g_log->requests.push_back(bytes);
    if (g_log->failNext) return nullptr;
    if (g_log->arena) return g_log->arena + g_log->arenaOffset;
    return malloc(bytes);
}

void countingFree(void* p) {
    g_log->frees.push_back(p);
    if (!g_log->arena) free(p);
}

class Allocator : public ::testing::Test {
  protected:
    void SetUp() override {
        g_log = &log;
        savedMalloc = i_malloc;
        savedFree = i_free;
        i_malloc = countingMalloc;
        i_free = countingFree;
    }
    void TearDown() override {
        i_malloc = savedMalloc;
        i_free = savedFree;
        g_log = nullptr;
    }
    HookLog log;
    void* (*savedMalloc)(size_t) = nullptr;
    void (*savedFree)(void*) = nullptr;
};

void* rawAddressBefore(const void* block) {
    return static_cast<void* const*>(block)[-1];
}

}  // namespace

TEST(Version, IsOneStaticRecord) {
    const KelLibraryVersion* v = kelrGetLibVersion();
    ASSERT_NE(v, nullptr);
    EXPECT_EQ(v, kelrGetLibVersion());
    EXPECT_EQ(v->versionMajor, 5);
    EXPECT_EQ(v->versionMinor, 2);
    EXPECT_EQ(v->buildSeries, 108);
    EXPECT_EQ(v->buildNumber, 270);
    EXPECT_EQ(memcmp(v->cpuCode, "t7\0\0", 4), 0);
    EXPECT_STREQ(v->libraryName, "libkelrt7.so.5.2");
    EXPECT_STREQ(v->versionText, "5.2");
    EXPECT_STREQ(v->buildDateText, "Jul 11 2007");
}

// Before any test replaces them, the hooks are the C library's own.
TEST(Hooks, StartAsTheCLibraryFunctions) {
    EXPECT_EQ(i_malloc, &malloc);
    EXPECT_EQ(i_calloc, &calloc);
    EXPECT_EQ(i_realloc, &realloc);
    EXPECT_EQ(i_free, &free);
    EXPECT_EQ(i_version, 1);
    EXPECT_EQ(i_min_version, 0);
}

TEST_F(Allocator, RequestsTheElementsPlusRoomToAlign) {
    const size_t overhead = 32 + sizeof(void*);
    for (int len : {1, 7, 8, 1000, 123457}) {
        log.requests.clear();
        int32_t* a = kelsMalloc_32s(len);
        int64_t* b = kelsMalloc_64s(len);
        ASSERT_TRUE(a && b);
        ASSERT_EQ(log.requests.size(), 2u);
        EXPECT_EQ(log.requests[0], 4 * size_t(len) + overhead) << len;
        EXPECT_EQ(log.requests[1], 8 * size_t(len) + overhead) << len;
        memset(a, 0x5A, 4 * size_t(len));  // the whole promised range is writable
        memset(b, 0x5A, 8 * size_t(len));
        kelsFree(a);
        kelsFree(b);
    }
}

// A byte count that fits a size_t is asked for exactly; one that does not
// (only on a 32-bit target) is refused without calling the hook, instead of
// wrapping to a small block the caller would overrun.
TEST_F(Allocator, RefusesByteCountsThatDoNotFitASizeT) {
    const uint64_t overhead = 32 + sizeof(void*);
    log.failNext = true;
    for (int len : {0x1FFFFFFB, 0x1FFFFFFC, 0x3FFFFFF6, 0x3FFFFFF7, 0x3FFFFFF8, INT32_MAX})
        for (uint64_t unit : {4u, 8u}) {
            log.requests.clear();
            void* block = unit == 4 ? static_cast<void*>(kelsMalloc_32s(len))
                                    : static_cast<void*>(kelsMalloc_64s(len));
            EXPECT_EQ(block, nullptr);
            const uint64_t bytes = unit * uint64_t(len) + overhead;
            if (bytes <= SIZE_MAX)
                EXPECT_EQ(log.requests, std::vector<size_t>{size_t(bytes)}) << len << " x " << unit;
            else
                EXPECT_TRUE(log.requests.empty()) << len << " x " << unit;
        }
}

TEST_F(Allocator, AlignsEveryRawAddressAndKeepsItJustBefore) {
    alignas(64) static unsigned char arena[256];
    log.arena = arena;
    for (size_t offset = 0; offset < 64; offset += alignof(void*)) {
        log.arenaOffset = offset;
        log.frees.clear();
        for (bool wide : {false, true}) {
            void* block = wide ? static_cast<void*>(kelsMalloc_64s(3))
                               : static_cast<void*>(kelsMalloc_32s(5));
            unsigned char* raw = arena + offset;
            ASSERT_NE(block, nullptr);
            uintptr_t a = uintptr_t(block);
            EXPECT_EQ(a % 32, 0u) << offset;
            // The stored word lies inside the raw block, before the data.
            EXPECT_GE(a, uintptr_t(raw) + sizeof(void*)) << offset;
            EXPECT_LE(a, uintptr_t(raw) + 31 + sizeof(void*)) << offset;
            EXPECT_EQ(rawAddressBefore(block), raw) << offset;
            kelsFree(block);
        }
        ASSERT_EQ(log.frees.size(), 2u);
        EXPECT_EQ(log.frees[0], arena + offset);
        EXPECT_EQ(log.frees[1], arena + offset);
    }
}

TEST_F(Allocator, RefusesWithoutCallingTheHooks) {
    for (int len : {0, -1, INT32_MIN}) {
        EXPECT_EQ(kelsMalloc_32s(len), nullptr) << len;
        EXPECT_EQ(kelsMalloc_64s(len), nullptr) << len;
    }
    EXPECT_TRUE(log.requests.empty());
    kelsFree(nullptr);
    EXPECT_TRUE(log.frees.empty());

    log.failNext = true;
    EXPECT_EQ(kelsMalloc_32s(4), nullptr);
    EXPECT_EQ(kelsMalloc_64s(4), nullptr);
    EXPECT_EQ(log.requests.size(), 2u);
    EXPECT_TRUE(log.frees.empty());
}
