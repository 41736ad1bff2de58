// Copy and zero kernels against memcpy/memset at every length and
// misalignment around their strategy thresholds, with guard bytes, and the
// cache-size decoding and streaming rules behind the large-block path.
#include <gtest/gtest.h>
#include <stdint.h>
#include <string.h>

#include <algorithm>
#include <vector>

#include "core/cachesize.h"
#include "core/kel_private.h"

namespace {

constexpr unsigned char kGuard = 0xA5;
constexpr size_t kMargin = 64;

// A source of distinct-looking bytes and a guarded destination, both with
// room to place the data at any 16-byte offset and any 4 KiB page offset.
struct Buffers {
    explicit Buffers(size_t capacity)
        : src(capacity + 2 * 4096 + 2 * kMargin), dst(capacity + 2 * 4096 + 2 * kMargin) {
        for (size_t k = 0; k < src.size(); ++k) src[k] = (unsigned char)(k * 131 + (k >> 9) + 1);
    }
    unsigned char* srcAt(size_t pageOffset) { return pageAligned(src) + kMargin + pageOffset; }
    unsigned char* dstAt(size_t pageOffset) { return pageAligned(dst) + kMargin + pageOffset; }
    static unsigned char* pageAligned(std::vector<unsigned char>& v) {
        return reinterpret_cast<unsigned char*>((uintptr_t(v.data()) + 4095) & ~uintptr_t(4095));
    }
    std::vector<unsigned char> src, dst;
};

// Copies n bytes at the given offsets and compares the whole destination
// buffer with what memcpy would leave: the copy inside, guards outside.
::testing::AssertionResult copiesExactly(Buffers& b, size_t srcOffset, size_t dstOffset, size_t n) {
    memset(b.dst.data(), kGuard, b.dst.size());
    std::vector<unsigned char> expected = b.dst;
    unsigned char* src = b.srcAt(srcOffset);
    unsigned char* dst = b.dstAt(dstOffset);
    memcpy(expected.data() + (dst - b.dst.data()), src, n);
    if (ownsCopy_8u(src, dst, int(n)) != dst) return ::testing::AssertionFailure() << "result";
    if (memcmp(b.dst.data(), expected.data(), expected.size()) != 0)
        return ::testing::AssertionFailure()
               << "n " << n << " src offset " << srcOffset << " dst offset " << dstOffset;
    return ::testing::AssertionSuccess();
}

::testing::AssertionResult zeroesExactly(Buffers& b, size_t dstOffset, size_t n) {
    memset(b.dst.data(), kGuard, b.dst.size());
    std::vector<unsigned char> expected = b.dst;
    unsigned char* dst = b.dstAt(dstOffset);
    memset(expected.data() + (dst - b.dst.data()), 0, n);
    if (ownsZero_8u(dst, int(n)) != dst) return ::testing::AssertionFailure() << "result";
    if (memcmp(b.dst.data(), expected.data(), expected.size()) != 0)
        return ::testing::AssertionFailure() << "n " << n << " dst offset " << dstOffset;
    return ::testing::AssertionSuccess();
}

}  // namespace

TEST(Copy, ExportedRoutinesCheckBeforeWriting) {
    float src[4] = {1, 2, 3, 4};
    float dst[4] = {9, 9, 9, 9};
    EXPECT_EQ(kelsCopy_32f(src, nullptr, 0), KEL_STS_NULL_PTR);
    EXPECT_EQ(kelsCopy_32f(nullptr, dst, 4), KEL_STS_NULL_PTR);
    EXPECT_EQ(kelsCopy_32f(src, dst, 0), KEL_STS_SIZE);
    EXPECT_EQ(kelsCopy_32f(src, dst, -1), KEL_STS_SIZE);
    EXPECT_EQ(dst[0], 9.0f);
    EXPECT_EQ(kelsCopy_32f(src, dst, 3), KEL_STS_OK);
    EXPECT_EQ(memcmp(dst, src, 12), 0);
    EXPECT_EQ(dst[3], 9.0f);

    int32_t isrc[3] = {-1, 2, -3};
    int32_t idst[4] = {7, 7, 7, 7};
    EXPECT_EQ(kelsCopy_32s(nullptr, idst, 1), KEL_STS_NULL_PTR);
    EXPECT_EQ(kelsCopy_32s(isrc, idst, 0), KEL_STS_SIZE);
    EXPECT_EQ(kelsCopy_32s(isrc, idst, 3), KEL_STS_OK);
    EXPECT_EQ(memcmp(idst, isrc, 12), 0);
    EXPECT_EQ(idst[3], 7);

    EXPECT_EQ(kelsZero_32s(nullptr, 0), KEL_STS_NULL_PTR);
    EXPECT_EQ(kelsZero_32s(idst, 0), KEL_STS_SIZE);
    EXPECT_EQ(idst[0], -1);
    EXPECT_EQ(kelsZero_32s(idst, 3), KEL_STS_OK);
    EXPECT_EQ(idst[0] | idst[1] | idst[2], 0);
    EXPECT_EQ(idst[3], 7);
}

