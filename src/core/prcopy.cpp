// Vector copy and zero: the exported element routines and the byte kernels
// behind them. Short counts use overlapping stores instead of loops, middle
// counts 64-byte vector loops, and blocks too large for the last-level cache
// go around it with non-temporal stores.
#include <emmintrin.h>

#include "core/cachesize.h"
#include "core/kel_private.h"

namespace {

typedef uint16_t Unaligned16 __attribute__((aligned(1), may_alias));
typedef uint32_t Unaligned32 __attribute__((aligned(1), may_alias));

template <bool Aligned>
inline __m128i loadVector(const uint8_t* p) {
    const __m128i* v = reinterpret_cast<const __m128i*>(p);
    return Aligned ? _mm_load_si128(v) : _mm_loadu_si128(v);
}

inline __m128i* vectorAt(uint8_t* p) {
    return reinterpret_cast<__m128i*>(p);
}

// One piece of 1 to 32 bytes at any alignment.
template <uint32_t Bytes>
inline void copyPiece(const uint8_t* src, uint8_t* dst) {
    if constexpr (Bytes == 1) {
        *dst = *src;
    } else if constexpr (Bytes == 2) {
        *reinterpret_cast<Unaligned16*>(dst) = *reinterpret_cast<const Unaligned16*>(src);
    } else if constexpr (Bytes == 4) {
        *reinterpret_cast<Unaligned32*>(dst) = *reinterpret_cast<const Unaligned32*>(src);
    } else if constexpr (Bytes == 8) {
        _mm_storel_epi64(vectorAt(dst), _mm_loadl_epi64(reinterpret_cast<const __m128i*>(src)));
    } else if constexpr (Bytes == 16) {
        _mm_storeu_si128(vectorAt(dst), loadVector<false>(src));
    } else {
        static_assert(Bytes == 32, "pieces are powers of two up to 32 bytes");
        copyPiece<16>(src, dst);
        copyPiece<16>(src + 16, dst + 16);
    }
}

template <uint32_t Bytes>
inline void zeroPiece(uint8_t* dst) {
    if constexpr (Bytes == 1) {
        *dst = 0;
    } else if constexpr (Bytes == 2) {
        *reinterpret_cast<Unaligned16*>(dst) = 0;
    } else if constexpr (Bytes == 4) {
        *reinterpret_cast<Unaligned32*>(dst) = 0;
    } else {
        static_assert(Bytes == 8, "zero pieces are powers of two up to 8 bytes");
        _mm_storel_epi64(vectorAt(dst), _mm_setzero_si128());
    }
}

// Forward piece: copies Bytes when that bit of n is set and moves past it.
template <uint32_t Bytes>
inline void copyPieceIf(uint32_t n, const uint8_t*& src, uint8_t*& dst) {
    if (n & Bytes) {
        copyPiece<Bytes>(src, dst);
        src += Bytes;
        dst += Bytes;
    }
}

// Backward piece: the pointers are the ends of what is left to copy.
template <uint32_t Bytes>
inline void copyPieceBackIf(uint32_t n, const uint8_t*& srcEnd, uint8_t*& dstEnd) {
    if (n & Bytes) {
        srcEnd -= Bytes;
        dstEnd -= Bytes;
        copyPiece<Bytes>(srcEnd, dstEnd);
    }
}

template <uint32_t Bytes>
inline void zeroPieceIf(uint32_t n, uint8_t*& dst) {
    if (n & Bytes) {
        zeroPiece<Bytes>(dst);
        dst += Bytes;
    }
}

// Fewer than 64 bytes: the last word first, then whole words from the end, the
// first of which may overlap it. No loop runs more than 15 times.
void copySmall(const uint8_t* src, uint8_t* dst, uint32_t n) {
    if (n < 4) {
        while (n > 0) {
            --n;
            dst[n] = src[n];
        }
        return;
    }
    copyPiece<4>(src + n - 4, dst + n - 4);
    for (int word = int((n - 1) / 4) - 1; word >= 0; --word)
        copyPiece<4>(src + 4 * word, dst + 4 * word);
}

// The destination is 16-byte aligned; the source is when AlignedSource is.
template <bool AlignedSource>
inline void copyBlock64(const uint8_t* src, uint8_t* dst) {
    __m128i a = loadVector<AlignedSource>(src);
    __m128i b = loadVector<AlignedSource>(src + 16);
    __m128i c = loadVector<AlignedSource>(src + 32);
    __m128i d = loadVector<AlignedSource>(src + 48);
    _mm_store_si128(vectorAt(dst), a);
    _mm_store_si128(vectorAt(dst + 16), b);
    _mm_store_si128(vectorAt(dst + 32), c);
    _mm_store_si128(vectorAt(dst + 48), d);
}

// Whole 64-byte blocks from the start; the pointers end past them.
template <bool AlignedSource>
void copyBlocksForward(const uint8_t*& src, uint8_t*& dst, uint32_t n) {
    for (uint32_t blocks = n / 64; blocks > 0; --blocks) {
        copyBlock64<AlignedSource>(src, dst);
        src += 64;
        dst += 64;
    }
}

void copyAlignedForward(const uint8_t* src, uint8_t* dst, uint32_t n) {
    copyBlocksForward<true>(src, dst, n);
    copyPieceIf<32>(n, src, dst);
    copyPieceIf<16>(n, src, dst);
    copyPieceIf<8>(n, src, dst);
    copyPieceIf<4>(n, src, dst);
    copyPieceIf<2>(n, src, dst);
    copyPieceIf<1>(n, src, dst);
}

// The tail pieces come first, so what remains at the front is whole blocks.
void copyAlignedBackward(const uint8_t* src, uint8_t* dst, uint32_t n) {
    const uint8_t* srcEnd = src + n;
    uint8_t* dstEnd = dst + n;
    copyPieceBackIf<1>(n, srcEnd, dstEnd);
    copyPieceBackIf<2>(n, srcEnd, dstEnd);
    copyPieceBackIf<4>(n, srcEnd, dstEnd);
    copyPieceBackIf<8>(n, srcEnd, dstEnd);
    copyPieceBackIf<16>(n, srcEnd, dstEnd);
    copyPieceBackIf<32>(n, srcEnd, dstEnd);
    for (uint32_t blocks = n / 64; blocks > 0; --blocks) {
        srcEnd -= 64;
        dstEnd -= 64;
        copyBlock64<true>(srcEnd, dstEnd);
    }
}

// One read per 64-byte line, from the end, so that the whole block is in the
// cache before the loads that feed the streaming stores run over it.
void touchLines(const uint8_t* src, uint32_t bytes) {
    for (int32_t offset = int32_t(bytes) - 1; offset >= 0; offset -= 64)
        (void)*reinterpret_cast<const volatile uint8_t*>(src + offset);
}

template <bool AlignedSource>
void streamCopy(const uint8_t* src, uint8_t* dst, uint32_t n) {
    while (n >= 16) {
        uint32_t block = n < kel::kStreamBlock ? n & ~15u : kel::kStreamBlock;
        touchLines(src, block);
        for (uint32_t offset = 0; offset < block; offset += 16)
            _mm_stream_si128(vectorAt(dst + offset), loadVector<AlignedSource>(src + offset));
        src += block;
        dst += block;
        n -= block;
    }
    _mm_sfence();
    copySmall(src, dst, n);
}

bool copyShouldStream(uint32_t n) {
    return n >= kel::kStreamingFloor && kel::copyStreams(n, kel::queryCacheSize());
}

bool zeroShouldStream(uint32_t n) {
    return n > kel::kStreamingFloor && kel::zeroStreams(n, kel::queryCacheSize());
}

// Fewer than 16 bytes, as at most two overlapping stores.
void zeroSmall(uint8_t* dst, uint32_t n) {
    if (n >= 8) {
        if (n > 8) zeroPiece<8>(dst);
        zeroPiece<8>(dst + n - 8);
    } else if (n >= 4) {
        if (n > 4) zeroPiece<4>(dst);
        zeroPiece<4>(dst + n - 4);
    } else {
        while (n > 0) dst[--n] = 0;
    }
}

// The destination is 16-byte aligned.
void zeroAligned(uint8_t* dst, uint32_t n) {
    const __m128i zero = _mm_setzero_si128();
    for (uint32_t blocks = n / 64; blocks > 0; --blocks) {
        _mm_store_si128(vectorAt(dst), zero);
        _mm_store_si128(vectorAt(dst + 16), zero);
        _mm_store_si128(vectorAt(dst + 32), zero);
        _mm_store_si128(vectorAt(dst + 48), zero);
        dst += 64;
    }
    for (uint32_t vectors = (n & 63) / 16; vectors > 0; --vectors) {
        _mm_store_si128(vectorAt(dst), zero);
        dst += 16;
    }
    zeroSmall(dst, n & 15);
}

void streamZero(uint8_t* dst, uint32_t n) {
    const __m128i zero = _mm_setzero_si128();
    for (uint32_t vectors = n / 16; vectors > 0; --vectors) {
        _mm_stream_si128(vectorAt(dst), zero);
        dst += 16;
    }
    _mm_sfence();
    zeroSmall(dst, n & 15);
}

// kelsCopy_32f and kelsCopy_32s differ only in the element type.
template <typename T>
KelStatus copyElements(const T* pSrc, T* pDst, int len) {
    if (!pSrc || !pDst) return KEL_STS_NULL_PTR;
    if (len < 1) return KEL_STS_SIZE;
    ownsCopy_8u(pSrc, pDst, int(uint32_t(len) * 4));
    return KEL_STS_OK;
}

}  // namespace

