// The radix sort of float keys, both variants, against std::stable_sort.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "kdtree/psah.h"

namespace {

using SortFn = KelStatus (*)(float*, float*, uint32_t);

uint32_t bits(float f) {
    uint32_t u;
    std::memcpy(&u, &f, 4);
    return u;
}
float fromBits(uint32_t u) {
    float f;
    std::memcpy(&f, &u, 4);
    return f;
}

// Float order with -0 before +0; no NaNs.
bool floatLess(float a, float b) {
    return a < b || (a == b && std::signbit(a) && !std::signbit(b));
}

// Runs a sort in 32-byte-aligned arrays; returns the data and checks that
// the buffer ends up holding the same result.
std::vector<uint32_t> runSort(SortFn sort, const std::vector<float>& input) {
    const int n = int(input.size());
    float* data = reinterpret_cast<float*>(kelsMalloc_32s(std::max(n, 1)));
    float* buffer = reinterpret_cast<float*>(kelsMalloc_32s(std::max(n, 1)));
    std::copy(input.begin(), input.end(), data);
    EXPECT_EQ(sort(data, buffer, uint32_t(n)), KEL_STS_OK);
    std::vector<uint32_t> out(n);
    for (int i = 0; i < n; ++i) {
        out[i] = bits(data[i]);
        EXPECT_EQ(bits(buffer[i]), out[i]) << "buffer copy at " << i;
    }
    kelsFree(data);
    kelsFree(buffer);
    return out;
}

std::vector<uint32_t> oracle(std::vector<float> v) {
    std::stable_sort(v.begin(), v.end(), floatLess);
    std::vector<uint32_t> out;
    for (float f : v) out.push_back(bits(f));
    return out;
}

// Mixed magnitudes and signs, with signed zeros, infinities and many exact
// duplicates, plus values that agree in the upper digits and differ only in
// the lower ones, so an unstable pass would misorder them.
std::vector<float> randomKeys(int n, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> wide(-1e6f, 1e6f);
    const float specials[] = {0.0f,
                              -0.0f,
                              std::numeric_limits<float>::infinity(),
                              -std::numeric_limits<float>::infinity(),
                              1.0f,
                              -1.0f};
    std::vector<float> v(n);
    for (int i = 0; i < n; ++i) {
        switch (rng() % 4) {
            case 0:
                v[i] = specials[rng() % 6];
                break;
            case 1:
                v[i] = fromBits(0x3F800000u | (rng() & 0x3FFFFF)) * (rng() % 2 ? 1 : -1);
                break;
            case 2:
                v[i] = i > 0 ? v[rng() % i] : 2.5f;
                break;
            default:
                v[i] = wide(rng);
                break;
        }
    }
    return v;
}

TEST(RadixSort, MatchesStableSortAtEverySize) {
    for (SortFn sort : {ownRadixSortAccend_32f_w7, ownRadixSortAccend_32f_px}) {
        for (int n : {1, 2, 15, 16, 17, 31, 33, 320, 321, 4099, 200000}) {
            std::vector<float> v = randomKeys(n, unsigned(n));
            EXPECT_EQ(runSort(sort, v), oracle(v)) << "n = " << n;
        }
        std::vector<float> example = {3.5f, -1.0f, 0.0f, -0.0f, 2.0f, -7.25f};
        EXPECT_EQ(runSort(sort, example), oracle(example));
    }
}

TEST(RadixSort, EmptySortTouchesNothing) {
    for (SortFn sort : {ownRadixSortAccend_32f_w7, ownRadixSortAccend_32f_px}) {
        float* data = reinterpret_cast<float*>(kelsMalloc_32s(4));
        float* buffer = reinterpret_cast<float*>(kelsMalloc_32s(4));
        data[0] = 7.0f;
        buffer[0] = 9.0f;
        EXPECT_EQ(sort(data, buffer, 0), KEL_STS_OK);
        EXPECT_EQ(data[0], 7.0f);
        EXPECT_EQ(buffer[0], 9.0f);
        kelsFree(data);
        kelsFree(buffer);
    }
}

// The comparison sort places +0 and -0 freely, so the check uses values
// without zeros; around the switch-over size both sorts must agree.
TEST(RadixSort, AgreesWithComparisonSortAroundTheThreshold) {
    for (int n : {320, 321}) {
        std::mt19937 rng(n);
        std::uniform_real_distribution<float> dist(-50.0f, 50.0f);
        std::vector<float> v(n);
        for (float& f : v) {
            do f = dist(rng);
            while (f == 0.0f);
        }
        std::vector<float> compared = v;
        ASSERT_EQ(kelsSortAscend_32f_I(compared.data(), n), KEL_STS_OK);
        std::vector<uint32_t> expected;
        for (float f : compared) expected.push_back(bits(f));
        EXPECT_EQ(runSort(ownRadixSortAccend_32f_w7, v), expected) << "n = " << n;
    }
}

// NaNs sort outside the infinities by sign. The one key the vector inverse
// gets wrong is that of 0xFFFFFFFF: inside a 16-element block it returns as
// -0.0, in the scalar tail and in the plain variant it survives.
TEST(RadixSort, NanOrderAndTheAcceptedVectorDifference) {
    const float inf = std::numeric_limits<float>::infinity();
    std::vector<float> v(17, 1.0f);
    v[3] = fromBits(0xFFFFFFFFu);
    v[5] = fromBits(0x7FC00000u);
    v[6] = -inf;
    v[7] = inf;
    v[8] = fromBits(0xFFC00000u);

    std::vector<uint32_t> plain = runSort(ownRadixSortAccend_32f_px, v);
    ASSERT_EQ(plain.size(), 17u);
    EXPECT_EQ(plain[0], 0xFFFFFFFFu);
    EXPECT_EQ(plain[1], 0xFFC00000u);
    EXPECT_EQ(plain[2], bits(-inf));
    EXPECT_EQ(plain[15], bits(inf));
    EXPECT_EQ(plain[16], 0x7FC00000u);

    std::vector<uint32_t> vector = runSort(ownRadixSortAccend_32f_w7, v);
    std::vector<uint32_t> expected = plain;
    expected[0] = 0x80000000u;
    EXPECT_EQ(vector, expected);

    // Its key is the smallest there is, so it reaches the scalar tail only
    // when there is no vector block at all.
    std::vector<uint32_t> single = runSort(ownRadixSortAccend_32f_w7, {fromBits(0xFFFFFFFFu)});
    EXPECT_EQ(single[0], 0xFFFFFFFFu);
}

}  // namespace
