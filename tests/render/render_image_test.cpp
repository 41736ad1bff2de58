// Whole renders through the library: the picture must not depend on the tree
// builder or the thread count, and shadows and reflections must fall where
// the geometry puts them.
#include <gtest/gtest.h>

#include <cstring>

#include "camera.h"
#include "renderer.h"
#include "scene_accel.h"
#include "shapes.h"

namespace {

using namespace render;

Material matte(const Vec3& albedo) {
    Material m;
    m.albedo = albedo;
    return m;
}

// A white floor at y = 0 lit by one light straight above the origin at
// height 5, with (optionally) a 2 x 2 square at height 1 between them, so
// the floor around the origin lies in its shadow. The camera looks at the
// origin from (0, 4, 8), past the square's edge.
Scene shadowScene(bool withOccluder) {
    Scene scene;
    scene.materials = {matte({0.8f, 0.8f, 0.8f}), matte({0.8f, 0.8f, 0.8f}),
                       matte({0.5f, 0.5f, 0.5f})};
    scene.mesh.append(makeCheckerFloor(10.0f, 20, 0.0f), 0);
    if (withOccluder) {
        Mesh square;
        const int a = square.addVertex({-1, 1, -1}, {0, 1, 0}),
                  b = square.addVertex({1, 1, -1}, {0, 1, 0});
        const int c = square.addVertex({1, 1, 1}, {0, 1, 0}),
                  d = square.addVertex({-1, 1, 1}, {0, 1, 0});
        square.addTriangle(a, c, b, 0);
        square.addTriangle(a, d, c, 0);
        scene.mesh.append(square, 2);
    }
    scene.lights = {{{0.0f, 5.0f, 0.0f}, {25.0f, 25.0f, 25.0f}}};
    scene.ambient = {0.05f, 0.05f, 0.05f};
    scene.camera.eye = {0.0f, 4.0f, 8.0f};
    scene.camera.lookAt = {0.0f, 0.0f, 0.0f};
    return scene;
}

// A green floor and a unit mirror sphere resting on it at (0, 1, 0), seen
// level from (0, 1, 5) under a blue sky.
Scene mirrorScene() {
    Scene scene;
    Material mirror = matte({0.0f, 0.0f, 0.0f});
    mirror.reflectivity = 1.0f;
    scene.materials = {matte({0.1f, 0.8f, 0.1f}), matte({0.1f, 0.8f, 0.1f}), mirror};
    scene.mesh.append(makeCheckerFloor(20.0f, 20, 0.0f), 0);
    scene.mesh.append(makeSphere({0.0f, 1.0f, 0.0f}, 1.0f, 96, 48), 2);
    scene.lights = {{{3.0f, 6.0f, 4.0f}, {60.0f, 60.0f, 60.0f}}};
    scene.skyHorizon = {0.1f, 0.2f, 0.9f};
    scene.skyZenith = {0.1f, 0.2f, 0.9f};
    scene.camera.eye = {0.0f, 1.0f, 5.0f};
    scene.camera.lookAt = {0.0f, 1.0f, 0.0f};
    return scene;
}

// The default scene's kind of content at low tessellation: floor, mirror
// sphere, torus, faceted ball and vase, two lights; a few thousand triangles.
Scene smallMixedScene() {
    Scene scene;
    Material mirror = matte({0.05f, 0.05f, 0.05f});
    mirror.reflectivity = 0.9f;
    mirror.specular = 0.5f;
    Material shiny = matte({0.7f, 0.1f, 0.1f});
    shiny.specular = 0.6f;
    shiny.shininess = 40.0f;
    shiny.reflectivity = 0.2f;
    scene.materials = {matte({0.8f, 0.8f, 0.8f}), matte({0.2f, 0.2f, 0.3f}), mirror, shiny,
                       matte({0.2f, 0.3f, 0.9f})};
    scene.mesh.append(makeCheckerFloor(8.0f, 16, 0.0f), 0);
    scene.mesh.append(makeSphere({0.0f, 1.2f, -1.0f}, 1.2f, 32, 16), 2);
    scene.mesh.append(makeTorus({-2.2f, 0.4f, 0.8f}, 0.8f, 0.35f, 32, 12), 3);
    scene.mesh.append(makeFacetedBall({1.8f, 0.6f, 1.2f}, 0.6f, 2), 4);
    scene.mesh.append(makeVase({0.3f, 0.0f, 2.0f}, 1.2f, 0.35f, 24, 12), 3);
    scene.lights = {{{-4.0f, 6.0f, 5.0f}, {80.0f, 80.0f, 80.0f}},
                    {{5.0f, 4.0f, 2.0f}, {30.0f, 30.0f, 40.0f}}};
    scene.camera.eye = {0.0f, 3.0f, 7.0f};
    scene.camera.lookAt = {0.0f, 0.8f, 0.0f};
    return scene;
}

RenderSettings smallRender(int bounces, int threads) {
    RenderSettings settings;
    settings.width = 64;
    settings.height = 64;
    settings.bounces = bounces;
    settings.threads = threads;
    return settings;
}

BuildSettings builder(TreeBuilder kind) {
    BuildSettings settings;
    settings.builder = kind;
    return settings;
}

RenderResult renderWith(const Scene& scene, TreeBuilder kind, const RenderSettings& settings) {
    SceneAccel accel(scene.mesh, builder(kind));
    return renderImage(scene, accel, scene.camera, settings);
}

bool sameBits(const Image& a, const Image& b) {
    return a.width == b.width && a.height == b.height &&
           std::memcmp(a.rgb.data(), b.rgb.data(), a.rgb.size() * sizeof(float)) == 0;
}

// The pixel of the 64 x 64 render whose centre ray runs towards point.
const float* pixelShowing(const Scene& scene, const Image& image, const Vec3& point) {
    Camera camera;
    EXPECT_TRUE(Camera::make(scene.camera, image.width, image.height, &camera));
    int column = -1, row = -1;
    EXPECT_TRUE(camera.pixelOf(point, &column, &row));
    return image.pixel(column, row);
}

float brightness(const float* rgb) {
    return rgb[0] + rgb[1] + rgb[2];
}

// Neither the tree builder nor the thread count changes a bit of the picture.
TEST(RenderImage, PsahOnOneThreadAndSimpleOnThreeGiveTheSameBits) {
    const Scene scene = smallMixedScene();
    SceneAccel psah(scene.mesh, builder(TreeBuilder::kPsah));
    // A PSAH tree of one leaf would make this comparison say nothing.
    ASSERT_GT(psah.stats().innerNodes, 10);
    const RenderResult fromPsah = renderImage(scene, psah, scene.camera, smallRender(3, 1));
    const RenderResult fromSimple = renderWith(scene, TreeBuilder::kSimple, smallRender(3, 3));

    EXPECT_TRUE(sameBits(fromPsah.image, fromSimple.image));
    EXPECT_EQ(fromPsah.rays.eye, fromSimple.rays.eye);
    EXPECT_EQ(fromPsah.rays.shadow, fromSimple.rays.shadow);
    EXPECT_EQ(fromPsah.rays.reflection, fromSimple.rays.reflection);
    EXPECT_GT(fromPsah.rays.reflection, 0);  // the mirror was traced at all
}

TEST(RenderImage, EdgeTilesFillSizesThatAreNotMultiplesOfSixteen) {
    // Everything in view is lit floor or bright sky, so an unwritten pixel
    // would stay black.
    const Scene scene = shadowScene(false);
    RenderSettings settings = smallRender(0, 2);
    settings.width = 37;
    settings.height = 21;
    const RenderResult result = renderWith(scene, TreeBuilder::kPsah, settings);
    ASSERT_EQ(result.image.rgb.size(), 37u * 21u * 3u);
    for (int row = 0; row < 21; ++row)
        for (int column = 0; column < 37; ++column)
            EXPECT_GT(brightness(result.image.pixel(column, row)), 0.1f) << column << "," << row;
    // Whole 16 x 16 blocks are traced, but only the rays of pixels count,
    // and only those cast shadow rays.
    EXPECT_EQ(result.rays.eye, 37 * 21);
    EXPECT_LE(result.rays.shadow, int64_t(37 * 21 * scene.lights.size()));
    EXPECT_GT(result.rays.shadow, 0);
}

TEST(RenderImage, FloorUnderTheOccluderIsInShadow) {
    const Scene blocked = shadowScene(true);
    const Scene open = shadowScene(false);
    const RenderSettings settings = smallRender(0, 2);
    const Image withSquare = renderWith(blocked, TreeBuilder::kPsah, settings).image;
    const Image withoutSquare = renderWith(open, TreeBuilder::kPsah, settings).image;

    // The origin is straight below the square and the light.
    const float* shadowed = pixelShowing(blocked, withSquare, {0.0f, 0.0f, 0.0f});
    const float* sameSpotLit = pixelShowing(open, withoutSquare, {0.0f, 0.0f, 0.0f});
    // (3, 0, 0) sees the light past the square's edge (the segment crosses
    // y = 1 at x = 2.4).
    const float* besideShadow = pixelShowing(blocked, withSquare, {3.0f, 0.0f, 0.0f});

    // In shadow only the ambient term is left: 0.05 * 0.8 per channel.
    for (int c = 0; c < 3; ++c) EXPECT_NEAR(shadowed[c], 0.04f, 1e-3f);
    // Without the square the same spot gets the light's full 25 / 5^2.
    EXPECT_NEAR(sameSpotLit[0], 0.04f + 0.8f, 0.02f);
    EXPECT_GT(brightness(besideShadow), 10.0f * brightness(shadowed));
}

TEST(RenderImage, MirrorShowsTheFloorBelowAndTheSkyAbove) {
    const Scene scene = mirrorScene();
    const Image mirrored = renderWith(scene, TreeBuilder::kPsah, smallRender(1, 2)).image;
    const Image unreflected = renderWith(scene, TreeBuilder::kPsah, smallRender(0, 2)).image;

    // Where the sphere's normal points 45 degrees down, a level view ray is
    // mirrored straight down onto the green floor; 45 degrees up, straight up
    // into the blue sky.
    const float s = 0.70710678f;
    const Vec3 lower = {0.0f, 1.0f - s, s}, upper = {0.0f, 1.0f + s, s};
    const float* floorInMirror = pixelShowing(scene, mirrored, lower);
    EXPECT_GT(floorInMirror[1], 2.0f * floorInMirror[0]);
    EXPECT_GT(floorInMirror[1], 2.0f * floorInMirror[2]);
    const float* skyInMirror = pixelShowing(scene, mirrored, upper);
    for (int c = 0; c < 3; ++c) EXPECT_NEAR(skyInMirror[c], scene.skyZenith[c], 1e-3f);

    // A black mirror without bounces shows nothing: the colour above came
    // from the reflected rays.
    const float* withoutBounce = pixelShowing(scene, unreflected, lower);
    EXPECT_EQ(brightness(withoutBounce), 0.0f);
}

}  // namespace
