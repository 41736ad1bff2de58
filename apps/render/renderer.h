// Renders a whole image: tiles handed out to worker threads that all read the
// same kd-tree and intersection records.
#ifndef KELR_RENDER_RENDERER_H
#define KELR_RENDER_RENDERER_H

#include <functional>

#include "camera.h"
#include "image.h"
#include "ray_counts.h"
#include "scene.h"
#include "scene_accel.h"
#include "tile_renderer.h"

namespace render {

struct RenderSettings {
    int width = 1024;
    int height = 768;
    int bounces = 3;
    int threads = 0;  // 0: one per processor
    NormalMode normals = NormalMode::kSmooth;
};

struct RenderProgress {
    int tilesDone = 0;
    int tilesTotal = 0;
    double seconds = 0.0;
    RayCounts rays;
};

struct RenderResult {
    Image image;
    RayCounts rays;
    double seconds = 0.0;
    int threads = 0;
};

// Called on the calling thread about ten times a second while the workers
// run, and once more at the end.
using ProgressCallback = std::function<void(const RenderProgress&)>;

// Throws std::runtime_error when the camera set-up is unusable, and
// LibraryError when a library call fails in any thread (the other threads
// stop at their next tile).
RenderResult renderImage(const Scene& scene, const SceneAccel& accel, const CameraSetup& setup,
                         const RenderSettings& settings, const ProgressCallback& progress = {});

}  // namespace render

#endif
