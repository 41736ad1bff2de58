#include "tile_renderer.h"

#include <algorithm>
#include <cfloat>
#include <cmath>

#include "shading.h"
#include "status.h"

namespace render {

namespace {

// Hit points are pulled back this fraction of the way towards the ray's
// origin, so that rays leaving them do not hit their own surface again.
const float kHitScale = 0.9999f;

}  // namespace

TileRenderer::TileRenderer(const Scene& scene, const SceneAccel& accel, const Camera& camera,
                           int bounces, NormalMode normals)
    : scene_(scene),
      accel_(accel),
      camera_(camera),
      bounces_(bounces),
      normals_(normals),
      tile_(std::make_unique<TileBuffers>()) {}

void TileRenderer::render(int tileX, int tileY, Image* image, RayCounts* rays) {
    TileBuffers& t = *tile_;
    t.pixel.fill(0.0f);
    std::fill(t.throughput.at, t.throughput.at + kTileRays, 1.0f);
    std::fill(t.alive.at, t.alive.at + kTileRays, 0);

    traceEyeRays(tileX, tileY, *image, rays);
    addSkyForMisses(t.alive);
    findSurfaces();
    shadeAndAccumulate(rays);
    for (int bounce = 0; bounce < bounces_ && prepareBounce(); ++bounce) traceBounce(rays);
    copyToImage(tileX, tileY, image);
}

void TileRenderer::copyToImage(int tileX, int tileY, Image* image) const {
    const TileBuffers& t = *tile_;
    for (int row = 0; row < kTileSide; ++row) {
        const int y = tileY * kTileSide + row;
        if (y >= image->height) break;
        for (int column = 0; column < kTileSide; ++column) {
            const int x = tileX * kTileSide + column;
            if (x >= image->width) break;
            const int i = row * kTileSide + column;
            float* out = image->pixel(x, y);
            out[0] = t.pixel.x.at[i];
            out[1] = t.pixel.y.at[i];
            out[2] = t.pixel.z.at[i];
        }
    }
}

void TileRenderer::traceEyeRays(int tileX, int tileY, const Image& image, RayCounts* rays) {
    TileBuffers& t = *tile_;
    check(kelrCastEye_32f(camera_.corner.data(), camera_.columnStep.data(), camera_.rowStep.data(),
                          tileX, tileY, kTileSide, kTileSide, t.direction.planes, kTileSide,
                          kTileSide),
          "kelrCastEye_32f");
    // Unit directions make every distance a length in scene units, and the
    // mirror directions unit vectors too.
    check(kelrDot_32f_P3C1M(t.direction.planes, t.direction.planes, t.allActive.at, t.distance.at,
                            kTileRays),
          "kelrDot_32f_P3C1M");
    for (float& d : t.distance.at) d = 1.0f / std::sqrt(d);
    check(kelrMul_32f_C1P3IM(t.distance.at, t.allActive.at, t.direction.planes, kTileRays),
          "kelrMul_32f_C1P3IM");

    std::fill(t.distance.at, t.distance.at + kTileRays, FLT_MAX);
    check(kelrIntersectEyeSO_32f(camera_.eye.data(), t.direction.planes, t.distance.at, t.hit,
                                 t.triangle.at, &accel_.context(), kTileSide, kTileSide),
          "kelrIntersectEyeSO_32f");
    // Rays past the image's edge stop here: marked as misses they get no
    // shading, shadow rays or bounces, and they are not counted.
    for (int row = 0; row < kTileSide; ++row) {
        for (int column = 0; column < kTileSide; ++column) {
            const bool inside =
                tileX * kTileSide + column < image.width && tileY * kTileSide + row < image.height;
            if (inside)
                ++rays->eye;
            else
                t.triangle.at[row * kTileSide + column] = -1;
        }
    }
    check(kelrHitPoint3DEpsS0_32f_M(camera_.eye.data(), t.direction.planes, t.distance.at,
                                    t.triangle.at, t.point.planes, kTileRays, kHitScale),
          "kelrHitPoint3DEpsS0_32f_M");
}

void TileRenderer::traceBounce(RayCounts* rays) {
    TileBuffers& t = *tile_;
    // The new rays leave the current hit points along the mirror directions.
    t.origin.copyFrom(t.point);
    t.direction.copyFrom(t.reflected);
    // A zero distance makes the intersection skip the rays that stopped.
    for (int i = 0; i < kTileRays; ++i) t.distance.at[i] = t.alive.at[i] >= 0 ? FLT_MAX : 0.0f;
    check(kelrIntersectMO_32f(t.origin.planes, t.direction.planes, t.distance.at, t.hit,
                              t.triangle.at, &accel_.context(), kTileSide, kTileSide),
          "kelrIntersectMO_32f");
    rays->reflection +=
        std::count_if(t.alive.at, t.alive.at + kTileRays, [](int m) { return m >= 0; });
    check(kelrHitPoint3DEpsM0_32f_M(t.origin.planes, t.direction.planes, t.distance.at,
                                    t.triangle.at, t.point.planes, kTileRays, kHitScale),
          "kelrHitPoint3DEpsM0_32f_M");
    addSkyForMisses(t.alive);
    findSurfaces();
    shadeAndAccumulate(rays);
}

void TileRenderer::findSurfaces() {
    TileBuffers& t = *tile_;
    const Mesh& mesh = scene_.mesh;
    // The triangle ids double as the mask: -1 (no hit) gets a zero normal.
    if (normals_ == NormalMode::kSmooth) {
        check(kelrSurfSmoothNormal_32f(mesh.vertexNormals.data(), mesh.triangles.data(),
                                       t.triangle.at, t.hit, t.normal.planes, kTileRays, 4),
              "kelrSurfSmoothNormal_32f");
    } else {
        check(kelrSurfFlatNormal_32f(accel_.triangleNormals(), t.triangle.at, t.normal.planes,
                                     kTileRays),
              "kelrSurfFlatNormal_32f");
    }
    // Surfaces are two-sided: turn every normal towards the incoming ray.
    check(kelrDotChangeNorm_32f_IM(t.direction.planes, t.triangle.at, t.normal.planes, t.facing.at,
                                   kTileRays),
          "kelrDotChangeNorm_32f_IM");
    check(kelrCastReflectionRay_32f(t.direction.planes, t.triangle.at, t.normal.planes,
                                    t.reflected.planes, kTileRays),
          "kelrCastReflectionRay_32f");
}

void TileRenderer::shadeAndAccumulate(RayCounts* rays) {
    TileBuffers& t = *tile_;
    shadeHits(scene_, accel_.context(), &t, rays);
    const float unit[3] = {1.0f, 1.0f, 1.0f};
    check(kelrAddMulMul_32f_AC1P3IM(unit, t.throughput.at, t.colour.planes, t.triangle.at,
                                    t.pixel.planes, kTileRays),
          "kelrAddMulMul_32f_AC1P3IM");
}

void TileRenderer::addSkyForMisses(const IntPlane& wasAlive) {
    TileBuffers& t = *tile_;
    for (int i = 0; i < kTileRays; ++i) {
        if (wasAlive.at[i] < 0 || t.triangle.at[i] >= 0) continue;
        const Vec3 sky = skyColour(scene_, t.direction.y.at[i]);
        t.pixel.x.at[i] += t.throughput.at[i] * sky[0];
        t.pixel.y.at[i] += t.throughput.at[i] * sky[1];
        t.pixel.z.at[i] += t.throughput.at[i] * sky[2];
    }
}

bool TileRenderer::prepareBounce() {
    TileBuffers& t = *tile_;
    // A ray goes on only from a reflective surface, carrying the product of
    // the reflectivities it met; a contribution too faint to see stops it.
    bool any = false;
    for (int i = 0; i < kTileRays; ++i) {
        const bool goesOn = t.triangle.at[i] >= 0 && t.reflectivity.at[i] > 0.0f &&
                            t.throughput.at[i] * t.reflectivity.at[i] > 1e-3f;
        t.alive.at[i] = goesOn ? 0 : -1;
        any = any || goesOn;
    }
    check(kelrMul_32f_C1IM(t.reflectivity.at, t.alive.at, t.throughput.at, kTileRays),
          "kelrMul_32f_C1IM");
    return any;
}

}  // namespace render
