#include "kdtree/psah_events.h"

namespace kel {

namespace {

constexpr int kInsertionSortMax = 32;
constexpr int kDigitBits = 8;
constexpr int kBuckets = 1 << kDigitBits;
constexpr int kDigits = 32 / kDigitBits;

void insertionSort(PsahEvent* e, int n) {
    for (int i = 1; i < n; ++i) {
        const PsahEvent x = e[i];
        const uint32_t key = eventKey(x.value);
        int j = i;
        for (; j > 0 && eventKey(e[j - 1].value) > key; --j) e[j] = e[j - 1];
        e[j] = x;
    }
}

inline int digitOf(float value, int d) {
    return int(eventKey(value) >> (kDigitBits * d)) & (kBuckets - 1);
}

}  // namespace

// Least significant digit first, eight bits at a time; an even number of
// passes ends in the caller's array, and a digit all keys share is skipped
// in pairs of buffers swapped.
void sortEventsByKey(PsahEvent* events, int n, PsahEvent* temp) {
    if (n <= kInsertionSortMax) {
        insertionSort(events, n);
        return;
    }
    uint32_t count[kDigits][kBuckets];
    for (int d = 0; d < kDigits; ++d)
        for (int b = 0; b < kBuckets; ++b) count[d][b] = 0;
    for (int i = 0; i < n; ++i) {
        const uint32_t key = eventKey(events[i].value);
        for (int d = 0; d < kDigits; ++d) ++count[d][(key >> (kDigitBits * d)) & (kBuckets - 1)];
    }
    PsahEvent* src = events;
    PsahEvent* dst = temp;
    for (int d = 0; d < kDigits; ++d) {
        if (count[d][digitOf(src[0].value, d)] == uint32_t(n)) continue;
        uint32_t start = 0;
        for (int b = 0; b < kBuckets; ++b) {
            const uint32_t c = count[d][b];
            count[d][b] = start;
            start += c;
        }
        for (int i = 0; i < n; ++i) dst[count[d][digitOf(src[i].value, d)]++] = src[i];
        PsahEvent* t = src;
        src = dst;
        dst = t;
    }
    if (src != events)
        for (int i = 0; i < n; ++i) events[i] = src[i];
}

// ---------------------------------------------------------------------------

struct PsahArenaBlock {
    PsahArenaBlock* below;
    char* end;
};

namespace {

constexpr size_t kArenaBlockBytes = size_t(1) << 20;
constexpr size_t kArenaHeader = 16;  // keeps the data 8-byte aligned on both targets
static_assert(sizeof(PsahArenaBlock) <= kArenaHeader, "");

char* blockData(PsahArenaBlock* block) {
    return reinterpret_cast<char*>(block) + kArenaHeader;
}

PsahArenaBlock* newBlock(size_t bytes) {
    const size_t size =
        bytes + kArenaHeader < kArenaBlockBytes ? kArenaBlockBytes : bytes + kArenaHeader;
    if (size / 4 > size_t(INT32_MAX)) return nullptr;
    auto* block = reinterpret_cast<PsahArenaBlock*>(kelsMalloc_32s(int((size + 3) / 4)));
    if (block) block->end = reinterpret_cast<char*>(block) + size;
    return block;
}

}  // namespace

void* arenaTake(PsahArena* arena, size_t bytes) {
    if (!arena->top || size_t(arena->top->end - arena->cursor) < bytes) {
        PsahArenaBlock* block = arena->spare;
        if (block && size_t(block->end - blockData(block)) >= bytes) {
            arena->spare = nullptr;
        } else {
            block = newBlock(bytes);
            if (!block) return nullptr;
        }
        block->below = arena->top;
        arena->top = block;
        arena->cursor = blockData(block);
    }
    void* p = arena->cursor;
    arena->cursor += (bytes + 7) & ~size_t(7);
    return p;
}

void arenaRewind(PsahArena* arena, PsahArenaMark mark) {
    while (arena->top != mark.block) {
        PsahArenaBlock* block = arena->top;
        arena->top = block->below;
        kelsFree(arena->spare);
        arena->spare = block;
    }
    arena->cursor = mark.cursor;
}

void arenaRelease(PsahArena* arena) {
    arenaRewind(arena, PsahArenaMark{nullptr, nullptr});
    kelsFree(arena->spare);
    arena->spare = nullptr;
}

void* scratchOf(PsahScratch* scratch, size_t bytes) {
    if (bytes <= scratch->bytes) return scratch->data;
    const size_t size = bytes < 2 * scratch->bytes ? 2 * scratch->bytes : bytes;
    scratchRelease(scratch);
    if ((size + 3) / 4 > size_t(INT32_MAX)) return nullptr;
    scratch->data = kelsMalloc_32s(int((size + 3) / 4));
    scratch->bytes = scratch->data ? size : 0;
    return scratch->data;
}

void* scratchGrow(PsahScratch* scratch, size_t bytes, size_t keep) {
    if (bytes <= scratch->bytes) return scratch->data;
    PsahScratch grown;
    if (!scratchOf(&grown, bytes < 2 * scratch->bytes ? 2 * scratch->bytes : bytes)) return nullptr;
    const char* from = static_cast<const char*>(scratch->data);
    char* to = static_cast<char*>(grown.data);
    for (size_t i = 0; i < keep; ++i) to[i] = from[i];
    scratchRelease(scratch);
    *scratch = grown;
    return scratch->data;
}

void scratchRelease(PsahScratch* scratch) {
    kelsFree(scratch->data);
    scratch->data = nullptr;
    scratch->bytes = 0;
}

}  // namespace kel
