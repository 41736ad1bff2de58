// Placeholder until the PSAH optimisation lands.
#include "kdtree/psah.h"

extern "C" KEL_API KelStatus ownOptimizationPSAH(kel::PsahBuildState*, kel::PsahBuildNode*, float,
                                                 int, const float*) {
    return KEL_STS_INTERNAL;
}
