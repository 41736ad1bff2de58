/**
 * @file kelcore.h
 * @brief kelcore: the family's core library (libkelcore.so.5.2).
 *
 * libkelrt7 names libkelcore as a needed library, so the two are installed
 * together; a program that links libkelrt7 needs nothing of kelcore itself.
 */
#ifndef KELCORE_H
#define KELCORE_H

#include "kelr.h"

#ifdef __cplusplus
extern "C" {
#endif

/**
 * @ingroup version
 * The version record of libkelcore.
 *
 * Its fields are those of kelrGetLibVersion()'s record, with
 * KelLibraryVersion::libraryName "libkelcore.so.5.2" and
 * KelLibraryVersion::cpuCode the four characters "core" (no terminating zero).
 *
 * @return Pointer to a static, read-only record; never null, the same at every
 *         call. Safe from any thread.
 */
KEL_API const KelLibraryVersion* kelcoreGetLibVersion(void);

#ifdef __cplusplus
}
#endif

#endif /* KELCORE_H */
