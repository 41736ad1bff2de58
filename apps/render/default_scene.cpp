#include "default_scene.h"

#include <algorithm>
#include <limits>

#include "shapes.h"

namespace render {

namespace {

enum MaterialId { kFloorLight, kFloorDark, kMirror, kRed, kGold, kPorcelain, kBlue, kClay };

std::vector<Material> sceneMaterials() {
    std::vector<Material> m(8);
    m[kFloorLight] = {{0.80f, 0.78f, 0.74f}, 0.05f, 16.0f, 0.0f};
    m[kFloorDark] = {{0.08f, 0.09f, 0.11f}, 0.10f, 32.0f, 0.10f};
    m[kMirror] = {{0.04f, 0.04f, 0.04f}, 0.6f, 200.0f, 0.9f};
    m[kRed] = {{0.75f, 0.08f, 0.06f}, 0.5f, 60.0f, 0.08f};
    m[kGold] = {{0.80f, 0.55f, 0.15f}, 0.8f, 80.0f, 0.25f};
    m[kPorcelain] = {{0.90f, 0.90f, 0.86f}, 0.4f, 40.0f, 0.05f};
    m[kBlue] = {{0.10f, 0.30f, 0.85f}, 0.7f, 120.0f, 0.15f};
    m[kClay] = {{0.62f, 0.50f, 0.42f}, 0.2f, 24.0f, 0.0f};
    return m;
}

// The part every scene shares: floor, mirror sphere, lights and camera.
Scene makeStage() {
    Scene scene;
    scene.materials = sceneMaterials();
    scene.mesh.append(makeCheckerFloor(12.0f, 80, 0.0f), kFloorLight);
    scene.mesh.append(makeSphere({0.0f, 1.7f, -2.0f}, 1.7f, 192, 96), kMirror);
    // A warm key light high on the left, so that the solids' shadows fall to
    // their right where the camera sees them; a cooler, weaker fill in front
    // on the right keeps the shaded sides from going black.
    scene.lights = {{{-8.0f, 10.0f, 3.0f}, {150.0f, 135.0f, 115.0f}},
                    {{6.0f, 5.0f, 9.0f}, {20.0f, 24.0f, 32.0f}}};
    scene.camera.eye = {0.0f, 3.4f, 10.0f};
    scene.camera.lookAt = {0.0f, 1.2f, 0.0f};
    return scene;
}

}  // namespace

Scene makeDefaultScene() {
    Scene scene = makeStage();
    Mesh& mesh = scene.mesh;
    mesh.append(makeTorus({-3.4f, 0.5f, 0.6f}, 1.15f, 0.5f, 256, 96), kRed);
    mesh.append(makeSpring({3.3f, 0.0f, 0.2f}, 0.95f, 0.17f, 2.8f, 5.5f, 1536, 24), kGold);
    mesh.append(makeVase({-1.3f, 0.0f, 2.6f}, 2.0f, 0.55f, 192, 96), kPorcelain);
    mesh.append(makeFacetedBall({1.5f, 0.75f, 2.8f}, 0.75f, 3), kBlue);
    return scene;
}

Scene makeSceneAroundMesh(const Mesh& model) {
    Scene scene = makeStage();
    float low[3], high[3];
    for (int k = 0; k < 3; ++k) {
        low[k] = std::numeric_limits<float>::max();
        high[k] = -std::numeric_limits<float>::max();
    }
    for (size_t i = 0; i < model.vertices.size(); ++i) {
        low[i % 3] = std::min(low[i % 3], model.vertices[i]);
        high[i % 3] = std::max(high[i % 3], model.vertices[i]);
    }
    // Scale the largest side to 3.2 units, centre it on x and z in front of
    // the sphere and stand it on the floor.
    const float largest = std::max({high[0] - low[0], high[1] - low[1], high[2] - low[2]});
    const float factor = largest > 0.0f ? 3.2f / largest : 1.0f;
    const float target[3] = {0.0f, 0.0f, 1.8f};
    const float offset[3] = {target[0] - 0.5f * (low[0] + high[0]) * factor, -low[1] * factor,
                             target[2] - 0.5f * (low[2] + high[2]) * factor};
    Mesh placed = model;
    for (size_t i = 0; i < placed.vertices.size(); ++i)
        placed.vertices[i] = placed.vertices[i] * factor + offset[i % 3];
    placed.materialOfTriangle.assign(placed.triangleCount(), 0);
    scene.mesh.append(placed, kClay);
    return scene;
}

}  // namespace render
