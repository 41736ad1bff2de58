#include "core/kel_private.h"

namespace {

const KelLibraryVersion kVersion = {
    5, 2, 108, 270, {'t', '7', 0, 0}, "libkelrt7.so.5.2", "5.2", "Jul 11 2007"};

}  // namespace

extern "C" KEL_API const KelLibraryVersion* kelrGetLibVersion(void) {
    return &kVersion;
}