// Small overlapping copies, the 16-byte head, the unaligned-source loop and
// the aligned forward/backward paths all lie within the first 600 bytes.
TEST(CopyAndZero, EveryLengthAndMisalignmentUpTo600Bytes) {
    Buffers b(600 + 16);
    for (size_t n = 1; n <= 600; ++n)
        for (size_t d = 0; d < 16; ++d) {
            ASSERT_TRUE(zeroesExactly(b, d, n));
            for (size_t s = 0; s < 16; ++s) ASSERT_TRUE(copiesExactly(b, s, d, n));
        }
}

// Aligned copies of 512 bytes and more run forward or backward by the
// distance of the two page offsets; both directions must give the same bytes.
TEST(Copy, BothDirectionsOfTheAlignedCopy) {
    Buffers b(1100);
    for (size_t n : {512u, 575u, 1024u, 1087u})
        for (size_t srcOffset = 0; srcOffset < 4096; srcOffset += 16)
            for (size_t dstOffset : {size_t(0), size_t(160), size_t(3936), size_t(4080)})
                ASSERT_TRUE(copiesExactly(b, srcOffset, dstOffset, n));
}

// Around 512 KiB, and around half the cache size (the whole of it for
// zeroing) where it is known: the blocks that may stream, with both source
// alignments after the head.
TEST(CopyAndZero, LargeBlocksAroundTheStreamingThresholds) {
    std::vector<size_t> lengths = {0x80000 - 1,  0x80000,      0x80000 + 1,
                                   0x80000 + 17, 0x80000 + 77, 0x80000 + 0x40000 + 45,
                                   3 * 0x40000};
    if (const size_t cache = kel::queryCacheSize())
        for (size_t n : {cache / 2 - 1, cache / 2, cache / 2 + 29, cache - 1, cache, cache + 45,
                         cache + 0x40000 + 3})
            lengths.push_back(n);
    Buffers b(*std::max_element(lengths.begin(), lengths.end()) + 16);
    for (size_t n : lengths) {
        for (size_t d : {0, 1, 8, 15}) ASSERT_TRUE(zeroesExactly(b, d, n + 16 - d));
        const size_t offsets[][2] = {{0, 0}, {3, 0}, {0, 5}, {7, 7}, {9, 4}, {16, 8}};
        for (const auto& o : offsets) ASSERT_TRUE(copiesExactly(b, o[0], o[1], n));
    }
}

namespace {

struct Row {
    std::vector<uint8_t> descriptors;
    uint32_t bytes;
};

// The descriptor table as documented, in its priority order.
const std::vector<Row>& documentedTable() {
    static const std::vector<Row> rows = {{{0x4D}, 16u << 20},
                                          {{0x4C}, 12u << 20},
                                          {{0x4B, 0x47}, 8u << 20},
                                          {{0x4A}, 6u << 20},
                                          {{0x49, 0x29, 0x46}, 4u << 20},
                                          {{0x25, 0x7D, 0x85, 0x45}, 2u << 20},
                                          {{0x23, 0x87, 0x7C, 0x78, 0x84, 0x44}, 1u << 20},
                                          {{0x22, 0x7B, 0x86, 0x3E, 0x7F, 0x83, 0x43}, 512u << 10}};
    return rows;
}

}  // namespace

