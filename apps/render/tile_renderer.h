// Traces one 16 x 16 tile of the image through the library: eye rays, local
// shading with shadows, then mirror bounces from the hit points.
#ifndef KELR_RENDER_TILE_RENDERER_H
#define KELR_RENDER_TILE_RENDERER_H

#include <memory>

#include "camera.h"
#include "image.h"
#include "ray_counts.h"
#include "scene.h"
#include "scene_accel.h"
#include "tile_buffers.h"

namespace render {

enum class NormalMode { kSmooth, kFlat };

class TileRenderer {
  public:
    TileRenderer(const Scene& scene, const SceneAccel& accel, const Camera& camera, int bounces,
                 NormalMode normals);

    // Renders tile (tileX, tileY) into image. Eye rays beyond the image's
    // edge are traced too, so that every block stays 16 x 16, but go no
    // further and are not counted.
    // Throws LibraryError when a library call fails.
    void render(int tileX, int tileY, Image* image, RayCounts* rays);

  private:
    void traceEyeRays(int tileX, int tileY, const Image& image, RayCounts* rays);
    void traceBounce(RayCounts* rays);
    void findSurfaces();
    void shadeAndAccumulate(RayCounts* rays);
    void addSkyForMisses(const IntPlane& wasAlive);
    bool prepareBounce();
    void copyToImage(int tileX, int tileY, Image* image) const;

    const Scene& scene_;
    const SceneAccel& accel_;
    const Camera& camera_;
    int bounces_;
    NormalMode normals_;
    std::unique_ptr<TileBuffers> tile_;
};

}  // namespace render

#endif
