// Placeholder until the PSAH driver lands: every PSAH build fails.
#include "kdtree/psah.h"

extern "C" KEL_API KelStatus ownKDTBldPSAH_ML(const float*, const int*, int, int, KDTreeNode**,
                                              int*, float, int, uint32_t, const float*) {
    return KEL_STS_INTERNAL;
}
