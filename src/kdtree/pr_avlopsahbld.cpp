// The PSAH build driver: it checks the budget, carves the working memory,
// turns triangles into patches, lets the optimisation grow the build tree and
// packs that tree into the caller's block. Every path out of the driver
// releases all working memory; only the packed block survives a build.
#include "kdtree/psah.h"

using namespace kel;

namespace {

// Memory a build needs before the first triangle: the 16 MiB head-room of the
// patch store and of the vertex store, the build state and two chunk records.
constexpr uint32_t kFixedNeed = 2 * kChunkDataBytes + kStateCharge + 2 * kChunkRecordCharge;
// Per triangle: its word in each of the twelve scratch arrays the split
// search was once given and three patches' worth of patch store (the root
// array plus the deferred left children).
constexpr uint32_t kScratchBytesPerTriangle = 12 * sizeof(float);
constexpr uint32_t kPatchBytesPerTriangle = 3 * sizeof(PsahPatch);
constexpr uint32_t kVertexBytes = 3 * sizeof(float);

// A cut triangle: three slabs add at most two corners each.
constexpr int kMaxCorners = 9;

// The stores a build charges before its first triangle, in bytes. The patch
// store rounds 36 bytes a triangle down to whole 16 MiB and adds 16 MiB; the
// vertex store gives 16 MiB per started 4 MiB of mesh vertices, head-room for
// the points that cutting creates. All of it is charged to the budget.
struct StoreSizes {
    uint64_t patch;
    uint64_t vertex;
    uint64_t total;  // with the state and the scratch arrays
};

StoreSizes storeSizes(int vertexCount, int triangleCount) {
    const uint64_t T = uint64_t(triangleCount);
    StoreSizes sizes;
    sizes.patch = ((kPatchBytesPerTriangle * T) & ~uint64_t(kChunkDataBytes - 1)) + kChunkDataBytes;
    sizes.vertex = (((kVertexBytes * uint64_t(vertexCount)) >> 22) + 1) << 24;
    sizes.total = kStateCharge + kScratchBytesPerTriangle * T + sizes.patch + sizes.vertex;
    return sizes;
}

// What only the optimisation needs; the build nodes and the index lists stay
// because the build tree lives in them until it is packed.
void releaseWorkingMemory(PsahBuildState* state) {
    arenaRelease(&state->records.arena);
    for (const float**& head : state->records.free) head = nullptr;
    arenaRelease(&state->points);
    kelsFree(state->rootPatches);
    state->rootPatches = nullptr;
}

void releaseBuildState(PsahBuildState* state) {
    arenaRelease(&state->nodes);
    arenaRelease(&state->lists);
    releaseThreadStores(state);
    releaseWorkingMemory(state);
    kelsFree(state);
}

// The build state with the budget charged for the state, the scratch arrays
// and the two stores, which fit it; the root's patch array, one patch per
// triangle at most, is the only memory taken yet. Null when an allocation
// fails; whatever was obtained is released then.
PsahBuildState* createBuildState(const float* pVertices, int vertexCount, int triangleCount,
                                 uint32_t budgetBytes, const StoreSizes& sizes) {
    auto* state =
        reinterpret_cast<PsahBuildState*>(kelsMalloc_32s(int((sizeof(PsahBuildState) + 3) / 4)));
    if (!state) return nullptr;
    *state = PsahBuildState();
    state->vertexBegin = pVertices;
    state->vertexEnd = pVertices + 3 * size_t(vertexCount);
    state->ledger.budget = budgetBytes - uint32_t(sizes.total);
    PsahWorkspace& work = state->work;
    work.ledger = &state->ledger;
    work.patches.end = sizes.patch;
    work.points.end = sizes.vertex;
    work.records = &state->records;
    work.pointMemory = &state->points;
    work.nodes = &state->nodes;
    work.lists = &state->lists;
    const size_t patchWords = size_t(triangleCount > 0 ? triangleCount : 1) * sizeof(PsahPatch) / 4;
    state->rootPatches = reinterpret_cast<PsahPatch*>(kelsMalloc_32s(int(patchWords)));
    if (!state->rootPatches) {
        releaseBuildState(state);
        return nullptr;
    }
    return state;
}

// The vertex-pointer record of a polygon cut to the box. Corners inside the
// mesh's vertex array are referenced in place; points made by cutting live
// only on the caller's stack and are copied into the vertex store.
const float** storeCorners(PsahBuildState* state, const float* const* corners, int n,
                           KelStatus* status) {
    const float** record = takeVertexRecord(&state->work, n, status);
    if (!record) return nullptr;
    for (int k = 0; k < n; ++k) {
        if (isMeshVertex(state, corners[k])) {
            record[k] = corners[k];
            continue;
        }
        float* copy = takePoint(&state->work, status);
        if (!copy) return nullptr;
        for (int c = 0; c < 3; ++c) copy[c] = corners[k][c];
        record[k] = copy;
    }
    return record;
}

void fillPatch(PsahPatch* patch, int triangle, const float** record, int n) {
    patch->head = (uint32_t(triangle) << kPatchTriangleShift) | uint32_t(n);
    patch->mask = extremeVertexMask(record, n);
    patch->vertices = record;
}

// A polygon while a triangle is cut to the box. Its corners point at mesh
// vertices or at the points this polygon made itself; each slab writes a new
// polygon, so earlier points stay valid.
struct ClipPolygon {
    const float* corner[kMaxCorners];
    float made[kMaxCorners][3];
    int n;
};

// Rounding keeps a cut triangle convex enough for nine corners; the bound
// only keeps a pathological input inside the buffer.
void emitCorner(ClipPolygon* out, const float* p) {
    if (out->n < kMaxCorners) out->corner[out->n++] = p;
}

void emitCrossing(ClipPolygon* out, const float* from, const float* to, int axis, float plane) {
    if (out->n >= kMaxCorners) return;
    float* p = out->made[out->n];
    planeCrossing(from, to, axis, plane, p);
    out->corner[out->n++] = p;
}

// Keeps the part of the polygon inside lo <= x <= hi on one axis. Corners
// stay in order and each edge emits its crossings in the order it meets the
// planes; a corner on a plane is inside, so a triangle lying on a box face
// survives.
void clipToSlab(const ClipPolygon& in, int axis, float lo, float hi, ClipPolygon* out) {
    out->n = 0;
    for (int k = 0; k < in.n; ++k) {
        const float* v = in.corner[k];
        const float* next = in.corner[k + 1 == in.n ? 0 : k + 1];
        const float c = v[axis], d = next[axis];
        if (lo <= c && c <= hi) emitCorner(out, v);
        if (c < d) {
            if (c < lo && lo < d) emitCrossing(out, v, next, axis, lo);
            if (c < hi && hi < d) emitCrossing(out, v, next, axis, hi);
        } else if (d < c) {
            if (d < hi && hi < c) emitCrossing(out, v, next, axis, hi);
            if (d < lo && lo < c) emitCrossing(out, v, next, axis, lo);
        }
    }
}

// The part of triangle i inside the box; false when less than a polygon
// remains.
bool cutTriangleToBox(const PsahBuildState* state, const int* triangle, const float* box,
                      ClipPolygon pass[4]) {
    pass[0].n = 3;
    for (int k = 0; k < 3; ++k) pass[0].corner[k] = state->vertexBegin + 3 * ptrdiff_t(triangle[k]);
    for (int axis = 0; axis < 3; ++axis) {
        clipToSlab(pass[axis], axis, box[axis], box[axis + 3], &pass[axis + 1]);
        if (pass[axis + 1].n < 3) return false;
    }
    return true;
}

}  // namespace

