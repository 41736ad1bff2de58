// The simple build: one leaf that holds every triangle. It reads no geometry,
// so it costs nothing and is trivially correct, which makes it the reference
// tree for the intersection code.
#include "kdtree/psah.h"

namespace {

// Distance from the root to its list: the list follows the 16-byte header
// (the root and the two zero words that keep child pairs on a 16-byte step).
constexpr int32_t kHeaderBytes = 16;

}  // namespace

extern "C" KEL_API KelStatus ownKDTBldSmpl_TL(int triangleCount, KDTreeNode** ppTree,
                                              int* pTreeSize) {
    const uint64_t size = 4 * uint64_t(triangleCount) + kHeaderBytes;
    if (size > kel::kMaxTreeBytes) return KEL_STS_NO_MEM;
    // One 8-byte unit more than the size covers, as every tree block has.
    int64_t* block = kelsMalloc_64s(int(size / 8 + 1));
    if (!block) return KEL_STS_NO_MEM;

    int32_t* words = reinterpret_cast<int32_t*>(block);
    words[0] = -kHeaderBytes;
    words[1] = triangleCount;
    words[2] = 0;
    words[3] = 0;
    int32_t* list = words + kHeaderBytes / 4;
    for (int32_t t = 0; t < triangleCount; ++t) list[t] = t;

    *ppTree = reinterpret_cast<KDTreeNode*>(block);
    *pTreeSize = int(size);
    return KEL_STS_OK;
}
