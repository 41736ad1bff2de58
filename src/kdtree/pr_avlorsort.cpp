// Stable least-significant-digit radix sort of float keys, used by the PSAH
// split search for large nodes. Floats are turned into unsigned keys whose
// integer order is the float order, sorted by three digits of 11, 11 and 10
// bits (each histogram stays inside the first-level cache), and turned back.
#include <emmintrin.h>

#include "kdtree/psah.h"

namespace {

// The arrays hold floats on entry and exit but keys in between; reading them
// through this type keeps every access a plain 32-bit move.
typedef uint32_t __attribute__((may_alias)) Word;

constexpr uint32_t kSignBit = 0x80000000u;
constexpr int kDigitShift[3] = {0, 11, 22};
constexpr uint32_t kDigitMask[3] = {0x7FF, 0x7FF, 0x3FF};
constexpr int kDigitBuckets[3] = {2048, 2048, 1024};
constexpr int kHistogramWords = 3 * 2048;

// Negative floats have all bits flipped so that larger magnitudes sort
// first; non-negative ones only gain the top bit so they follow.
inline uint32_t keyOf(uint32_t bits) {
    return bits ^ (uint32_t(int32_t(bits) >> 31) | kSignBit);
}

inline uint32_t bitsOfKey(uint32_t key) {
    return key ^ (~uint32_t(int32_t(key) >> 31) | kSignBit);
}

struct Histograms {
    uint32_t count[3][2048];
};

inline void countDigits(Histograms* h, uint32_t key) {
    for (int d = 0; d < 3; ++d) ++h->count[d][(key >> kDigitShift[d]) & kDigitMask[d]];
}

// Running sums that start at -1: placing an element pre-increments its
// bucket's slot and stores there.
void countsToSlots(Histograms* h) {
    for (int d = 0; d < 3; ++d) {
        uint32_t slot = 0xFFFFFFFFu;
        for (int b = 0; b < kDigitBuckets[d]; ++b) {
            uint32_t c = h->count[d][b];
            h->count[d][b] = slot;
            slot += c;
        }
    }
}

// One stable scatter pass by digit d; finish maps each key as it is stored.
template <typename Finish>
void scatterByDigit(const Word* src, Word* dst, uint32_t n, Histograms* h, int d, Finish finish) {
    uint32_t* slots = h->count[d];
    for (uint32_t i = 0; i < n; ++i) {
        uint32_t key = src[i];
        dst[++slots[(key >> kDigitShift[d]) & kDigitMask[d]]] = finish(key);
    }
}

inline uint32_t keepKey(uint32_t key) {
    return key;
}

void clearHistograms(Histograms* h) {
    kelsZero_32s(reinterpret_cast<int32_t*>(h->count), kHistogramWords);
}

// Digits 0 and 1 go data -> buffer -> data; the last pass lands in buffer.
template <typename Finish>
void scatterAllDigits(Word* data, Word* buffer, uint32_t n, Histograms* h, Finish lastFinish) {
    countsToSlots(h);
    scatterByDigit(data, buffer, n, h, 0, keepKey);
    scatterByDigit(buffer, data, n, h, 1, keepKey);
    scatterByDigit(data, buffer, n, h, 2, lastFinish);
}

constexpr int kBlock = 16;
// Far enough ahead to hide memory latency for a streaming pass.
constexpr int kPrefetchBytes = 512;

inline void prefetchAhead(const Word* p) {
    _mm_prefetch(reinterpret_cast<const char*>(p) + kPrefetchBytes, _MM_HINT_T0);
}

inline __m128i keysOf(__m128i bits) {
    __m128i mask = _mm_or_si128(_mm_srai_epi32(bits, 31), _mm_set1_epi32(int(kSignBit)));
    return _mm_xor_si128(bits, mask);
}

// The signed "greater than zero" test stands in for "top bit clear": it
// differs only for key 0 (input 0xFFFFFFFF, a negative NaN), which comes back
// as -0.0. The difference is accepted.
inline __m128i bitsOfKeys(__m128i keys) {
    __m128i positive = _mm_cmpgt_epi32(keys, _mm_setzero_si128());
    return _mm_xor_si128(keys, _mm_or_si128(positive, _mm_set1_epi32(int(kSignBit))));
}

// Transforms 16 floats to keys in place and counts their digits.
void keyBlock(Word* data, Histograms* h) {
    alignas(16) uint32_t keys[kBlock];
    for (int q = 0; q < kBlock; q += 4) {
        __m128i* p = reinterpret_cast<__m128i*>(data + q);
        __m128i k = keysOf(_mm_load_si128(p));
        _mm_store_si128(p, k);
        _mm_store_si128(reinterpret_cast<__m128i*>(keys + q), k);
    }
    for (int e = 0; e < kBlock; ++e) countDigits(h, keys[e]);
}

// Restores 16 floats from keys into both arrays.
void restoreBlock(Word* buffer, Word* data) {
    for (int q = 0; q < kBlock; q += 4) {
        __m128i* src = reinterpret_cast<__m128i*>(buffer + q);
        __m128i bits = bitsOfKeys(_mm_load_si128(src));
        _mm_store_si128(reinterpret_cast<__m128i*>(data + q), bits);
        _mm_store_si128(src, bits);
    }
}

}  // namespace

extern "C" {

KEL_API KelStatus ownRadixSortAccend_32f_w7(float* pData, float* pBuffer, uint32_t n) {
    Word* data = reinterpret_cast<Word*>(pData);
    Word* buffer = reinterpret_cast<Word*>(pBuffer);
    const uint32_t blocked = n & ~uint32_t(kBlock - 1);

    Histograms h;
    clearHistograms(&h);
    for (uint32_t i = 0; i < blocked; i += kBlock) {
        prefetchAhead(data + i);
        keyBlock(data + i, &h);
    }
    for (uint32_t i = blocked; i < n; ++i) {
        data[i] = keyOf(data[i]);
        countDigits(&h, data[i]);
    }

    scatterAllDigits(data, buffer, n, &h, keepKey);

    for (uint32_t i = 0; i < blocked; i += kBlock) {
        prefetchAhead(buffer + i);
        restoreBlock(buffer + i, data + i);
    }
    for (uint32_t i = blocked; i < n; ++i) {
        buffer[i] = bitsOfKey(buffer[i]);
        data[i] = buffer[i];
    }
    return KEL_STS_OK;
}

KEL_API KelStatus ownRadixSortAccend_32f_px(float* pData, float* pBuffer, uint32_t n) {
    Word* data = reinterpret_cast<Word*>(pData);
    Word* buffer = reinterpret_cast<Word*>(pBuffer);

    Histograms h;
    clearHistograms(&h);
    for (uint32_t i = 0; i < n; ++i) {
        data[i] = keyOf(data[i]);
        countDigits(&h, data[i]);
    }
    scatterAllDigits(data, buffer, n, &h, bitsOfKey);
    // An empty sort asks for a zero-length copy, which is refused; nothing
    // needs copying then.
    kelsCopy_32f(pBuffer, pData, int(n));
    return KEL_STS_OK;
}
}
