// Ray blocks for the geometry tests: planes placed at a chosen offset from a
// 16-byte boundary (to steer the primitives between their paths), random
// contents, and float comparisons by bit pattern or by units in the last
// place.
#ifndef KEL_TEST_RAY_BLOCK_H
#define KEL_TEST_RAY_BLOCK_H

#include <stdint.h>
#include <string.h>

#include <random>
#include <vector>

namespace kelt {

inline uint32_t bits(float f) {
    uint32_t u;
    memcpy(&u, &f, 4);
    return u;
}

inline float floatOf(uint32_t u) {
    float f;
    memcpy(&f, &u, 4);
    return f;
}

// count elements of T, starting misalign elements past a 16-byte boundary.
template <typename T>
class Plane {
  public:
    explicit Plane(int count, int misalign = 0) : storage_(count + 8), count_(count) {
        uintptr_t p = reinterpret_cast<uintptr_t>(storage_.data());
        p = (p + 15) & ~uintptr_t(15);
        data_ = reinterpret_cast<T*>(p) + misalign;
    }
    Plane(const Plane&) = delete;
    Plane& operator=(const Plane&) = delete;

    T* data() { return data_; }
    T& operator[](int i) { return data_[i]; }
    const T& operator[](int i) const { return data_[i]; }
    int size() const { return count_; }
    std::vector<T> values() const { return std::vector<T>(data_, data_ + count_); }
    void assign(const Plane& other) {
        for (int i = 0; i < count_; ++i) data_[i] = other[i];
    }
    void fill(T value) {
        for (int i = 0; i < count_; ++i) data_[i] = value;
    }

  private:
    std::vector<T> storage_;
    T* data_;
    int count_;
};

// Three planes x, y, z (or three colour channels).
class Triple {
  public:
    explicit Triple(int count, int misalign = 0)
        : x_(count, misalign), y_(count, misalign), z_(count, misalign) {
        planes_[0] = x_.data();
        planes_[1] = y_.data();
        planes_[2] = z_.data();
    }
    float* const* planes() { return planes_; }
    Plane<float>& operator[](int k) { return k == 0 ? x_ : k == 1 ? y_ : z_; }
    float& at(int k, int i) { return planes_[k][i]; }
    void assign(Triple& other) {
        for (int k = 0; k < 3; ++k) (*this)[k].assign(other[k]);
    }
    void fill(float value) {
        for (int k = 0; k < 3; ++k) (*this)[k].fill(value);
    }

  private:
    Plane<float> x_, y_, z_;
    float* planes_[3];
};

// Plane pointers moved forward by offset rays, for calling a primitive on a
// part of a block.
struct ShiftedTriple {
    ShiftedTriple(float* const* planes, int offset) {
        for (int k = 0; k < 3; ++k) p[k] = planes[k] + offset;
    }
    float* p[3];
};

class Random {
  public:
    explicit Random(uint32_t seed) : engine_(seed) {}
    float uniform(float lo, float hi) {
        return std::uniform_real_distribution<float>(lo, hi)(engine_);
    }
    int integer(int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(engine_); }
    void fill(Plane<float>& plane, float lo, float hi) {
        for (int i = 0; i < plane.size(); ++i) plane[i] = uniform(lo, hi);
    }
    void fill(Triple& triple, float lo, float hi) {
        for (int k = 0; k < 3; ++k) fill(triple[k], lo, hi);
    }
    // Mostly active rays, some inactive ones with assorted negative values,
    // and a few groups of four that are inactive as a whole.
    void fillMask(Plane<int>& mask) {
        for (int i = 0; i < mask.size(); ++i)
            mask[i] = integer(0, 3) == 0 ? -integer(1, 9) : integer(0, 1000);
        for (int g = 0; g + 4 <= mask.size(); g += 4)
            if (integer(0, 5) == 0)
                for (int l = 0; l < 4; ++l) mask[g + l] = -1 - l;
    }

  private:
    std::mt19937 engine_;
};

// Runs run(offset, count) over a block of n rays in pieces of three and one
// rays: counts that are not multiples of four always take the scalar loops.
template <typename Run>
void inScalarPieces(int n, Run run) {
    for (int i = 0; i < n; i += 3) run(i, n - i < 3 ? n - i : 3);
}

}  // namespace kelt

#endif
