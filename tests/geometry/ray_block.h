// Ray blocks for the geometry tests: planes that sit on a 16-byte boundary
// or one element past it (which steers the primitives between their paths),
// random contents, and a driver that runs one call on every path.
#ifndef KEL_TEST_RAY_BLOCK_H
#define KEL_TEST_RAY_BLOCK_H

#include <gtest/gtest.h>
#include <stdint.h>
#include <string.h>

#include <algorithm>
#include <initializer_list>
#include <random>
#include <vector>

#include "kelr.h"

namespace kelt {

inline uint32_t bits(float f) {
    uint32_t u;
    memcpy(&u, &f, 4);
    return u;
}

// An array that can move off its 16-byte boundary and back, keeping its values.
struct Movable {
    virtual void placeAt(int misalign) = 0;

  protected:
    ~Movable() = default;
};

template <typename T>
class Plane : public Movable {
  public:
    explicit Plane(int count) : storage_(count + 8), data_(boundary()), count_(count) {}
    Plane(const Plane&) = delete;

    void placeAt(int misalign) override {
        T* to = boundary() + misalign;
        memmove(static_cast<void*>(to), data_, sizeof(T) * count_);
        data_ = to;
    }
    T* data() { return data_; }
    T& operator[](int i) { return data_[i]; }
    int size() const { return count_; }
    std::vector<T> values() const { return std::vector<T>(data_, data_ + count_); }
    void assign(const std::vector<T>& v) { std::copy(v.begin(), v.begin() + count_, data_); }
    void fill(T value) { std::fill(data_, data_ + count_, value); }

  private:
    T* boundary() {
        return reinterpret_cast<T*>((uintptr_t(storage_.data()) + 15) & ~uintptr_t(15));
    }
    std::vector<T> storage_;
    T* data_;
    int count_;
};

// Three planes x, y, z (or three colour channels).
class Triple {
  public:
    explicit Triple(int count)
        : p_{Plane<float>(count), Plane<float>(count), Plane<float>(count)} {}
    // The current plane pointers moved forward by `offset` rays, after any
    // plane has moved.
    float* const* planes(int offset = 0) {
        for (int k = 0; k < 3; ++k) pointers_[k] = p_[k].data() + offset;
        return pointers_;
    }
    Plane<float>& operator[](int k) { return p_[k]; }
    float& at(int k, int i) { return p_[k][i]; }
    std::vector<float> values() const {
        std::vector<float> v;
        for (const Plane<float>& p : p_)
            for (float x : p.values()) v.push_back(x);
        return v;
    }
    void assign(const std::vector<float>& v) {
        for (int k = 0; k < 3; ++k)
            p_[k].assign(std::vector<float>(v.begin() + k * p_[k].size(), v.end()));
    }
    void fill(float value) {
        for (Plane<float>& p : p_) p.fill(value);
    }

  private:
    Plane<float> p_[3];
    float* pointers_[3];
};

// p, or null when a null-pointer check is aimed at it.
template <typename T>
T* nullIf(bool aimed, T* p) {
    return aimed ? nullptr : p;
}

// call(w) nulls its w-th pointer, for w < pointers; call(-1, count) passes
// all of them with an empty count.
template <typename Call>
void expectNullChecksAndEmptyCounts(int pointers, Call call) {
    for (int w = 0; w < pointers; ++w) EXPECT_EQ(call(w, 8), KEL_STS_NULL_PTR) << "pointer " << w;
    for (int count : {0, -4, -3}) EXPECT_EQ(call(-1, count), KEL_STS_OK) << count;
}

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
    for (int i = 0; i < n; i += 3) ASSERT_EQ(run(i, n - i < 3 ? n - i : 3), KEL_STS_OK);
}

// One way of running a block: whole groups with every array aligned (the
// worker), whole groups with the array `moved` one element off its boundary,
// or pieces of three rays (the scalar loop).
struct Path {
    const Movable* moved;
    bool pieces;
    bool worker() const { return !moved && !pieces; }
};

// Calls reset(), call(offset, count) and check(path) on a block of n rays
// once for every path, moving each of `arrays` off its boundary in turn. A
// worker chosen although one of its aligned arrays is not aligned faults on
// its aligned loads; a worker whose rounding differs from the scalar loop's
// shows which path ran.
template <typename Reset, typename Call, typename Check>
void onEveryPath(int n, std::initializer_list<Movable*> arrays, Reset reset, Call call,
                 Check check) {
    auto once = [&](Path path, int trace) {
        SCOPED_TRACE(path.pieces ? "in pieces" : "misaligned array " + std::to_string(trace));
        reset();
        if (path.pieces)
            inScalarPieces(n, call);
        else
            ASSERT_EQ(call(0, n), KEL_STS_OK);
        check(path);
    };
    once({nullptr, false}, -1);
    int trace = 0;
    for (Movable* array : arrays) {
        array->placeAt(1);
        once({array, false}, trace++);
        array->placeAt(0);
    }
    once({nullptr, true}, 0);
}

}  // namespace kelt

#endif
