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

// Result of the split search for one node.
struct SplitDecision {
    double cost;  // the node's cost as a leaf, set before the search
    float position;
    int32_t axis;  // 0..2, or -1: keep the node as a leaf
    int32_t leftCount;
    int32_t rightCount;
    int32_t planarSide;  // 0: patches lying in the plane go left, 1: right
};

// ---------------------------------------------------------------------------
// The budget. It is spent as the single-threaded build always spent it, on
// 16 MiB chunks for child pairs, leaf lists and vertex-pointer records and on
// two fixed stores for patches and new points, so a build runs out of budget
// exactly where that build did. The memory the build really uses is taken
// apart from it, as the work needs it.

constexpr uint32_t kChunkDataBytes = 0x1000000;
// The bookkeeping records the budget is charged for, pointer-sized where
// they hold pointers: the build state (51 words, two of them sizes) and one
// per chunk (5 words).
constexpr uint32_t kStateCharge = 2 * 4 + 49 * uint32_t(sizeof(void*));
constexpr uint32_t kChunkRecordCharge = 5 * uint32_t(sizeof(void*));
// What adding a chunk costs the budget: its data and its record.
constexpr uint32_t kChunkCost = kChunkDataBytes + kChunkRecordCharge;

constexpr int kRecordSizeClasses = 10;  // vertex-pointer records of 0..9 pointers

enum PsahChunkList { kNodeChunks, kIndexChunks, kRecordChunks, kChunkLists };

// A store that never grows, charged whole up front: requests move a cursor
// and fit only strictly below the end.
struct PsahStoreAccount {
    uint64_t end;
    uint64_t cursor;
};

// What the single-threaded order decides: the budget, each chunk list's
// newest chunk and the records given back for reuse.
struct PsahLedger {
    uint32_t budget;                           // bytes remaining
    uint64_t room[kChunkLists];                // bytes left in each list's newest chunk
    uint32_t freeRecords[kRecordSizeClasses];  // records given back, per size
};

// Takes bytes from the newest chunk of a list, adding a chunk while the budget
// covers it. The test is strict, so a chunk's last bytes are never used, and
// the first request on a list always adds a chunk. A request larger than a
// whole chunk can never be met and spends the budget as surely as a full one.
inline KelStatus chargeChunk(PsahLedger* ledger, PsahChunkList list, uint64_t bytes) {
    if (bytes < ledger->room[list]) {
        ledger->room[list] -= bytes;
        return KEL_STS_OK;
    }
    if (ledger->budget < kChunkCost || bytes > kChunkDataBytes) return KEL_STS_OVERFLOW;
    ledger->budget -= kChunkCost;
    ledger->room[list] = kChunkDataBytes - bytes;
    return KEL_STS_OK;
}

// A record of n pointers comes from those given back first.
inline KelStatus chargeRecord(PsahLedger* ledger, int n) {
    if (ledger->freeRecords[n] > 0) {
        --ledger->freeRecords[n];
        return KEL_STS_OK;
    }
    return chargeChunk(ledger, kRecordChunks, uint64_t(n) * sizeof(const float*));
}

inline void creditRecord(PsahLedger* ledger, int n) {
    ++ledger->freeRecords[n];
}

// The stores' cursors depend only on the path from the root to a node (each
// node starts from marks its parent leaves), so any line of work keeps them
// itself and checks them at once.
inline KelStatus chargeStore(PsahStoreAccount* store, uint64_t bytes) {
    if (!(store->cursor + bytes < store->end)) return KEL_STS_OVERFLOW;
    store->cursor += bytes;
    return KEL_STS_OK;
}

// ---------------------------------------------------------------------------
// Real memory: blocks handed out in order and given back last in, first out,
// or all at once.

struct PsahArenaBlock;
struct PsahArena {
    PsahArenaBlock* top = nullptr;
    char* cursor = nullptr;
    PsahArenaBlock* spare = nullptr;  // the block given back last, kept for reuse
};
struct PsahArenaMark {
    PsahArenaBlock* block;
    char* cursor;
};

