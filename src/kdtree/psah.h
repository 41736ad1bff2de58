// Records and memory helpers shared by the PSAH build driver, its
// optimisation loop and the patch cut. All per-node memory comes from 16 MiB
// chunks, two stack-like pools and per-size free lists, charged against the
// caller's budget; nothing is allocated per node.
#ifndef KEL_PSAH_H
#define KEL_PSAH_H

#include "core/kel_private.h"

namespace kel {

// One polygon of a node: a triangle, or the part of one cut to a box.
struct PsahPatch {
    uint32_t head;           // triangle number << 5 | vertex count (3..9)
    uint32_t mask;           // extreme-vertex mask, see extremeVertexMask
    const float** vertices;  // vertex-pointer record: count pointers to x, y, z
};

constexpr int kPatchTriangleShift = 5;
constexpr uint32_t kPatchCountMask = 31;

inline int patchVertexCount(const PsahPatch& p) {
    return int(p.head & kPatchCountMask);
}
inline int patchTriangle(const PsahPatch& p) {
    return int32_t(p.head) >> kPatchTriangleShift;
}

// Smallest and largest coordinate of a patch on an axis, read through the
// mask rather than by scanning the polygon.
inline float patchMin(const PsahPatch& p, int axis) {
    return p.vertices[(p.mask >> (15 + 5 * axis)) & 31][axis];
}
inline float patchMax(const PsahPatch& p, int axis) {
    return p.vertices[(p.mask >> (5 * axis)) & 31][axis];
}

constexpr int kPsahLeaf = 3;

// A tree block's size is reported as an int32, so no larger block is built.
constexpr uint64_t kMaxTreeBytes = INT32_MAX;

// Build-time node. Kind 0..2 is an inner node split on that axis, 3 a leaf
// (also every node not yet processed). A child starts as a copy of its parent.
struct PsahBuildNode {
    int32_t kind;
    union {
        float split;    // inner node
        int32_t count;  // leaf: patches, later triangle numbers
    };
    union {
        PsahBuildNode* children;  // inner node: the pair, first child first
        PsahPatch* patches;       // unprocessed node
        int32_t* triangles;       // leaf (null when empty)
    };
};

// Result of the split search for one node. On entry cost holds the leaf cost.
struct SplitDecision {
    double cost;
    float position;
    int32_t axis;  // 0..2, or -1: keep the node as a leaf
    int32_t leftCount;
    int32_t rightCount;
    int32_t planarSide;  // 0: patches lying in the plane go left, 1: right
};

// A 16 MiB data area in a circular doubly linked list. The list head has the
// same shape with null base, end and cursor, so it serves as a chunk without
// room and the first request on a list always adds a chunk.
struct PsahChunk {
    PsahChunk* next;
    PsahChunk* prev;
    char* base;
    char* end;
    char* cursor;
};

constexpr uint32_t kChunkDataBytes = 0x1000000;
// What adding a chunk costs the budget: its data and its record.
constexpr uint32_t kChunkCost = kChunkDataBytes + sizeof(PsahChunk);

// A stack-like area that never grows: the patch store and the vertex store.
struct PsahPool {
    char* base;
    char* end;
    char* cursor;
};

// Twelve arrays of one float per triangle, in one block; the optimisation
// holds each axis's sorted events in its four.
constexpr int kScratchArrays = 12;
constexpr int kRecordSizeClasses = 10;  // vertex-pointer records of 0..9 pointers

struct PsahBuildState {
    uint32_t totalBudget;  // bytes
    uint32_t budget;       // bytes remaining
    const float* vertexBegin;
    const float* vertexEnd;
    const float* vertexLimit;
    const int32_t* triangleBegin;
    const int32_t* triangleEnd;
    const int32_t* triangleLimit;
    PsahPool patchPool;
    PsahPool vertexPool;  // points created by cutting, three floats each
    float* scratch[kScratchArrays];
    PsahChunk nodeChunks;   // child pairs
    PsahChunk indexChunks;  // leaves' triangle-index lists
    const float** freeRecords[kRecordSizeClasses];
    PsahChunk recordChunks;  // vertex-pointer records
};
#if defined(__i386__)
static_assert(sizeof(PsahBuildState) == 204, "51 words");
static_assert(sizeof(PsahPatch) == 12 && sizeof(PsahBuildNode) == 12, "three words");
#endif

inline void initChunkList(PsahChunk* head) {
    head->next = head;
    head->prev = head;
    head->base = head->end = head->cursor = nullptr;
}

// Takes bytes from the newest chunk of a list, adding a chunk while the budget
// covers it. The test is strict, so a chunk's last bytes are never used. A
// request larger than a whole chunk can never be met and spends the budget
// as surely as a full one; a chunk the allocator refuses is -4.
inline void* takeFromChunks(PsahBuildState* state, PsahChunk* head, uint64_t bytes,
                            KelStatus* status) {
    PsahChunk* tail = head->prev;
    if (bytes < uint64_t(tail->end - tail->cursor)) {
        void* p = tail->cursor;
        tail->cursor += bytes;
        return p;
    }
    if (state->budget < kChunkCost || bytes > kChunkDataBytes) {
        *status = KEL_STS_OVERFLOW;
        return nullptr;
    }
    auto* chunk = reinterpret_cast<PsahChunk*>(kelsMalloc_32s(int((sizeof(PsahChunk) + 3) / 4)));
    char* data = reinterpret_cast<char*>(kelsMalloc_32s(int(kChunkDataBytes / 4)));
    if (!chunk || !data) {
        kelsFree(chunk);
        kelsFree(data);
        *status = KEL_STS_NO_MEM;
        return nullptr;
    }
    chunk->base = data;
    chunk->end = data + kChunkDataBytes;
    chunk->cursor = data + bytes;
    chunk->next = head;
    chunk->prev = tail;
    tail->next = chunk;
    head->prev = chunk;
    state->budget -= kChunkCost;
    return data;
}

// Releases every chunk of a list (data area, then record) and empties it.
inline void releaseChunks(PsahChunk* head) {
    PsahChunk* chunk = head->next;
    while (chunk != head) {
        PsahChunk* next = chunk->next;
        kelsFree(chunk->base);
        kelsFree(chunk);
        chunk = next;
    }
    initChunkList(head);
}

// Takes bytes from a pool; null unless cursor + bytes stays strictly below
// the end.
inline void* takeFromPool(PsahPool* pool, uint32_t bytes) {
    if (!(uintptr_t(pool->cursor) + bytes < uintptr_t(pool->end))) return nullptr;
    void* p = pool->cursor;
    pool->cursor += bytes;
    return p;
}

// A free record's first word links it to the next free record of its size.
inline const float*** nextFreeRecord(const float** record) {
    return static_cast<const float***>(static_cast<void*>(record));
}

// A vertex-pointer record of n pointers: from the free list of its size
// first, else from the record chunks.
inline const float** takeVertexRecord(PsahBuildState* state, int n, KelStatus* status) {
    const float** record = state->freeRecords[n];
    if (record) {
        state->freeRecords[n] = *nextFreeRecord(record);
        return record;
    }
    return static_cast<const float**>(
        takeFromChunks(state, &state->recordChunks, uint32_t(n * sizeof(const float*)), status));
}

inline void releaseVertexRecord(PsahBuildState* state, const float** record, int n) {
    *nextFreeRecord(record) = state->freeRecords[n];
    state->freeRecords[n] = record;
}

// The point where the edge from `from` to `to` meets an axis plane. The other
// two coordinates are interpolated in double and rounded once; the one on the
// axis is the plane itself, so the pieces on either side end exactly there.
inline void planeCrossing(const float* from, const float* to, int axis, float plane, float* point) {
    const double t = (double(plane) - double(from[axis])) / (double(to[axis]) - double(from[axis]));
    for (int b = 0; b < 3; ++b)
        point[b] =
            b == axis ? plane : float(double(from[b]) + t * (double(to[b]) - double(from[b])));
}

// Rows place a vertex index into the x, y and z fields of the mask: the
// largest coordinate's index at bits 5a, the smallest's at bits 15 + 5a.
inline constexpr int32_t min_imsk_A[10][4] = {
    {0 << 15, 0 << 20, 0 << 25, 0}, {1 << 15, 1 << 20, 1 << 25, 0}, {2 << 15, 2 << 20, 2 << 25, 0},
    {3 << 15, 3 << 20, 3 << 25, 0}, {4 << 15, 4 << 20, 4 << 25, 0}, {5 << 15, 5 << 20, 5 << 25, 0},
    {6 << 15, 6 << 20, 6 << 25, 0}, {7 << 15, 7 << 20, 7 << 25, 0}, {8 << 15, 8 << 20, 8 << 25, 0},
    {9 << 15, 9 << 20, 9 << 25, 0}};
inline constexpr int32_t max_imsk_A[10][4] = {{0, 0 << 5, 0 << 10, 0}, {1, 1 << 5, 1 << 10, 0},
                                              {2, 2 << 5, 2 << 10, 0}, {3, 3 << 5, 3 << 10, 0},
                                              {4, 4 << 5, 4 << 10, 0}, {5, 5 << 5, 5 << 10, 0},
                                              {6, 6 << 5, 6 << 10, 0}, {7, 7 << 5, 7 << 10, 0},
                                              {8, 8 << 5, 8 << 10, 0}, {9, 9 << 5, 9 << 10, 0}};

// Extreme-vertex mask of a polygon. Ties keep the lowest vertex index; a NaN
// coordinate replaces the running value, as the "not <=" tests say.
inline uint32_t extremeVertexMask(const float* const* vertices, int n) {
    uint32_t mask = 0;
    for (int axis = 0; axis < 3; ++axis) {
        int lowest = 0, highest = 0;
        for (int k = 1; k < n; ++k) {
            if (!(vertices[lowest][axis] <= vertices[k][axis])) lowest = k;
            if (!(vertices[k][axis] <= vertices[highest][axis])) highest = k;
        }
        mask |= uint32_t(min_imsk_A[lowest][axis]) | uint32_t(max_imsk_A[highest][axis]);
    }
    return mask;
}

}  // namespace kel

extern "C" {
KEL_API KelStatus ownKDTBldSmpl_TL(int triangleCount, KDTreeNode** ppTree, int* pTreeSize);
KEL_API KelStatus ownKDTBldPSAH_ML(const float* pVertices, const int* pTriangles, int vertexCount,
                                   int triangleCount, KDTreeNode** ppTree, int* pTreeSize,
                                   float psahWeight, int maxDepth, uint32_t budgetBytes,
                                   const float* pClipBox);
KEL_API KelStatus ownOptimizationPSAH(kel::PsahBuildState* state, kel::PsahBuildNode* root,
                                      float psahWeight, int maxDepth, const float* rootBox);
KEL_API KelStatus ownCompactTreeRepresentation(const kel::PsahBuildNode* root, KDTreeNode** ppTree,
                                               int* pTreeSize);
// Sort n floats ascending in place; buffer is scratch of n floats and ends up
// holding a copy of the result. The _w7 variant needs both 16-byte aligned.
KEL_API KelStatus ownRadixSortAccend_32f_w7(float* pData, float* pBuffer, uint32_t n);
KEL_API KelStatus ownRadixSortAccend_32f_px(float* pData, float* pBuffer, uint32_t n);
}

#endif  // KEL_PSAH_H
