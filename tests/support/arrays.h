// Per-ray arrays for the tests: planes on a 16-byte boundary, or
// a few elements past one (which sends a call down its scalar path), with
// guard words around them that show any write outside; and float bits.
#ifndef KEL_TEST_ARRAYS_H
#define KEL_TEST_ARRAYS_H

#include <cstdint>
#include <cstring>
#include <vector>

namespace kelt {

inline uint32_t bitsOf(float f) {
    uint32_t u;
    std::memcpy(&u, &f, 4);
    return u;
}

inline bool sameBits(float a, float b) {
    return bitsOf(a) == bitsOf(b);
}

template <typename T>
class Plane {
  public:
    static_assert(sizeof(T) == 4, "planes hold 32-bit elements");
    explicit Plane(int count, T fill = T(), int misalign = 0)
        : store_(size_t(count) + 2 * kGuard), count_(count) {
        for (T& word : store_) std::memcpy(&word, &kCanary, 4);
        data_ = boundary() + misalign;
        for (int i = 0; i < count; ++i) data_[i] = fill;
    }
    Plane(const Plane& other) : Plane(other.count_, T(), int(other.data_ - other.boundary())) {
        assign(other.values());
    }
    Plane& operator=(const Plane&) = delete;

    // Moves the values `misalign` elements past the boundary.
    void placeAt(int misalign) {
        std::vector<T> kept = values();
        for (T& word : store_) std::memcpy(&word, &kCanary, 4);
        data_ = boundary() + misalign;
        assign(kept);
    }
    T* data() { return data_; }
    const T* data() const { return data_; }
    T& operator[](int i) { return data_[i]; }
    const T& operator[](int i) const { return data_[i]; }
    int size() const { return count_; }
    std::vector<T> values() const { return std::vector<T>(data_, data_ + count_); }
    void assign(const std::vector<T>& v) {
        for (int i = 0; i < count_; ++i) data_[i] = v[size_t(i)];
    }
    void fill(T value) {
        for (int i = 0; i < count_; ++i) data_[i] = value;
    }
    // No word outside the plane was written.
    bool intact() const {
        for (const T& word : store_)
            if ((&word < data_ || &word >= data_ + count_) && std::memcmp(&word, &kCanary, 4) != 0)
                return false;
        return true;
    }

  private:
    static constexpr int kGuard = 8;  // elements: room for the boundary and the misalignment
    static constexpr uint32_t kCanary = 0xA5C3E1F7u;
    T* boundary() const {
        const uintptr_t start = reinterpret_cast<uintptr_t>(store_.data() + 2);
        return reinterpret_cast<T*>((start + 15) & ~uintptr_t(15));
    }
    std::vector<T> store_;
    int count_;
    T* data_;
};

// Three planes: x, y and z (or u and v in the first two, or colour channels).
class Planes3 {
  public:
    explicit Planes3(int count, float fill = 0.0f, int misalign = 0)
        : plane_{Plane<float>(count, fill, misalign), Plane<float>(count, fill, misalign),
                 Plane<float>(count, fill, misalign)} {}
    Plane<float>& operator[](int k) { return plane_[k]; }
    const Plane<float>& operator[](int k) const { return plane_[k]; }
    // The planes' current addresses, `offset` rays on.
    float* const* p(int offset = 0) {
        for (int k = 0; k < 3; ++k) pointers_[k] = plane_[k].data() + offset;
        return pointers_;
    }
    float& at(int k, int i) { return plane_[k][i]; }
    float at(int k, int i) const { return plane_[k][i]; }
    void set(int i, const float v[3]) {
        for (int k = 0; k < 3; ++k) plane_[k][i] = v[k];
    }
    void get(int i, float v[3]) const {
        for (int k = 0; k < 3; ++k) v[k] = plane_[k][i];
    }
    void fill(float value) {
        for (Plane<float>& plane : plane_) plane.fill(value);
    }
    std::vector<float> values() const {
        std::vector<float> v;
        for (const Plane<float>& plane : plane_) {
            const std::vector<float> part = plane.values();
            v.insert(v.end(), part.begin(), part.end());
        }
        return v;
    }
    bool intact() const { return plane_[0].intact() && plane_[1].intact() && plane_[2].intact(); }

  private:
    Plane<float> plane_[3];
    float* pointers_[3];
};

}  // namespace kelt

#endif
