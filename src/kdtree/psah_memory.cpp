// The PSAH build's real memory: arenas of blocks and growing scratch.
#include "kdtree/psah.h"

namespace kel {

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
    arena->cursor += (bytes + 3) & ~size_t(3);
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
