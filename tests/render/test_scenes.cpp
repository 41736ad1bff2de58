#include "test_scenes.h"

#include "shapes.h"

namespace render_test {

using namespace render;

namespace {

Material matte(const Vec3& albedo) {
    Material m;
    m.albedo = albedo;
    return m;
}

}  // namespace

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

}  // namespace render_test
