// Local shading of the hits of one ray generation: ambient light, and for
// each point light a shadow test, a Lambert term and a highlight, all with
// 1/r^2 fall-off.
#ifndef KELR_RENDER_SHADING_H
#define KELR_RENDER_SHADING_H

#include "kelr.h"
#include "ray_counts.h"
#include "scene.h"
#include "tile_buffers.h"

namespace render {

// Reads triangle, point, normal, facing and reflected of the buffers; fills
// the surface properties and writes the local colour of every hit to
// colour (zero for rays that hit nothing). Counts the shadow rays traced.
void shadeHits(const Scene& scene, const IntersectContext& context, TileBuffers* tile,
               RayCounts* rays);

// The sky seen along a unit direction whose vertical component is up: the
// horizon colour at and below the horizon, blending to the zenith overhead.
Vec3 skyColour(const Scene& scene, float up);

}  // namespace render

#endif
