// The 32-byte-aligned allocator. The only header is the raw address, kept in
// the pointer-sized word just before the returned block.
#include "core/kel_private.h"

namespace {

constexpr uintptr_t kAlignment = 32;

void* localMallocAligned(int len, size_t elementSize) {
    if (len < 1) return nullptr;
    // The byte count is a size_t. A count that does not fit one (only a
    // 32-bit target can get there) is refused rather than wrapped into a
    // small block the caller would then overrun.
    size_t bytes;
    if (__builtin_mul_overflow(size_t(len), elementSize, &bytes) ||
        __builtin_add_overflow(bytes, size_t(kAlignment + sizeof(void*)), &bytes))
        return nullptr;
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