// 4-byte aligned, and as aligned as the sizes taken before it within the
// block (blocks start 16-byte aligned); null when a new block cannot be
// allocated.
void* arenaTake(PsahArena* arena, size_t bytes);
inline PsahArenaMark arenaMark(const PsahArena& arena) {
    return PsahArenaMark{arena.top, arena.cursor};
}
void arenaRewind(PsahArena* arena, PsahArenaMark mark);
void arenaRelease(PsahArena* arena);

// Scratch memory that grows to the largest request; growing keeps the
// first `keep` bytes. Null when it cannot grow.
struct PsahScratch {
    void* data = nullptr;
    size_t bytes = 0;
};
void* scratchOf(PsahScratch* scratch, size_t bytes);
void* scratchGrow(PsahScratch* scratch, size_t bytes, size_t keep);
void scratchRelease(PsahScratch* scratch);

// Vertex-pointer records: those given back first (a free record's first word
// links it to the next of its size), else new ones.
struct PsahRecordStore {
    PsahArena arena;
    const float** free[kRecordSizeClasses] = {};
};

inline const float*** nextFreeRecord(const float** record) {
    return static_cast<const float***>(static_cast<void*>(record));
}

// A subtree's charges while it is built ahead of its turn: a byte stream
// replayed against the ledger in the single-threaded order.
struct PsahTrace {
    PsahScratch bytes;
    size_t size = 0;
};

// Where one line of work takes its memory and spends the budget: straight
// from the ledger (the driver, a build on one thread) or into a trace.
struct PsahWorkspace {
    PsahLedger* ledger = nullptr;  // null: charges go to the trace
    PsahTrace* trace = nullptr;
    KelStatus failure = KEL_STS_OK;  // a trace that cannot grow
    PsahStoreAccount patches = {};
    PsahStoreAccount points = {};  // three floats per point made by cutting
    PsahRecordStore* records = nullptr;
    PsahArena* pointMemory = nullptr;
    PsahArena* nodes = nullptr;  // child pairs
    PsahArena* lists = nullptr;  // leaves' triangle numbers
};

// Appends a charge, or a subtree's trace, to the trace; a trace that cannot
// grow fails the work. Reading takes the value after a code and moves on.
void traceCharge(PsahWorkspace* work, uint8_t code, uint32_t value);
void traceSubtree(PsahWorkspace* work, const PsahTrace* subtree);
uint32_t traceWord(const uint8_t** p);
const PsahTrace* traceSubtreeOf(const uint8_t** p);
constexpr uint8_t kTraceChunk = 0x10;    // | list, then the bytes
constexpr uint8_t kTraceTake = 0x20;     // | record size
constexpr uint8_t kTraceGive = 0x30;     // | record size
constexpr uint8_t kTraceFail = 0x40;     // then the status
constexpr uint8_t kTraceSubtree = 0x50;  // then the subtree's trace, by address

inline KelStatus workChargeChunk(PsahWorkspace* work, PsahChunkList list, uint64_t bytes) {
    if (work->ledger) return chargeChunk(work->ledger, list, bytes);
    // Larger requests are refused in any order; the trace keeps 32 bits.
    if (bytes > kChunkDataBytes) bytes = uint64_t(kChunkDataBytes) + 1;
    traceCharge(work, kTraceChunk | list, uint32_t(bytes));
    return work->failure;
}

inline KelStatus workChargeRecord(PsahWorkspace* work, int n) {
    if (work->ledger) return chargeRecord(work->ledger, n);
    traceCharge(work, kTraceTake | uint8_t(n), 0);
    return work->failure;
}

inline void workCreditRecord(PsahWorkspace* work, int n) {
    if (work->ledger)
        creditRecord(work->ledger, n);
    else
        traceCharge(work, kTraceGive | uint8_t(n), 0);
}

