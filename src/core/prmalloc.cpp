// The 32-byte-aligned allocator. The only header is the raw address, kept in
// the pointer-sized word just before the returned block.
#include "core/kel_private.h"

namespace {

constexpr uintptr_t kAlignment = 32;

void* localMallocAligned(int len, uint32_t elementSize) {
    if (len < 1) return nullptr;
    // The product is deliberately not checked for overflow.
    uint32_t bytes = uint32_t(len) * elementSize + uint32_t(kAlignment + sizeof(void*));
    void* raw = i_malloc(bytes);
    if (!raw) return nullptr;
    uintptr_t block = (uintptr_t(raw) + kAlignment + sizeof(void*) - 1) & ~(kAlignment - 1);
    reinterpret_cast<void**>(block)[-1] = raw;
    return reinterpret_cast<void*>(block);
}

}  // namespace

extern "C" {

KEL_API int32_t* kelsMalloc_32s(int len) {
    return static_cast<int32_t*>(localMallocAligned(len, 4));
}

KEL_API int64_t* kelsMalloc_64s(int len) {
    return static_cast<int64_t*>(localMallocAligned(len, 8));
}

KEL_API void kelsFree(void* block) {
    if (block) i_free(static_cast<void**>(block)[-1]);
}
}
