#include "shading.h"

#include <algorithm>
#include <cmath>

#include "status.h"

namespace render {

namespace {

void lookUpMaterials(const Scene& scene, TileBuffers* tile) {
    const std::vector<int>& materialOf = scene.mesh.materialOfTriangle;
    for (int i = 0; i < kTileRays; ++i) {
        const int triangle = tile->triangle.at[i];
        const Material& m = triangle >= 0 ? scene.materials[materialOf[triangle]] : Material{};
        tile->albedo.x.at[i] = m.albedo[0];
        tile->albedo.y.at[i] = m.albedo[1];
        tile->albedo.z.at[i] = m.albedo[2];
        tile->specular.at[i] = m.specular;
        tile->shininess.at[i] = m.shininess;
        tile->reflectivity.at[i] = m.reflectivity;
    }
}

int countActive(const IntPlane& mask) {
    return int(std::count_if(mask.at, mask.at + kTileRays, [](int m) { return m >= 0; }));
}

// Leaves in tile->lit the hits that see the light: shadow rays run from the
// light to each hit, hits whose surface turns its back to the light (as seen
// from the ray's side) drop out when the rays are made, occluded ones when
// they are traced. Fills toPoint (light -> hit), cosine (|N . (P - L)|) and
// lightDistance.
void findLitHits(const PointLight& light, const IntersectContext& context, TileBuffers* tile,
                 RayCounts* rays) {
    const float* position = light.position.data();
    int* lit = tile->lit.at;
    std::copy(tile->triangle.at, tile->triangle.at + kTileRays, lit);
    check(kelrCastShadowSO_32f(position, tile->facing.at, tile->normal.planes, tile->point.planes,
                               lit, tile->cosine.at, tile->toPoint.planes, kTileRays),
          "kelrCastShadowSO_32f");
    rays->shadow += countActive(tile->lit);
    check(kelrIntersectAnySO_32f(position, tile->toPoint.planes, tile->occluder.at, lit, kTileSide,
                                 kTileSide, &context),
          "kelrIntersectAnySO_32f");
    check(kelrDistAttenuationSO_32f_M(position, tile->point.planes, lit, tile->lightDistance.at,
                                      kTileRays),
          "kelrDistAttenuationSO_32f_M");
}

// Divides factor by the distance to the light, once per call.
void divideByDistance(TileBuffers* tile, float* factor) {
    check(kelrDiv_32f_C1IM(tile->lightDistance.at, tile->lit.at, factor, kTileRays),
          "kelrDiv_32f_C1IM");
}

// Lambert: cosine holds |N . (P - L)| = r cos(theta), so one division by r
// gives cos(theta) and two more the inverse-square fall-off.
void addDiffuse(const PointLight& light, TileBuffers* tile) {
    float* diffuse = tile->diffuse.at;
    std::copy(tile->cosine.at, tile->cosine.at + kTileRays, diffuse);
    for (int i = 0; i < 3; ++i) divideByDistance(tile, diffuse);
    check(kelrAddMulMul_32f_AC1P3IM(light.colour.data(), diffuse, tile->albedo.planes, tile->lit.at,
                                    tile->colour.planes, kTileRays),
          "kelrAddMulMul_32f_AC1P3IM");
}

// Phong highlight in the light's colour: R . (P - L) / r is minus the cosine
// between the mirror direction and the direction to the light.
void addHighlight(const PointLight& light, TileBuffers* tile) {
    float* highlight = tile->highlight.at;
    const int* lit = tile->lit.at;
    check(
        kelrDot_32f_P3C1M(tile->reflected.planes, tile->toPoint.planes, lit, highlight, kTileRays),
        "kelrDot_32f_P3C1M");
    divideByDistance(tile, highlight);
    for (int i = 0; i < kTileRays; ++i) {
        if (lit[i] < 0) continue;
        const float c = std::max(0.0f, -highlight[i]);
        highlight[i] = c > 0.0f ? tile->specular.at[i] * std::pow(c, tile->shininess.at[i]) : 0.0f;
    }
    divideByDistance(tile, highlight);
    divideByDistance(tile, highlight);
    check(kelrAddMulMul_32f_AC1P3IM(light.colour.data(), highlight, tile->white.planes, lit,
                                    tile->colour.planes, kTileRays),
          "kelrAddMulMul_32f_AC1P3IM");
}

}  // namespace

void shadeHits(const Scene& scene, const IntersectContext& context, TileBuffers* tile,
               RayCounts* rays) {
    lookUpMaterials(scene, tile);
    tile->colour.fill(0.0f);
    check(kelrAddMulMul_32f_AC1P3IM(scene.ambient.data(), tile->ones.at, tile->albedo.planes,
                                    tile->triangle.at, tile->colour.planes, kTileRays),
          "kelrAddMulMul_32f_AC1P3IM");
    for (const PointLight& light : scene.lights) {
        findLitHits(light, context, tile, rays);
        addDiffuse(light, tile);
        addHighlight(light, tile);
    }
}

Vec3 skyColour(const Scene& scene, float up) {
    const float t = std::clamp(up, 0.0f, 1.0f);
    Vec3 sky;
    for (int k = 0; k < 3; ++k) sky[k] = scene.skyHorizon[k] * (1.0f - t) + scene.skyZenith[k] * t;
    return sky;
}

}  // namespace render