// Patches of the triangles cut to the scene box, in triangle order; a
// triangle outside the box makes no patch.
static KelStatus localInitPatchesFromTrianglesBB(PsahPatch** ppFirst, int* pCount,
                                                 const int* pTriangles, int triangleCount,
                                                 const float* box, PsahBuildState* state) {
    *ppFirst = nullptr;
    if (triangleCount < 1) {
        *pCount = 0;
        return KEL_STS_OK;
    }
    KelStatus status = KEL_STS_OK;
    int count = 0;
    ClipPolygon pass[4];
    for (int i = 0; i < triangleCount; ++i) {
        if (!cutTriangleToBox(state, pTriangles + 4 * i, box, pass)) continue;
        const ClipPolygon& polygon = pass[3];
        const float** record = storeCorners(state, polygon.corner, polygon.n, &status);
        if (!record) return status;
        status = chargeStore(&state->work.patches, sizeof(PsahPatch));
        if (status != KEL_STS_OK) return status;
        *ppFirst = state->rootPatches;
        fillPatch(&state->rootPatches[count], i, record, polygon.n);
        ++count;
    }
    *pCount = count;
    return status;
}

namespace {

// The box of all vertices. Vertex 0 seeds it even for an empty mesh.
void vertexBox(const float* pVertices, int vertexCount, float* box) {
    for (int a = 0; a < 3; ++a) box[a] = box[a + 3] = pVertices[a];
    for (int i = 1; i < vertexCount; ++i) {
        const float* v = pVertices + 3 * ptrdiff_t(i);
        for (int a = 0; a < 3; ++a) {
            if (v[a] < box[a]) box[a] = v[a];
            if (v[a] > box[a + 3]) box[a + 3] = v[a];
        }
    }
}

// One whole-triangle patch per triangle, in one contiguous array.
KelStatus initPatchesFromTriangles(PsahPatch** ppFirst, const int* pTriangles, int triangleCount,
                                   PsahBuildState* state) {
    KelStatus status =
        chargeStore(&state->work.patches, uint64_t(triangleCount) * sizeof(PsahPatch));
    if (status != KEL_STS_OK) return status;
    PsahPatch* patches = state->rootPatches;
    for (int i = 0; i < triangleCount; ++i) {
        const float** record = takeVertexRecord(&state->work, 3, &status);
        if (!record) return status;
        for (int k = 0; k < 3; ++k)
            record[k] = state->vertexBegin + 3 * ptrdiff_t(pTriangles[4 * i + k]);
        fillPatch(&patches[i], i, record, 3);
    }
    *ppFirst = patches;
    return KEL_STS_OK;
}

// Grows the build tree from the patches; the root starts as one leaf holding
// them all. The tree is left in the node and list arenas.
KelStatus growBuildTree(PsahBuildState* state, const float* pVertices, const int* pTriangles,
                        int vertexCount, int triangleCount, float psahWeight, int maxDepth,
                        const float* pClipBox, PsahBuildNode** ppRoot) {
    float box[6];
    PsahPatch* patches = nullptr;
    int patchCount = triangleCount;
    KelStatus status;
    if (pClipBox) {
        for (int a = 0; a < 6; ++a) box[a] = pClipBox[a];
        status = localInitPatchesFromTrianglesBB(&patches, &patchCount, pTriangles, triangleCount,
                                                 box, state);
    } else {
        vertexBox(pVertices, vertexCount, box);
        status = initPatchesFromTriangles(&patches, pTriangles, triangleCount, state);
    }
    if (status != KEL_STS_OK) return status;

    auto* root = static_cast<PsahBuildNode*>(
        takeTreeMemory(&state->work, kNodeChunks, 2 * sizeof(PsahBuildNode), &status));
    if (!root) return status;
    root->kind = kPsahLeaf;
    root->count = patchCount;
    root->patches = patches;
    *ppRoot = root;
    if (patchCount == 0) return KEL_STS_OK;
    return ownOptimizationPSAH(state, root, psahWeight, maxDepth, box);
}

int32_t byteDistance(const void* from, const void* to) {
    return int32_t(static_cast<const char*>(to) - static_cast<const char*>(from));
}

}  // namespace

