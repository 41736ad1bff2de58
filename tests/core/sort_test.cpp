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
// in the shapes that break naive pivot choices.
TEST(Sort, MatchesReferenceOnManyShapesAndLengths) {
    std::mt19937 rng(7);
    std::vector<int> lengths;
    for (int n = 2; n <= 80; ++n) lengths.push_back(n);
    for (int n : {127, 128, 129, 1000, 4097, 65536, 100003}) lengths.push_back(n);
    for (int n : lengths) {
        std::vector<float> v(n);
        std::uniform_real_distribution<float> any(-1000.0f, 1000.0f);
        for (float& f : v) f = any(rng);
        expectSortedLikeReference(v, "random");
        std::uniform_int_distribution<int> few(-2, 2);
        for (float& f : v) f = float(few(rng));
        expectSortedLikeReference(v, "few distinct");
        for (int k = 0; k < n; ++k) v[k] = float(k);
        expectSortedLikeReference(v, "sorted");
        for (int k = 0; k < n; ++k) v[k] = float(n - k);
        expectSortedLikeReference(v, "reverse");
        for (int k = 0; k < n; ++k) v[k] = float(std::min(k, n - k));
        expectSortedLikeReference(v, "organ pipe");
        for (int k = 0; k < n; ++k) v[k] = (k % 2) ? -0.0f : 0.0f;
        expectSortedLikeReference(v, "signed zeros");
        std::fill(v.begin(), v.end(), 3.5f);
        expectSortedLikeReference(v, "equal");
    }
}

// A million equal values finish because each pass drops the run equal to the
// pivot; without that the segment would shrink by one element per pass.
TEST(Sort, MillionEqualValues) {
    std::vector<float> v(1000000, 1.25f);
    v[500000] = -1.0f;
    v[999999] = 2.0f;
    expectSortedLikeReference(v, "million nearly equal");
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
