#include "kelcore.h"

static const KelLibraryVersion kCoreVersion = {
    5, 2, 108, 270, {'c', 'o', 'r', 'e'}, "libkelcore.so.5.2", "5.2", "Jul 11 2007"};

const KelLibraryVersion* kelcoreGetLibVersion(void) {
    return &kCoreVersion;
}
