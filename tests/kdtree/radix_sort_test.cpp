// The radix sort of float keys, both variants, against std::stable_sort.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "kdtree/psah.h"

namespace {

using kel::bitsOf;
using kel::floatOf;
using SortFn = KelStatus (*)(float*, float*, uint32_t);
const SortFn kBothSorts[] = {ownRadixSortAccend_32f_w7, ownRadixSortAccend_32f_px};
const float kInf = std::numeric_limits<float>::infinity();

std::vector<uint32_t> bits(const std::vector<float>& v) {
    std::vector<uint32_t> out;
    for (float f : v) out.push_back(bitsOf(f));
    return out;
}

// Sorts in aligned arrays; the buffer must end up holding the result too.
std::vector<uint32_t> runSort(SortFn sort, const std::vector<float>& input) {
    const int n = int(input.size());
    float* data = reinterpret_cast<float*>(kelsMalloc_32s(n + 1));
    float* buffer = reinterpret_cast<float*>(kelsMalloc_32s(n + 1));
    data[0] = 7.0f, buffer[0] = 9.0f;
    std::copy(input.begin(), input.end(), data);
    EXPECT_EQ(sort(data, buffer, uint32_t(n)), KEL_STS_OK);
    const std::vector<uint32_t> out = bits(std::vector<float>(data, data + n));
    EXPECT_EQ(bits(std::vector<float>(buffer, buffer + n)), out) << "buffer";
    if (n == 0) EXPECT_TRUE(data[0] == 7.0f && buffer[0] == 9.0f) << "untouched";
    kelsFree(data);
    kelsFree(buffer);
    return out;
}

// Float order with -0 before +0, for inputs without NaNs.
std::vector<uint32_t> stableOracle(std::vector<float> v) {
    std::stable_sort(v.begin(), v.end(), [](float a, float b) {
        return a < b || (a == b && std::signbit(a) && !std::signbit(b));
    });
    return bits(v);
}

// Signed zeros, infinities, exact duplicates, and values that share their
// upper digits and differ in the lower ones, where an unstable pass would
// misorder them.
std::vector<float> randomKeys(int n, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> wide(-1e6f, 1e6f);
    const float specials[] = {0.0f, -0.0f, kInf, -kInf, 1.0f, -1.0f};
    std::vector<float> v(n);
    for (int i = 0; i < n; ++i) {
        const unsigned kind = rng() % 4;
        v[i] = kind == 0   ? specials[rng() % 6]
               : kind == 1 ? floatOf(0x3F800000u | (rng() & 0x3FFFFF) | (rng() % 2) << 31)
               : kind == 2 ? (i > 0 ? v[rng() % i] : 2.5f)
                           : wide(rng);
    }
    return v;
}

TEST(RadixSort, MatchesStableSort) {
    for (SortFn sort : kBothSorts) {
        for (int n : {0, 1, 15, 16, 17, 320, 321, 4099, 200000}) {
            std::vector<float> v = randomKeys(n, unsigned(n));
            EXPECT_EQ(runSort(sort, v), stableOracle(v)) << "n = " << n;
        }
        std::vector<float> example = {3.5f, -1.0f, 0.0f, -0.0f, 2.0f, -7.25f};
        EXPECT_EQ(runSort(sort, example), stableOracle(example));
    }
}

// NaNs sort outside the infinities by sign. The vector inverse transform
// restores the key of 0xFFFFFFFF as -0.0 inside a 16-element block; the
// scalar tail and the plain variant keep the pattern.
TEST(RadixSort, NanOrderAndTheAcceptedVectorDifference) {
    std::vector<float> v(17, 1.0f);
    v[3] = floatOf(0xFFFFFFFFu), v[5] = floatOf(0x7FC00000u), v[6] = -kInf, v[7] = kInf;
    v[8] = floatOf(0xFFC00000u);
    std::vector<uint32_t> expected(17, bitsOf(1.0f));
    expected[0] = 0xFFFFFFFFu, expected[1] = 0xFFC00000u, expected[2] = bitsOf(-kInf);
    expected[15] = bitsOf(kInf), expected[16] = 0x7FC00000u;
    EXPECT_EQ(runSort(ownRadixSortAccend_32f_px, v), expected);
    expected[0] = 0x80000000u;
    EXPECT_EQ(runSort(ownRadixSortAccend_32f_w7, v), expected);
    EXPECT_EQ(runSort(ownRadixSortAccend_32f_w7, {floatOf(0xFFFFFFFFu)})[0], 0xFFFFFFFFu);
}

}  // namespace