TEST(CacheSize, DecodesEveryDescriptorInEveryRegisterPosition) {
    for (const Row& row : documentedTable()) {
        for (uint8_t descriptor : row.descriptors) {
            for (int reg = 0; reg < 4; ++reg) {
                // EAX's low byte is the iteration count, and a descriptor of
                // 0x80 or more in a top byte would mark the register invalid.
                int lastByte = descriptor & 0x80 ? 2 : 3;
                for (int byte = reg == 0 ? 1 : 0; byte <= lastByte; ++byte) {
                    uint32_t regs[4] = {0x01, 0, 0, 0};
                    regs[reg] |= uint32_t(descriptor) << (8 * byte);
                    EXPECT_EQ(kel::cacheSizeFromLeaf2(regs), row.bytes)
                        << std::hex << int(descriptor) << " in register " << reg;
                }
            }
        }
    }
}

TEST(CacheSize, FollowsTablePriorityAndDiscardsInvalidRegisters) {
    // A typical two-level report: 0x2C/0x30 (level 1) and 0x49.
    uint32_t report[4] = {0x05B0B101, 0x005657F0, 0x00000000, 0x2CB43049};
    EXPECT_EQ(kel::cacheSizeFromLeaf2(report), 4u << 20);
    // Bit 31 marks a register without descriptors.
    uint32_t invalid[4] = {0x00000001, 0x80000049, 0x00000022, 0x00000000};
    EXPECT_EQ(kel::cacheSizeFromLeaf2(invalid), 512u << 10);
    uint32_t invalidEax[4] = {0x804D0001, 0, 0, 0};
    EXPECT_EQ(kel::cacheSizeFromLeaf2(invalidEax), 0u);
    // Only a single iteration of leaf 2 is understood.
    uint32_t twice[4] = {0x00000002, 0x0000004D, 0, 0};
    EXPECT_EQ(kel::cacheSizeFromLeaf2(twice), 0u);
    uint32_t none[4] = {0x00000001, 0x01020304, 0x0A0B0C0D, 0x50607080};
    EXPECT_EQ(kel::cacheSizeFromLeaf2(none), 0u);
    // The first matching row wins, not the first register: every descriptor
    // of a row outranks every one of the next row, even from a later register.
    const std::vector<Row>& rows = documentedTable();
    for (size_t r = 0; r + 1 < rows.size(); ++r)
        for (uint8_t higher : rows[r].descriptors)
            for (uint8_t lower : rows[r + 1].descriptors) {
                uint32_t pair[4] = {0x00000001, lower, higher, 0};
                EXPECT_EQ(kel::cacheSizeFromLeaf2(pair), rows[r].bytes) << std::hex << int(higher);
            }
}

TEST(CacheSize, StreamingRulesAtTheirBoundaries) {
    // Copy: at least 512 KiB and at least half the cache.
    EXPECT_FALSE(kel::copyStreams(0x7FFFF, 512u << 10));
    EXPECT_TRUE(kel::copyStreams(0x80000, 512u << 10));
    EXPECT_TRUE(kel::copyStreams(0x80000, 1u << 20));
    EXPECT_FALSE(kel::copyStreams((8u << 20) - 1, 16u << 20));
    EXPECT_TRUE(kel::copyStreams(8u << 20, 16u << 20));
    EXPECT_FALSE(kel::copyStreams(0x7FFFFFFF, 0));
    // Zero: more than 512 KiB and at least the whole cache.
    EXPECT_FALSE(kel::zeroStreams(0x80000, 512u << 10));
    EXPECT_TRUE(kel::zeroStreams(0x80001, 512u << 10));
    EXPECT_FALSE(kel::zeroStreams((16u << 20) - 1, 16u << 20));
    EXPECT_TRUE(kel::zeroStreams(16u << 20, 16u << 20));
    EXPECT_FALSE(kel::zeroStreams(0x7FFFFFFF, 0));
    // Aligned copies: forward only when the source's page offset is just
    // ahead of the destination's, or far behind it.
    EXPECT_FALSE(kel::copyForward(0x1010, 0x2000, 511));
    EXPECT_TRUE(kel::copyForward(0x1010, 0x2000, 512));
    EXPECT_TRUE(kel::copyForward(0x10A0, 0x2000, 512));   // d = 160
    EXPECT_FALSE(kel::copyForward(0x10B0, 0x2000, 512));  // d = 176
    EXPECT_FALSE(kel::copyForward(0x1000, 0x2000, 512));  // d = 0
    EXPECT_FALSE(kel::copyForward(0x1000, 0x2F60, 512));  // d = -3936
    EXPECT_TRUE(kel::copyForward(0x1000, 0x2F70, 512));   // d = -3952
}