// Adds the packed size of a subtree: 8 bytes per node and 4 per listed
// triangle. The second child continues the loop so that only the first
// children cost stack depth.
static void localEstimateTotalCompactTreeSize(const PsahBuildNode* node, uint64_t* nodeBytes,
                                              uint64_t* listBytes) {
    for (;;) {
        *nodeBytes += sizeof(KDTreeNode);
        if (node->kind == kPsahLeaf) {
            *listBytes += 4 * uint64_t(node->count);
            return;
        }
        localEstimateTotalCompactTreeSize(&node->children[0], nodeBytes, listBytes);
        node = &node->children[1];
    }
}

// Packs a subtree into the slot. Pairs are taken in the order inner nodes are
// met, so every pair follows its parent in pre-order; lists are written as
// leaves are met, so they follow each other from left to right.
static void localTreePacking(const PsahBuildNode* node, KDTreeNode* slot, int32_t** listCursor,
                             KDTreeNode** pairCursor) {
    while (node->kind != kPsahLeaf) {
        KDTreeNode* pair = *pairCursor;
        *pairCursor = pair + 2;
        slot->data.split = node->split;
        slot->link = byteDistance(slot, pair) | node->kind;
        localTreePacking(&node->children[0], &pair[0], listCursor, pairCursor);
        node = &node->children[1];
        slot = &pair[1];
    }
    slot->data.count = node->count;
    slot->link = byteDistance(*listCursor, slot);
    for (int k = 0; k < node->count; ++k) *(*listCursor)++ = node->triangles[k];
}