extern "C" {

KEL_API void* ownsCopy_8u(const void* pSrc, void* pDst, int len) {
    const uint8_t* src = static_cast<const uint8_t*>(pSrc);
    uint8_t* dst = static_cast<uint8_t*>(pDst);
    uint32_t n = uint32_t(len);
    if (n < 64) {
        copySmall(src, dst, n);
        return pDst;
    }
    // Align the destination with one unaligned 16-byte piece that may overlap
    // the first aligned block.
    bool headLeftSourceAligned = false;
    if (!kel::isAligned16(dst)) {
        copyPiece<16>(src, dst);
        uint32_t step = 16 - uint32_t(uintptr_t(dst) & 15);
        src += step;
        dst += step;
        n -= step;
        if (n < 64) {
            copySmall(src, dst, n);
            return pDst;
        }
        headLeftSourceAligned = kel::isAligned16(src);
    }
    if (!headLeftSourceAligned && copyShouldStream(n)) {
        if (kel::isAligned16(src))
            streamCopy<true>(src, dst, n);
        else
            streamCopy<false>(src, dst, n);
        return pDst;
    }
    if (!kel::isAligned16(src)) {
        copyBlocksForward<false>(src, dst, n);
        copySmall(src, dst, n & 63);
    } else if (kel::copyForward(uintptr_t(src), uintptr_t(dst), n)) {
        copyAlignedForward(src, dst, n);
    } else {
        copyAlignedBackward(src, dst, n);
    }
    return pDst;
}

KEL_API void* ownsZero_8u(void* pDst, int len) {
    uint8_t* dst = static_cast<uint8_t*>(pDst);
    uint32_t n = uint32_t(len);
    if (n < 16) {
        zeroSmall(dst, n);
        return pDst;
    }
    // The bits of the distance to the next boundary are the piece sizes.
    uint32_t gap = (16 - uint32_t(uintptr_t(dst) & 15)) & 15;
    zeroPieceIf<1>(gap, dst);
    zeroPieceIf<2>(gap, dst);
    zeroPieceIf<4>(gap, dst);
    zeroPieceIf<8>(gap, dst);
    n -= gap;
    if (zeroShouldStream(n))
        streamZero(dst, n);
    else
        zeroAligned(dst, n);
    return pDst;
}

KEL_API KelStatus kelsCopy_32f(const float* pSrc, float* pDst, int len) {
    return copyElements(pSrc, pDst, len);
}

KEL_API KelStatus kelsCopy_32s(const int32_t* pSrc, int32_t* pDst, int len) {
    return copyElements(pSrc, pDst, len);
}

KEL_API KelStatus kelsZero_32s(int32_t* pDst, int len) {
    if (!pDst) return KEL_STS_NULL_PTR;
    if (len < 1) return KEL_STS_SIZE;
    ownsZero_8u(pDst, int(uint32_t(len) * 4));
    return KEL_STS_OK;
}
}
