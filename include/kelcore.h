/* kelcore: the family's core library (libkelcore.so.5.2). */
#ifndef KELCORE_H
#define KELCORE_H

#include "kelr.h"

#ifdef __cplusplus
extern "C" {
#endif

KEL_API const KelLibraryVersion* kelcoreGetLibVersion(void);

#ifdef __cplusplus
}
#endif

#endif /* KELCORE_H */
