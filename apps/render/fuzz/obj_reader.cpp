// The OBJ reader's implementation, compiled into the fuzz target so that
// the fuzzer sees its branches and the sanitizers its memory accesses.
#define TINYOBJLOADER_IMPLEMENTATION
#include <tiny_obj_loader.h>
