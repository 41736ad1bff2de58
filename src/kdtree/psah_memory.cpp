// The PSAH build's real memory: arenas of blocks and growing scratch.
#include "kdtree/psah.h"

namespace kel {

struct PsahArenaBlock {
    PsahArenaBlock* below;
    char* end;
};

namespace {

constexpr size_t kArenaBlockBytes = size_t(64) << 10;
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
    arena->cursor += (bytes + 3) & ~size_t(3);
    return p;
}

// Only a block of the usual size is kept for reuse: a larger one held for
// a single large request would stay taken for nothing.
void arenaRewind(PsahArena* arena, PsahArenaMark mark) {
    while (arena->top != mark.block) {
        PsahArenaBlock* block = arena->top;
        arena->top = block->below;
        if (size_t(block->end - reinterpret_cast<char*>(block)) > kArenaBlockBytes) {
            kelsFree(block);
            continue;
        }
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

namespace {

bool traceRoom(PsahWorkspace* work, size_t bytes) {
    PsahTrace* trace = work->trace;
    if (scratchGrow(&trace->bytes, trace->size + bytes, trace->size)) return true;
    work->failure = KEL_STS_NO_MEM;
    return false;
}

template <typename T>
void traceValue(PsahTrace* trace, T value) {
    auto* to = static_cast<uint8_t*>(trace->bytes.data) + trace->size;
    const auto* from = reinterpret_cast<const uint8_t*>(&value);
    for (size_t i = 0; i < sizeof(T); ++i) to[i] = from[i];
    trace->size += sizeof(T);
}

template <typename T>
T readValue(const uint8_t** p) {
    T value;
    auto* to = reinterpret_cast<uint8_t*>(&value);
    for (size_t i = 0; i < sizeof(T); ++i) to[i] = (*p)[i];
    *p += sizeof(T);
    return value;
}

}  // namespace

// Chunk requests and failures carry a word; record codes carry their size.
void traceCharge(PsahWorkspace* work, uint8_t code, uint32_t value) {
    if (work->failure != KEL_STS_OK || !traceRoom(work, 1 + sizeof(value))) return;
    traceValue(work->trace, code);
    const uint8_t kind = code & 0xF0;
    if (kind == kTraceChunk || kind == kTraceFail) traceValue(work->trace, value);
}

void traceSubtree(PsahWorkspace* work, const PsahTrace* subtree) {
    if (work->failure != KEL_STS_OK || !traceRoom(work, 1 + sizeof(subtree))) return;
    traceValue(work->trace, kTraceSubtree);
    traceValue(work->trace, subtree);
}

uint32_t traceWord(const uint8_t** p) {
    return readValue<uint32_t>(p);
}

const PsahTrace* traceSubtreeOf(const uint8_t** p) {
    return readValue<const PsahTrace*>(p);
}

}  // namespace kel
