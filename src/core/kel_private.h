// Library-wide private declarations: layout checks of the public records,
// the tuned byte kernels, and small helpers every subsystem uses.
#ifndef KEL_PRIVATE_H
#define KEL_PRIVATE_H

#include <stddef.h>
#include <stdint.h>

#include "kelr.h"

// The public records are caller-visible memory: their layout is part of the
// ABI. A word that holds a pointer is pointer-sized; everything else is the
// same on both targets.
static_assert(sizeof(int) == 4, "int must be 32 bits");
static_assert(sizeof(KelStatus) == 4, "status is a 32-bit word");
static_assert(sizeof(KDTreeNode) == 8, "tree nodes are two words");
static_assert(offsetof(KDTreeNode, data) == 4, "");
static_assert(sizeof(TriangleAccel) == 48, "accelerator records are 48 bytes");
static_assert(offsetof(TriangleAccel, nu) == 4 && offsetof(TriangleAccel, ck) == 8 &&
                  offsetof(TriangleAccel, nv) == 12 && offsetof(TriangleAccel, cu) == 16 &&
                  offsetof(TriangleAccel, cv) == 20 && offsetof(TriangleAccel, e2u) == 24 &&
                  offsetof(TriangleAccel, e2v) == 28 && offsetof(TriangleAccel, e1u) == 32 &&
                  offsetof(TriangleAccel, e1v) == 36 && offsetof(TriangleAccel, triangle) == 40 &&
                  offsetof(TriangleAccel, reserved) == 44,
              "accelerator record layout");
static_assert(offsetof(KDTreeBuildContext, maxDepth) == 4 &&
                  offsetof(KDTreeBuildContext, psahWeight) == 8 &&
                  offsetof(KDTreeBuildContext, memoryMiB) == 12 &&
                  offsetof(KDTreeBuildContext, clipBox) == 16,
              "build context: clipBox follows four 32-bit words");
static_assert(sizeof(IntersectContext) == 3 * sizeof(void*), "three pointers");
static_assert(offsetof(IntersectContext, triangleAccel) == sizeof(void*) &&
                  offsetof(IntersectContext, tree) == 2 * sizeof(void*),
              "context order: box, accelerator, tree");
static_assert(offsetof(KelLibraryVersion, cpuCode) == 16 &&
                  offsetof(KelLibraryVersion, libraryName) == 16 + sizeof(void*),
              "version record layout");
#if defined(__i386__)
static_assert(sizeof(KDTreeBuildContext) == 20 && sizeof(IntersectContext) == 12 &&
                  sizeof(KelLibraryVersion) == 32,
              "32-bit record sizes");
#else
static_assert(sizeof(KDTreeBuildContext) == 24 && sizeof(IntersectContext) == 24 &&
                  sizeof(KelLibraryVersion) == 48,
              "64-bit record sizes");
#endif

extern "C" {
// Byte kernels behind kelsCopy_*/kelsZero_32s; they return the destination.
// Source and destination must not overlap; ownsZero_8u needs n >= 1.
KEL_API void* ownsCopy_8u(const void* pSrc, void* pDst, int n);
KEL_API void* ownsZero_8u(void* pDst, int n);
}

namespace kel {

inline bool isAligned16(const void* p) {
    return (reinterpret_cast<uintptr_t>(p) & 15) == 0;
}

// True when every plane of the triple is 16-byte aligned.
template <typename T>
inline bool planesAligned16(T* const* planes, int count = 3) {
    for (int k = 0; k < count; ++k)
        if (!isAligned16(planes[k])) return false;
    return true;
}

inline uint32_t bitsOf(float f) {
    return __builtin_bit_cast(uint32_t, f);
}
inline float floatOf(uint32_t u) {
    return __builtin_bit_cast(float, u);
}

}  // namespace kel

#endif  // KEL_PRIVATE_H
