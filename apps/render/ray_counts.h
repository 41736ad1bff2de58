// How many rays of each kind a render traced, for the progress display and
// the summary.
#ifndef KELR_RENDER_RAY_COUNTS_H
#define KELR_RENDER_RAY_COUNTS_H

#include <cstdint>

namespace render {

struct RayCounts {
    int64_t eye = 0;
    int64_t shadow = 0;
    int64_t reflection = 0;
    int64_t total() const { return eye + shadow + reflection; }
};

}  // namespace render

#endif
