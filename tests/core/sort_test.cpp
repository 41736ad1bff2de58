// The in-place sort against std::sort on inputs that stress each of its steps.
#include <gtest/gtest.h>
#include <math.h>
#include <stdint.h>
#include <string.h>

#include <algorithm>
#include <random>
#include <vector>

#include "kelr.h"

namespace {

// Equality by value, so -0 and +0 may come out in either order.
void expectSortedLikeReference(std::vector<float> input, const char* what) {
    std::vector<float> expected = input;
    std::sort(expected.begin(), expected.end());
    ASSERT_EQ(kelsSortAscend_32f_I(input.data(), int(input.size())), KEL_STS_OK) << what;
    for (size_t k = 0; k < input.size(); ++k)
        ASSERT_EQ(input[k], expected[k]) << what << ", length " << input.size() << ", at " << k;
}

std::vector<uint32_t> sortedBits(const std::vector<float>& v) {
    std::vector<uint32_t> bits(v.size());
    memcpy(bits.data(), v.data(), v.size() * sizeof(float));
    std::sort(bits.begin(), bits.end());
    return bits;
}

}  // namespace

TEST(Sort, ChecksPointerThenLength) {
    EXPECT_EQ(kelsSortAscend_32f_I(nullptr, 0), KEL_STS_NULL_PTR);
    EXPECT_EQ(kelsSortAscend_32f_I(nullptr, 5), KEL_STS_NULL_PTR);
    float x[2] = {2.0f, 1.0f};
    EXPECT_EQ(kelsSortAscend_32f_I(x, 0), KEL_STS_SIZE);
    EXPECT_EQ(kelsSortAscend_32f_I(x, -3), KEL_STS_SIZE);
    EXPECT_EQ(kelsSortAscend_32f_I(x, 1), KEL_STS_OK);
    EXPECT_EQ(x[0], 2.0f);  // nothing touched
    EXPECT_EQ(x[1], 1.0f);
}

// Lengths on both sides of the selection threshold (9/10) and far beyond,
// in the shapes that break naive pivot choices. A million nearly equal
// values finish because each pass drops the run equal to the pivot; without
// that the segment would shrink by one element per pass.
TEST(Sort, MatchesReferenceOnManyShapesAndLengths) {
    std::mt19937 rng(7);
    using Shape = float (*)(std::mt19937&, int k, int n);
    const std::pair<const char*, Shape> shapes[] = {
        {"random", [](std::mt19937& r, int, int) { return float(r() % 2000001) / 1e3f - 1e3f; }},
        {"few distinct", [](std::mt19937& r, int, int) { return float(int(r() % 5) - 2); }},
        {"sorted", [](std::mt19937&, int k, int) { return float(k); }},
        {"reverse", [](std::mt19937&, int k, int n) { return float(n - k); }},
        {"organ pipe", [](std::mt19937&, int k, int n) { return float(std::min(k, n - k)); }},
        {"signed zeros", [](std::mt19937&, int k, int) { return k % 2 ? -0.0f : 0.0f; }},
        {"equal", [](std::mt19937&, int, int) { return 3.5f; }}};
    std::vector<int> lengths;
    for (int n = 2; n <= 80; ++n) lengths.push_back(n);
    for (int n : {127, 128, 129, 1000, 4097, 65536, 100003}) lengths.push_back(n);
    for (int n : lengths)
        for (const auto& [name, shape] : shapes) {
            std::vector<float> v(size_t(n), 0.0f);
            for (int k = 0; k < n; ++k) v[size_t(k)] = shape(rng, k, n);
            expectSortedLikeReference(v, name);
        }
    std::vector<float> nearlyEqual(1000000, 1.25f);
    nearlyEqual[500000] = -1.0f;
    nearlyEqual[999999] = 2.0f;
    expectSortedLikeReference(nearlyEqual, "million nearly equal");
}

TEST(Sort, NaNsTerminateAndKeepEveryValue) {
    std::mt19937 rng(11);
    for (int n : {10, 33, 1000}) {
        std::vector<float> v(n);
        std::uniform_real_distribution<float> any(-1.0f, 1.0f);
        for (int k = 0; k < n; ++k) v[k] = (k % 5 == 0) ? NAN : any(rng);
        std::vector<uint32_t> before = sortedBits(v);
        EXPECT_EQ(kelsSortAscend_32f_I(v.data(), n), KEL_STS_OK);
        EXPECT_EQ(sortedBits(v), before);
    }
}