// Records and tree memory of one thread of the optimisation's team.
struct PsahThreadStores {
    PsahRecordStore records;
    PsahArena nodes;
    PsahArena lists;
};

// What the optimisation returns when subtrees built on several threads took
// more tree memory than the budget can pay for: the build then runs out of
// budget somewhere, and it is built again on one thread to find where.
constexpr KelStatus kRetryOnOneThread = KelStatus(1);

struct PsahBuildState {
    const float* vertexBegin;
    const float* vertexEnd;
    PsahLedger ledger;
    PsahPatch* rootPatches;  // room for one patch per triangle
    PsahRecordStore records;
    PsahArena points;  // made by clipping and cutting, three floats each
    PsahArena nodes;
    PsahArena lists;
    PsahWorkspace work;  // the driver's: charged at once, in the stores above
    // The optimisation's threads' own records and tree memory, when it
    // builds subtrees on several threads.
    PsahThreadStores* threads;
    int threadCount;
    bool sequential;  // build on one thread, charging the ledger at once
};

// Whether a corner points into the caller's vertex array rather than at a
// point made by clipping.
inline bool isMeshVertex(const PsahBuildState* state, const float* p) {
    return uintptr_t(p) >= uintptr_t(state->vertexBegin) &&
           uintptr_t(p) < uintptr_t(state->vertexEnd);
}
#if defined(__i386__)
static_assert(kStateCharge == 204 && kChunkRecordCharge == 20, "51 and 5 words");
static_assert(sizeof(PsahPatch) == 12 && sizeof(PsahBuildNode) == 12, "three words");
#endif

// The stores of the optimisation's threads, with the tree memory in them.
inline void releaseThreadStores(PsahBuildState* state) {
    for (int i = 0; i < state->threadCount; ++i) {
        arenaRelease(&state->threads[i].records.arena);
        arenaRelease(&state->threads[i].nodes);
        arenaRelease(&state->threads[i].lists);
    }
    kelsFree(state->threads);
    state->threads = nullptr;
    state->threadCount = 0;
}

// A vertex-pointer record of n pointers, charged and taken.
inline const float** takeVertexRecord(PsahWorkspace* work, int n, KelStatus* status) {
    *status = workChargeRecord(work, n);
    if (*status != KEL_STS_OK) return nullptr;
    PsahRecordStore* store = work->records;
    const float** record = store->free[n];
    if (record) {
        store->free[n] = *nextFreeRecord(record);
        return record;
    }
    record = static_cast<const float**>(arenaTake(&store->arena, size_t(n) * sizeof(*record)));
    if (!record) *status = KEL_STS_NO_MEM;
    return record;
}

inline void releaseVertexRecord(PsahWorkspace* work, const float** record, int n) {
    workCreditRecord(work, n);
    *nextFreeRecord(record) = work->records->free[n];
    work->records->free[n] = record;
}

// Room for a new point, charged to the point store.
inline float* takePoint(PsahWorkspace* work, KelStatus* status) {
    *status = chargeStore(&work->points, 3 * sizeof(float));
    if (*status != KEL_STS_OK) return nullptr;
    auto* point = static_cast<float*>(arenaTake(work->pointMemory, 3 * sizeof(float)));
    if (!point) *status = KEL_STS_NO_MEM;
    return point;
}

// Room for a pair of child nodes or a leaf's n triangle numbers, charged to
// their chunk list.
inline void* takeTreeMemory(PsahWorkspace* work, PsahChunkList list, uint64_t bytes,
                            KelStatus* status) {
    *status = workChargeChunk(work, list, bytes);
    if (*status != KEL_STS_OK) return nullptr;
    void* p = arenaTake(list == kNodeChunks ? work->nodes : work->lists, size_t(bytes));
    if (!p) *status = KEL_STS_NO_MEM;
    return p;
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
