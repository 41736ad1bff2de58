// The figures printed after a render.
#ifndef KELR_RENDER_SUMMARY_H
#define KELR_RENDER_SUMMARY_H

#include <string>

#include "options.h"
#include "renderer.h"
#include "scene.h"
#include "scene_accel.h"

namespace render {

// 1234567 -> "1,234,567"
std::string withThousands(int64_t value);

std::string summaryText(const Scene& scene, const SceneAccel& accel, const Options& options,
                        const RenderResult& result);

}  // namespace render

#endif