extern "C" {

KEL_API KelStatus ownCompactTreeRepresentation(const PsahBuildNode* root, KDTreeNode** ppTree,
                                               int* pTreeSize) {
    uint64_t nodeBytes = 16, listBytes = 0;
    if (root->kind == kPsahLeaf) {
        listBytes = 4 * uint64_t(root->count);
    } else {
        localEstimateTotalCompactTreeSize(&root->children[0], &nodeBytes, &listBytes);
        localEstimateTotalCompactTreeSize(&root->children[1], &nodeBytes, &listBytes);
    }
    const uint64_t size = nodeBytes + listBytes;
    if (size > kMaxTreeBytes) return KEL_STS_NO_MEM;
    auto* block = reinterpret_cast<KDTreeNode*>(kelsMalloc_64s(int(size / 8 + 1)));
    if (!block) return KEL_STS_NO_MEM;
    // The companion of the root keeps every child pair on a 16-byte step.
    block[1].link = 0;
    block[1].data.count = 0;
    auto* lists = reinterpret_cast<int32_t*>(reinterpret_cast<char*>(block) + nodeBytes);
    KDTreeNode* pairs = block + 2;
    // The root is packed like any slot: its pair, if any, lands at byte 16.
    localTreePacking(root, block, &lists, &pairs);
    *ppTree = block;
    *pTreeSize = int(size);
    return KEL_STS_OK;
}

KEL_API KelStatus ownKDTBldPSAH_ML(const float* pVertices, const int* pTriangles, int vertexCount,
                                   int triangleCount, KDTreeNode** ppTree, int* pTreeSize,
                                   float psahWeight, int maxDepth, uint32_t budgetBytes,
                                   const float* pClipBox) {
    const uint64_t need =
        kVertexBytes * uint64_t(vertexCount) +
        (kScratchBytesPerTriangle + kPatchBytesPerTriangle) * uint64_t(triangleCount) + kFixedNeed;
    if (budgetBytes < need) return KEL_STS_NO_MEM;
    // The vertex store grows four times faster than the check above counts
    // it, so a large mesh can pass the check with stores the budget does not
    // cover. Such a build is refused like one below the fixed need, before
    // anything is allocated: the remaining budget never goes below zero.
    const StoreSizes sizes = storeSizes(vertexCount, triangleCount);
    if (budgetBytes < sizes.total) return KEL_STS_NO_MEM;
    // A build whose subtrees outgrew the budget on several threads is built
    // again on one, which stops where the budget runs out.
    KelStatus status = kRetryOnOneThread;
    PsahBuildState* state = nullptr;
    PsahBuildNode* root = nullptr;
    for (bool sequential = false; status == kRetryOnOneThread; sequential = true) {
        if (state) releaseBuildState(state);
        state = createBuildState(pVertices, vertexCount, triangleCount, budgetBytes, sizes);
        if (!state) return KEL_STS_NO_MEM;
        state->sequential = sequential;
        status = growBuildTree(state, pVertices, pTriangles, vertexCount, triangleCount, psahWeight,
                               maxDepth, pClipBox, &root);
    }
    if (status == KEL_STS_OK) {
        // Give the working memory back before the packed block is allocated,
        // so the build never holds both.
        releaseWorkingMemory(state);
        status = ownCompactTreeRepresentation(root, ppTree, pTreeSize);
    }
    releaseBuildState(state);
    return status;
}

}  // extern "C"
