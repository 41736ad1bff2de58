// Lane types for the library's SIMD code: N lanes of floats, doubles or
// ints, and a mask of N lanes, with the operators the kernels need. A
// kernel is written once over these types, beside its scalar twin, and
// compiled once per instruction set: built for SSE2, eight floats are two
// 128-bit registers; built with AVX2, one 256-bit register. Operators keep
// the scalar meaning, NaN included: a comparison with a NaN is false, and
// no multiplication and addition are fused.
#ifndef KEL_CORE_LANES_H
#define KEL_CORE_LANES_H

#include <immintrin.h>

#include "core/isa.h"

// For kernels that must be inlined into their callers: out of line, a
// vector of two registers would pass through memory.
#define KEL_LANES_INLINE inline __attribute__((always_inline))

namespace kel {
inline namespace KEL_ISA {
namespace lanes {

// ---- Registers -----------------------------------------------------------
// One set of primitives per register type; the lane types below apply them
// to each register of a vector.

// Each names its register R and how many lanes of its scalar it holds.
struct Sse4f {
    using R = __m128;
    static constexpr int kLanes = 4;
    static __m128 splat(float x) { return _mm_set1_ps(x); }
    static __m128 load(const float* p) { return _mm_load_ps(p); }
    static __m128 loadUnaligned(const float* p) { return _mm_loadu_ps(p); }
    static void store(float* p, __m128 v) { _mm_store_ps(p, v); }
    static void storeUnaligned(float* p, __m128 v) { _mm_storeu_ps(p, v); }
    static __m128 add(__m128 a, __m128 b) { return _mm_add_ps(a, b); }
    static __m128 sub(__m128 a, __m128 b) { return _mm_sub_ps(a, b); }
    static __m128 mul(__m128 a, __m128 b) { return _mm_mul_ps(a, b); }
    static __m128 div(__m128 a, __m128 b) { return _mm_div_ps(a, b); }
    static __m128 min(__m128 a, __m128 b) { return _mm_min_ps(a, b); }
    static __m128 max(__m128 a, __m128 b) { return _mm_max_ps(a, b); }
    static __m128 sqrt(__m128 a) { return _mm_sqrt_ps(a); }
    static __m128 rsqrt(__m128 a) { return _mm_rsqrt_ps(a); }
    static __m128 set(float a, float b, float c, float d) { return _mm_setr_ps(a, b, c, d); }
    static __m128 lt(__m128 a, __m128 b) { return _mm_cmplt_ps(a, b); }
    static __m128 notGreater(__m128 a, __m128 b) { return _mm_cmpngt_ps(a, b); }
    static __m128 le(__m128 a, __m128 b) { return _mm_cmple_ps(a, b); }
    static __m128 eq(__m128 a, __m128 b) { return _mm_cmpeq_ps(a, b); }
    static __m128 bitAnd(__m128 a, __m128 b) { return _mm_and_ps(a, b); }
    static __m128 bitOr(__m128 a, __m128 b) { return _mm_or_ps(a, b); }
    static __m128 bitXor(__m128 a, __m128 b) { return _mm_xor_ps(a, b); }
    static __m128 andNot(__m128 a, __m128 b) { return _mm_andnot_ps(a, b); }  // ~a & b
    static int bits(__m128 m) { return _mm_movemask_ps(m); }
    static __m128 loadQuads(const float* p, int) { return load(p); }
    static void storeQuads(float* p, int, __m128 v) { store(p, v); }
};

struct Sse2d {
    using R = __m128d;
    static constexpr int kLanes = 2;
    static __m128d splat(double x) { return _mm_set1_pd(x); }
    static __m128d add(__m128d a, __m128d b) { return _mm_add_pd(a, b); }
    static __m128d sub(__m128d a, __m128d b) { return _mm_sub_pd(a, b); }
    static __m128d mul(__m128d a, __m128d b) { return _mm_mul_pd(a, b); }
    static __m128d div(__m128d a, __m128d b) { return _mm_div_pd(a, b); }
    static __m128d min(__m128d a, __m128d b) { return _mm_min_pd(a, b); }
    static __m128d max(__m128d a, __m128d b) { return _mm_max_pd(a, b); }
    static __m128d lt(__m128d a, __m128d b) { return _mm_cmplt_pd(a, b); }
    static __m128d le(__m128d a, __m128d b) { return _mm_cmple_pd(a, b); }
    static __m128d eq(__m128d a, __m128d b) { return _mm_cmpeq_pd(a, b); }
    static __m128d bitAnd(__m128d a, __m128d b) { return _mm_and_pd(a, b); }
    static __m128d bitOr(__m128d a, __m128d b) { return _mm_or_pd(a, b); }
    static __m128d bitXor(__m128d a, __m128d b) { return _mm_xor_pd(a, b); }
    static __m128d andNot(__m128d a, __m128d b) { return _mm_andnot_pd(a, b); }
    static int bits(__m128d m) { return _mm_movemask_pd(m); }
};

struct Sse4i {
    using R = __m128i;
    static constexpr int kLanes = 4;
    using MaskOps = Sse4f;
    static __m128i splat(int x) { return _mm_set1_epi32(x); }
    static __m128i load(const int* p) {
        return _mm_load_si128(reinterpret_cast<const __m128i*>(p));
    }
    static __m128i loadUnaligned(const int* p) {
        return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
    }
    static void store(int* p, __m128i v) { _mm_store_si128(reinterpret_cast<__m128i*>(p), v); }
    static void storeUnaligned(int* p, __m128i v) {
        _mm_storeu_si128(reinterpret_cast<__m128i*>(p), v);
    }
    static __m128i loadQuads(const int* p, int) { return load(p); }
    static void storeQuads(int* p, int, __m128i v) { store(p, v); }
    static __m128i eq(__m128i a, __m128i b) { return _mm_cmpeq_epi32(a, b); }
    static __m128i lt(__m128i a, __m128i b) { return _mm_cmplt_epi32(a, b); }
    // Masks of int lanes are float registers, so that they combine with
    // the masks of float comparisons.
    static __m128 asMask(__m128i v) { return _mm_castsi128_ps(v); }
    static __m128i fromMask(__m128 m) { return _mm_castps_si128(m); }
    // All ones in the lanes whose bit is set in `lanes` (bit i: lane i).
    static __m128i laneBits(int lanes) {
        const __m128i bit = _mm_setr_epi32(1, 2, 4, 8);
        return _mm_cmpeq_epi32(_mm_and_si128(_mm_set1_epi32(lanes), bit), bit);
    }
};

#if defined(__AVX2__)
struct Avx8f {
    using R = __m256;
    static constexpr int kLanes = 8;
    static __m256 splat(float x) { return _mm256_set1_ps(x); }
    static __m256 load(const float* p) { return _mm256_load_ps(p); }
    static __m256 loadUnaligned(const float* p) { return _mm256_loadu_ps(p); }
    static void store(float* p, __m256 v) { _mm256_store_ps(p, v); }
    static void storeUnaligned(float* p, __m256 v) { _mm256_storeu_ps(p, v); }
    static __m256 add(__m256 a, __m256 b) { return _mm256_add_ps(a, b); }
    static __m256 sub(__m256 a, __m256 b) { return _mm256_sub_ps(a, b); }
    static __m256 mul(__m256 a, __m256 b) { return _mm256_mul_ps(a, b); }
    static __m256 div(__m256 a, __m256 b) { return _mm256_div_ps(a, b); }
    static __m256 min(__m256 a, __m256 b) { return _mm256_min_ps(a, b); }
    static __m256 max(__m256 a, __m256 b) { return _mm256_max_ps(a, b); }
    static __m256 sqrt(__m256 a) { return _mm256_sqrt_ps(a); }
    static __m256 rsqrt(__m256 a) { return _mm256_rsqrt_ps(a); }
    static __m256 lt(__m256 a, __m256 b) { return _mm256_cmp_ps(a, b, _CMP_LT_OQ); }
    static __m256 notGreater(__m256 a, __m256 b) { return _mm256_cmp_ps(a, b, _CMP_NGT_UQ); }
    static __m256 le(__m256 a, __m256 b) { return _mm256_cmp_ps(a, b, _CMP_LE_OQ); }
    static __m256 eq(__m256 a, __m256 b) { return _mm256_cmp_ps(a, b, _CMP_EQ_OQ); }
    static __m256 bitAnd(__m256 a, __m256 b) { return _mm256_and_ps(a, b); }
    static __m256 bitOr(__m256 a, __m256 b) { return _mm256_or_ps(a, b); }
    static __m256 bitXor(__m256 a, __m256 b) { return _mm256_xor_ps(a, b); }
    static __m256 andNot(__m256 a, __m256 b) { return _mm256_andnot_ps(a, b); }
    static int bits(__m256 m) { return _mm256_movemask_ps(m); }
    static __m256 loadQuads(const float* p, int stride) {
        return _mm256_insertf128_ps(_mm256_castps128_ps256(_mm_load_ps(p)), _mm_load_ps(p + stride),
                                    1);
    }
    static void storeQuads(float* p, int stride, __m256 v) {
        _mm_store_ps(p, _mm256_castps256_ps128(v));
        _mm_store_ps(p + stride, _mm256_extractf128_ps(v, 1));
    }
};

struct Avx4d {
    using R = __m256d;
    static constexpr int kLanes = 4;
    static __m256d splat(double x) { return _mm256_set1_pd(x); }
    static __m256d add(__m256d a, __m256d b) { return _mm256_add_pd(a, b); }
    static __m256d sub(__m256d a, __m256d b) { return _mm256_sub_pd(a, b); }
    static __m256d mul(__m256d a, __m256d b) { return _mm256_mul_pd(a, b); }
    static __m256d div(__m256d a, __m256d b) { return _mm256_div_pd(a, b); }
    static __m256d min(__m256d a, __m256d b) { return _mm256_min_pd(a, b); }
    static __m256d max(__m256d a, __m256d b) { return _mm256_max_pd(a, b); }
    static __m256d lt(__m256d a, __m256d b) { return _mm256_cmp_pd(a, b, _CMP_LT_OQ); }
    static __m256d le(__m256d a, __m256d b) { return _mm256_cmp_pd(a, b, _CMP_LE_OQ); }
    static __m256d eq(__m256d a, __m256d b) { return _mm256_cmp_pd(a, b, _CMP_EQ_OQ); }
    static __m256d bitAnd(__m256d a, __m256d b) { return _mm256_and_pd(a, b); }
    static __m256d bitOr(__m256d a, __m256d b) { return _mm256_or_pd(a, b); }
    static __m256d bitXor(__m256d a, __m256d b) { return _mm256_xor_pd(a, b); }
    static __m256d andNot(__m256d a, __m256d b) { return _mm256_andnot_pd(a, b); }
    static int bits(__m256d m) { return _mm256_movemask_pd(m); }
};

struct Avx8i {
    using R = __m256i;
    static constexpr int kLanes = 8;
    using MaskOps = Avx8f;
    static __m256i splat(int x) { return _mm256_set1_epi32(x); }
    static __m256i load(const int* p) {
        return _mm256_load_si256(reinterpret_cast<const __m256i*>(p));
    }
    static __m256i loadUnaligned(const int* p) {
        return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
    }
    static void store(int* p, __m256i v) { _mm256_store_si256(reinterpret_cast<__m256i*>(p), v); }
    static void storeUnaligned(int* p, __m256i v) {
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(p), v);
    }
    static __m256i loadQuads(const int* p, int stride) {
        return _mm256_insertf128_si256(
            _mm256_castsi128_si256(_mm_load_si128(reinterpret_cast<const __m128i*>(p))),
            _mm_load_si128(reinterpret_cast<const __m128i*>(p + stride)), 1);
    }
    static void storeQuads(int* p, int stride, __m256i v) {
        _mm_store_si128(reinterpret_cast<__m128i*>(p), _mm256_castsi256_si128(v));
        _mm_store_si128(reinterpret_cast<__m128i*>(p + stride), _mm256_extractf128_si256(v, 1));
    }
    static __m256i eq(__m256i a, __m256i b) { return _mm256_cmpeq_epi32(a, b); }
    static __m256i lt(__m256i a, __m256i b) { return _mm256_cmpgt_epi32(b, a); }
    static __m256 asMask(__m256i v) { return _mm256_castsi256_ps(v); }
    static __m256i fromMask(__m256 m) { return _mm256_castps_si256(m); }
    static __m256i laneBits(int lanes) {
        const __m256i bit = _mm256_setr_epi32(1, 2, 4, 8, 16, 32, 64, 128);
        return _mm256_cmpeq_epi32(_mm256_and_si256(_mm256_set1_epi32(lanes), bit), bit);
    }
};
#endif

// The registers that hold the N lanes of a vector of T.
template <typename T, int N>
struct OpsFor;
template <>
struct OpsFor<float, 4> {
    using type = Sse4f;
};
template <>
struct OpsFor<int, 4> {
    using type = Sse4i;
};
template <>
struct OpsFor<double, 2> {
    using type = Sse2d;
};
#if defined(__AVX2__)
template <>
struct OpsFor<float, 8> {
    using type = Avx8f;
};
template <>
struct OpsFor<int, 8> {
    using type = Avx8i;
};
template <>
struct OpsFor<double, 4> {
    using type = Avx4d;
};
#else
template <>
struct OpsFor<float, 8> {
    using type = Sse4f;
};
template <>
struct OpsFor<int, 8> {
    using type = Sse4i;
};
template <>
struct OpsFor<double, 4> {
    using type = Sse2d;
};
#endif

// ---- Masks -----------------------------------------------------------------

// N lanes, each all ones (true) or all zeros, as comparisons of T (float
// or double) give them; comparisons of ints give masks of floats.
template <typename T, int N>
struct Mask {
    using Ops = typename OpsFor<T, N>::type;
    using R = typename Ops::R;
    static constexpr int kPerReg = Ops::kLanes;
    static constexpr int kRegs = N / kPerReg;
    R reg[kRegs];

    // Bit i set when lane i is true.
    int bits() const {
        int b = 0;
        for (int i = 0; i < kRegs; ++i) b |= Ops::bits(reg[i]) << (i * kPerReg);
        return b;
    }
    bool any() const { return bits() != 0; }
};

template <typename T, int N, typename F>
inline Mask<T, N> eachReg(Mask<T, N> a, Mask<T, N> b, F f) {
    Mask<T, N> c;
    for (int i = 0; i < Mask<T, N>::kRegs; ++i) c.reg[i] = f(a.reg[i], b.reg[i]);
    return c;
}
template <typename T, int N>
inline Mask<T, N> operator&(Mask<T, N> a, Mask<T, N> b) {
    return eachReg(a, b, Mask<T, N>::Ops::bitAnd);
}
template <typename T, int N>
inline Mask<T, N> operator|(Mask<T, N> a, Mask<T, N> b) {
    return eachReg(a, b, Mask<T, N>::Ops::bitOr);
}
template <typename T, int N>
inline Mask<T, N> operator^(Mask<T, N> a, Mask<T, N> b) {
    return eachReg(a, b, Mask<T, N>::Ops::bitXor);
}
// a & !b
template <typename T, int N>
inline Mask<T, N> andNot(Mask<T, N> a, Mask<T, N> b) {
    return eachReg(b, a, Mask<T, N>::Ops::andNot);
}

// ---- Vectors ---------------------------------------------------------------

// N lanes of T: float, double or int.
template <typename T, int N>
struct Lanes {
    using Ops = typename OpsFor<T, N>::type;
    using R = typename Ops::R;
    static constexpr int kPerReg = Ops::kLanes;
    static constexpr int kRegs = N / kPerReg;
    R reg[kRegs];

    Lanes() = default;
    // Every lane x, so that a scalar mixes with lanes as in scalar code.
    Lanes(T x) {
        for (R& r : reg) r = Ops::splat(x);
    }

    static Lanes load(const T* p) {
        Lanes v;
        for (int i = 0; i < kRegs; ++i) v.reg[i] = Ops::load(p + i * kPerReg);
        return v;
    }
    static Lanes loadUnaligned(const T* p) {
        Lanes v;
        for (int i = 0; i < kRegs; ++i) v.reg[i] = Ops::loadUnaligned(p + i * kPerReg);
        return v;
    }
    void store(T* p) const {
        for (int i = 0; i < kRegs; ++i) Ops::store(p + i * kPerReg, reg[i]);
    }
    void storeUnaligned(T* p) const {
        for (int i = 0; i < kRegs; ++i) Ops::storeUnaligned(p + i * kPerReg, reg[i]);
    }
    // Lanes in rows of four, each row `stride` elements after the last
    // (16-byte aligned): lane 4j + i is p[j * stride + i].
    static Lanes loadRows(const T* p, int stride) {
        Lanes v;
        for (int i = 0; i < kRegs; ++i)
            v.reg[i] = Ops::loadQuads(p + i * kPerReg / 4 * stride, stride);
        return v;
    }
    void storeRows(T* p, int stride) const {
        for (int i = 0; i < kRegs; ++i)
            Ops::storeQuads(p + i * kPerReg / 4 * stride, stride, reg[i]);
    }
};

template <int N>
using Floats = Lanes<float, N>;
template <int N>
using Doubles = Lanes<double, N>;
template <int N>
using Ints = Lanes<int, N>;

template <typename T, int N, typename F>
inline Lanes<T, N> eachReg(Lanes<T, N> a, Lanes<T, N> b, F f) {
    Lanes<T, N> c;
    for (int i = 0; i < Lanes<T, N>::kRegs; ++i) c.reg[i] = f(a.reg[i], b.reg[i]);
    return c;
}
template <typename T, int N, typename F>
inline Mask<T, N> compareRegs(Lanes<T, N> a, Lanes<T, N> b, F f) {
    Mask<T, N> c;
    for (int i = 0; i < Lanes<T, N>::kRegs; ++i) c.reg[i] = f(a.reg[i], b.reg[i]);
    return c;
}

template <typename T, int N>
inline Lanes<T, N> operator+(Lanes<T, N> a, Lanes<T, N> b) {
    return eachReg(a, b, Lanes<T, N>::Ops::add);
}
template <typename T, int N>
inline Lanes<T, N> operator-(Lanes<T, N> a, Lanes<T, N> b) {
    return eachReg(a, b, Lanes<T, N>::Ops::sub);
}
template <typename T, int N>
inline Lanes<T, N> operator*(Lanes<T, N> a, Lanes<T, N> b) {
    return eachReg(a, b, Lanes<T, N>::Ops::mul);
}
template <typename T, int N>
inline Lanes<T, N> operator/(Lanes<T, N> a, Lanes<T, N> b) {
    return eachReg(a, b, Lanes<T, N>::Ops::div);
}
// Scalars on either side broadcast.
template <typename T, int N>
inline Lanes<T, N> operator+(Lanes<T, N> a, T b) {
    return a + Lanes<T, N>(b);
}
template <typename T, int N>
inline Lanes<T, N> operator+(T a, Lanes<T, N> b) {
    return Lanes<T, N>(a) + b;
}
template <typename T, int N>
inline Lanes<T, N> operator-(Lanes<T, N> a, T b) {
    return a - Lanes<T, N>(b);
}
template <typename T, int N>
inline Lanes<T, N> operator-(T a, Lanes<T, N> b) {
    return Lanes<T, N>(a) - b;
}
template <typename T, int N>
inline Lanes<T, N> operator*(Lanes<T, N> a, T b) {
    return a * Lanes<T, N>(b);
}
template <typename T, int N>
inline Lanes<T, N> operator*(T a, Lanes<T, N> b) {
    return Lanes<T, N>(a) * b;
}
template <typename T, int N>
inline Lanes<T, N> operator/(T a, Lanes<T, N> b) {
    return Lanes<T, N>(a) / b;
}

// The sign bit alone in every lane.
template <typename T, int N>
inline Lanes<T, N> signBits() {
    return Lanes<T, N>(T(-0.0));
}
// The sign bit flipped, as scalar negation does (NaN included).
template <typename T, int N>
inline Lanes<T, N> operator-(Lanes<T, N> a) {
    return eachReg(a, signBits<T, N>(), Lanes<T, N>::Ops::bitXor);
}
template <typename T, int N>
inline Lanes<T, N> magnitude(Lanes<T, N> a) {
    return eachReg(signBits<T, N>(), a, Lanes<T, N>::Ops::andNot);
}
// a < b ? a : b and a > b ? a : b, lane by lane: a NaN in either gives b.
template <typename T, int N>
inline Lanes<T, N> min(Lanes<T, N> a, Lanes<T, N> b) {
    return eachReg(a, b, Lanes<T, N>::Ops::min);
}
template <typename T, int N>
inline Lanes<T, N> max(Lanes<T, N> a, Lanes<T, N> b) {
    return eachReg(a, b, Lanes<T, N>::Ops::max);
}
template <typename T, int N>
inline Lanes<T, N> sqrt(Lanes<T, N> a) {
    Lanes<T, N> c;
    for (int i = 0; i < Lanes<T, N>::kRegs; ++i) c.reg[i] = Lanes<T, N>::Ops::sqrt(a.reg[i]);
    return c;
}

// The processor's estimate of 1 / sqrt(a), good to about 12 bits.
template <int N>
inline Floats<N> reciprocalSqrtEstimate(Floats<N> a) {
    Floats<N> c;
    for (int i = 0; i < Floats<N>::kRegs; ++i) c.reg[i] = Floats<N>::Ops::rsqrt(a.reg[i]);
    return c;
}

template <typename T, int N>
inline Mask<T, N> operator<(Lanes<T, N> a, Lanes<T, N> b) {
    return compareRegs(a, b, Lanes<T, N>::Ops::lt);
}
template <typename T, int N>
inline Mask<T, N> operator>(Lanes<T, N> a, Lanes<T, N> b) {
    return b < a;
}
template <typename T, int N>
inline Mask<T, N> operator<=(Lanes<T, N> a, Lanes<T, N> b) {
    return compareRegs(a, b, Lanes<T, N>::Ops::le);
}
template <typename T, int N>
inline Mask<T, N> operator>=(Lanes<T, N> a, Lanes<T, N> b) {
    return b <= a;
}
template <typename T, int N>
inline Mask<T, N> operator==(Lanes<T, N> a, Lanes<T, N> b) {
    return compareRegs(a, b, Lanes<T, N>::Ops::eq);
}
template <typename T, int N>
inline Mask<T, N> operator==(Lanes<T, N> a, T b) {
    return a == Lanes<T, N>(b);
}
template <typename T, int N>
inline Mask<T, N> operator<(Lanes<T, N> a, T b) {
    return a < Lanes<T, N>(b);
}
template <typename T, int N>
inline Mask<T, N> operator>(Lanes<T, N> a, T b) {
    return a > Lanes<T, N>(b);
}
template <typename T, int N>
inline Mask<T, N> operator<=(Lanes<T, N> a, T b) {
    return a <= Lanes<T, N>(b);
}
template <typename T, int N>
inline Mask<T, N> operator>=(Lanes<T, N> a, T b) {
    return a >= Lanes<T, N>(b);
}

// !(a > b) in one step: true where a is not greater than b, or either is
// a NaN.
template <int N>
inline Mask<float, N> notGreater(Floats<N> a, Floats<N> b) {
    return compareRegs(a, b, Floats<N>::Ops::notGreater);
}
template <int N>
inline Mask<float, N> notGreater(Floats<N> a, float b) {
    return notGreater(a, Floats<N>(b));
}

// Per lane: ifTrue where the mask is true, ifFalse elsewhere.
template <typename T, int N>
inline Lanes<T, N> select(Mask<T, N> m, Lanes<T, N> ifTrue, Lanes<T, N> ifFalse) {
    using Ops = typename Mask<T, N>::Ops;
    Lanes<T, N> c;
    for (int i = 0; i < Lanes<T, N>::kRegs; ++i)
        c.reg[i] =
            Ops::bitOr(Ops::bitAnd(m.reg[i], ifTrue.reg[i]), Ops::andNot(m.reg[i], ifFalse.reg[i]));
    return c;
}
// Lanes where the mask is true keep a; the others become +0.0.
template <typename T, int N>
inline Lanes<T, N> keepWhere(Mask<T, N> m, Lanes<T, N> a) {
    Lanes<T, N> c;
    for (int i = 0; i < Lanes<T, N>::kRegs; ++i)
        c.reg[i] = Mask<T, N>::Ops::bitAnd(m.reg[i], a.reg[i]);
    return c;
}

// Lanes where the mask is true become +0.0; the others keep a.
template <typename T, int N>
inline Lanes<T, N> clearWhere(Mask<T, N> m, Lanes<T, N> a) {
    Lanes<T, N> c;
    for (int i = 0; i < Lanes<T, N>::kRegs; ++i)
        c.reg[i] = Mask<T, N>::Ops::andNot(m.reg[i], a.reg[i]);
    return c;
}
// Lanes where the mask is true get their sign bit flipped.
template <typename T, int N>
inline Lanes<T, N> negateWhere(Mask<T, N> m, Lanes<T, N> a) {
    return eachReg(a, keepWhere(m, signBits<T, N>()), Lanes<T, N>::Ops::bitXor);
}

// Four lanes from four values, lane 0 first.
inline Floats<4> floats(float a, float b, float c, float d) {
    Floats<4> v;
    v.reg[0] = Floats<4>::Ops::set(a, b, c, d);
    return v;
}

// The x, y and z planes of four vectors stored as three consecutive floats
// each, lane i from p[i]. Reads exactly three floats per vector, so the last
// vector of an array is safe to gather.
inline void gatherXyz(const float* const p[4], Floats<4> planes[3]) {
    __m128 v[4];
    for (int i = 0; i < 4; ++i)
        v[i] = _mm_movelh_ps(_mm_loadl_pi(_mm_setzero_ps(), reinterpret_cast<const __m64*>(p[i])),
                             _mm_load_ss(p[i] + 2));
    _MM_TRANSPOSE4_PS(v[0], v[1], v[2], v[3]);
    for (int k = 0; k < 3; ++k) planes[k].reg[0] = v[k];
}

// a with its sign flipped where b's sign bit is set: a times the sign of b.
template <typename T, int N>
inline Lanes<T, N> mulSign(Lanes<T, N> a, Lanes<T, N> b) {
    return eachReg(a, eachReg(b, signBits<T, N>(), Lanes<T, N>::Ops::bitAnd),
                   Lanes<T, N>::Ops::bitXor);
}

// ---- Quads ---------------------------------------------------------------------
// Four lanes at a time of a wider vector, and in double precision.

// Lanes 4q to 4q + 3.
inline Floats<4> quad(Floats<4> v, int) {
    return v;
}
inline Floats<4> quad(Floats<8> v, int q) {
    Floats<4> c;
#if defined(__AVX2__)
    c.reg[0] = q ? _mm256_extractf128_ps(v.reg[0], 1) : _mm256_castps256_ps128(v.reg[0]);
#else
    c.reg[0] = v.reg[q];
#endif
    return c;
}

// Eight lanes from two quads, low lanes first.
inline Floats<8> joinQuads(Floats<4> low, Floats<4> high) {
    Floats<8> c;
#if defined(__AVX2__)
    c.reg[0] = _mm256_insertf128_ps(_mm256_castps128_ps256(low.reg[0]), high.reg[0], 1);
#else
    c.reg[0] = low.reg[0];
    c.reg[1] = high.reg[0];
#endif
    return c;
}

// Exact: every float is a double.
inline Doubles<4> toDoubles(Floats<4> v) {
    Doubles<4> c;
#if defined(__AVX2__)
    c.reg[0] = _mm256_cvtps_pd(v.reg[0]);
#else
    c.reg[0] = _mm_cvtps_pd(v.reg[0]);
    c.reg[1] = _mm_cvtps_pd(_mm_movehl_ps(v.reg[0], v.reg[0]));
#endif
    return c;
}

// Rounded to the nearest float, as a scalar conversion rounds.
inline Floats<4> toFloats(Doubles<4> v) {
    Floats<4> c;
#if defined(__AVX2__)
    c.reg[0] = _mm256_cvtpd_ps(v.reg[0]);
#else
    c.reg[0] = _mm_movelh_ps(_mm_cvtpd_ps(v.reg[0]), _mm_cvtpd_ps(v.reg[1]));
#endif
    return c;
}

// True where a and b hold the same bits (unlike ==, which takes -0.0 for
// +0.0 and never a NaN for itself).
inline Mask<float, 4> sameBits(Floats<4> a, Floats<4> b) {
    Mask<float, 4> m;
    m.reg[0] =
        _mm_castsi128_ps(_mm_cmpeq_epi32(_mm_castps_si128(a.reg[0]), _mm_castps_si128(b.reg[0])));
    return m;
}

// ---- Int lanes ---------------------------------------------------------------
// Their masks are those of float lanes, so that they combine.

template <int N>
inline Mask<float, N> operator==(Ints<N> a, Ints<N> b) {
    Mask<float, N> m;
    for (int i = 0; i < Ints<N>::kRegs; ++i)
        m.reg[i] = Ints<N>::Ops::asMask(Ints<N>::Ops::eq(a.reg[i], b.reg[i]));
    return m;
}
template <int N>
inline Mask<float, N> operator<(Ints<N> a, Ints<N> b) {
    Mask<float, N> m;
    for (int i = 0; i < Ints<N>::kRegs; ++i)
        m.reg[i] = Ints<N>::Ops::asMask(Ints<N>::Ops::lt(a.reg[i], b.reg[i]));
    return m;
}
template <int N>
inline Ints<N> select(Mask<float, N> m, Ints<N> ifTrue, Ints<N> ifFalse) {
    using Ops = typename Mask<float, N>::Ops;
    Ints<N> c;
    for (int i = 0; i < Ints<N>::kRegs; ++i)
        c.reg[i] = Ints<N>::Ops::fromMask(
            Ops::bitOr(Ops::bitAnd(m.reg[i], Ints<N>::Ops::asMask(ifTrue.reg[i])),
                       Ops::andNot(m.reg[i], Ints<N>::Ops::asMask(ifFalse.reg[i]))));
    return c;
}

// True in the lanes whose bit is set in `lanes` (bit i: lane i).
template <int N>
inline Mask<float, N> laneMask(int lanes) {
    Mask<float, N> m;
    for (int i = 0; i < Mask<float, N>::kRegs; ++i)
        m.reg[i] =
            Ints<N>::Ops::asMask(Ints<N>::Ops::laneBits(lanes >> (i * Mask<float, N>::kPerReg)));
    return m;
}

}  // namespace lanes
}  // namespace KEL_ISA
}  // namespace kel

#endif  // KEL_CORE_LANES_H
