// Build entry points: argument checks, then the chosen builder.
#include "kdtree/psah.h"

namespace {

constexpr int kMaxDepth = 50;  // the traversal stack of the intersection holds 50 entries

// 32 MiB, in the half-byte units of the budget check (MiB << 19): below this
// the PSAH build cannot carve its fixed work areas.
constexpr uint32_t kPsahMinimumHalfBudget = 0x1000000;

inline bool depthInRange(int depth) {
    return depth >= 0 && depth <= kMaxDepth;
}

// A NaN weight fails the first comparison and is refused with the rest.
inline bool weightInRange(float weight) {
    return weight >= 0.0f && !(weight > 1.0f);
}

KelStatus buildPsah(KDTreeNode** ppTree, const float* pVertices, const int* pTriangles,
                    int vertexCount, int triangleCount, int* pTreeSize,
                    const KDTreeBuildContext& context) {
    if (!depthInRange(context.maxDepth)) return KEL_STS_OUT_OF_RANGE;
    if (!weightInRange(context.psahWeight)) return KEL_STS_OUT_OF_RANGE;
    // The budget is tested as MiB << 19 in 32 bits, wrapping like the byte
    // count handed on (MiB << 20): a value such as 8192, whose low 13 bits
    // are below 32, is refused too.
    if (uint32_t(context.memoryMiB << 19) < kPsahMinimumHalfBudget) return KEL_STS_NO_MEM;
    return ownKDTBldPSAH_ML(pVertices, pTriangles, vertexCount, triangleCount, ppTree, pTreeSize,
                            context.psahWeight, context.maxDepth, uint32_t(context.memoryMiB << 20),
                            context.clipBox);
}

}  // namespace

extern "C" {

// The context pointer is checked after the counts, unlike every other
// pointer, and the mesh pointers must be non-null even for the simple build,
// which never reads them.
KEL_API KelStatus kelrKDTreeBuildAlloc(KDTreeNode** ppTree, const float* pVertices,
                                       const int* pTriangles, int vertexCount, int triangleCount,
                                       int* pTreeSize, const KDTreeBuildContext* pContext) {
    if (!ppTree || !pVertices || !pTriangles || !pTreeSize) return KEL_STS_NULL_PTR;
    if (vertexCount < 0 || triangleCount < 0) return KEL_STS_SIZE;
    if (!pContext) return KEL_STS_NULL_PTR;
    switch (pContext->algorithm) {
        case KDT_BUILD_SIMPLE:
            // Only the first two words are read: a simple build's context may
            // be that short.
            if (!depthInRange(pContext->maxDepth)) return KEL_STS_OUT_OF_RANGE;
            return ownKDTBldSmpl_TL(triangleCount, ppTree, pTreeSize);
        case KDT_BUILD_PSAH:
            return buildPsah(ppTree, pVertices, pTriangles, vertexCount, triangleCount, pTreeSize,
                             *pContext);
        default:
            return KEL_STS_BAD_ARG;
    }
}

KEL_API void kelrKDTreeFree(KDTreeNode* pTree) {
    kelsFree(pTree);
}
}
