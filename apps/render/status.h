// Turning the library's status codes into errors a user can read.
#ifndef KELR_RENDER_STATUS_H
#define KELR_RENDER_STATUS_H

#include <stdexcept>
#include <string>

#include "kelr.h"

namespace render {

// A library call that did not return KEL_STS_OK. The message names the
// function and the status, e.g. "kelrKDTreeBuildAlloc failed: KEL_STS_OVERFLOW (-9)".
class LibraryError : public std::runtime_error {
  public:
    LibraryError(const char* function, KelStatus status, const std::string& hint = "");
    KelStatus status() const { return status_; }
    const std::string& function() const { return function_; }

  private:
    std::string function_;
    KelStatus status_;
};

// "KEL_STS_OVERFLOW", or "unknown status" for a code the header does not define.
const char* statusName(KelStatus status);

// Every library call in the renderer goes through this: a failure becomes a
// LibraryError instead of a silently wrong picture.
inline void check(KelStatus status, const char* function) {
    if (status != KEL_STS_OK) throw LibraryError(function, status);
}

}  // namespace render

#endif
