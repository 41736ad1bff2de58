// The replaceable allocation hooks. The library reads i_malloc and i_free
// anew at every allocation and release, so an application may install its
// own before its first call.
#include <stdlib.h>

#include "core/kel_private.h"

extern "C" {
KEL_API void* (*i_malloc)(size_t) = malloc;
KEL_API void* (*i_calloc)(size_t, size_t) = calloc;
KEL_API void* (*i_realloc)(void*, size_t) = realloc;
KEL_API void (*i_free)(void*) = free;
KEL_API int32_t i_version = 1;
KEL_API int32_t i_min_version = 0;
}
