// The scenes the program builds on its own: their size, their consistency
// and where a loaded mesh ends up.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "default_scene.h"
#include "obj_loader.h"
#include "progress.h"
#include "summary.h"

namespace {

using namespace render;

// Every array the library or the shading reads per triangle or per vertex
// must match the mesh, or a lookup would run past its end.
void expectConsistent(const Scene& scene) {
    const Mesh& mesh = scene.mesh;
    ASSERT_EQ(mesh.vertexNormals.size(), mesh.vertices.size());
    ASSERT_EQ(mesh.materialOfTriangle.size(), size_t(mesh.triangleCount()));
    for (int t = 0; t < mesh.triangleCount(); ++t) {
        for (int k = 0; k < 3; ++k) {
            ASSERT_GE(mesh.triangles[4 * t + k], 0);
            ASSERT_LT(mesh.triangles[4 * t + k], mesh.vertexCount());
        }
        ASSERT_GE(mesh.materialOfTriangle[t], 0);
        ASSERT_LT(mesh.materialOfTriangle[t], int(scene.materials.size()));
    }
    for (int v = 0; v < mesh.vertexCount(); ++v) {
        const float* n = &mesh.vertexNormals[3 * v];
        ASSERT_NEAR(std::sqrt(n[0] * n[0] + n[1] * n[1] + n[2] * n[2]), 1.0f, 1e-4f) << v;
    }
}

TEST(DefaultScene, IsLargeConsistentAndLit) {
    const Scene scene = makeDefaultScene();
    EXPECT_GE(scene.mesh.triangleCount(), 200000);
    EXPECT_EQ(scene.lights.size(), 2u);
    expectConsistent(scene);
    // Something in it is a mirror, or the bounces would have nothing to do.
    EXPECT_TRUE(std::any_of(scene.materials.begin(), scene.materials.end(),
                            [](const Material& m) { return m.reflectivity >= 0.8f; }));
}

TEST(SceneAroundMesh, StandsTheMeshOnTheFloorAtAFixedSize) {
    Mesh tetrahedron;
    std::string error;
    // Far from the origin and tiny: placement must undo both.
    ASSERT_TRUE(
        parseObjText("v 100 -50 7\nv 100.01 -50 7\nv 100 -49.98 7\nv 100 -50 7.01\n"
                     "f 1 3 2\nf 1 2 4\nf 1 4 3\nf 2 3 4\n",
                     &tetrahedron, &error))
        << error;
    const Scene stage = makeSceneAroundMesh(Mesh());
    const Scene scene = makeSceneAroundMesh(tetrahedron);
    expectConsistent(scene);
    ASSERT_EQ(scene.mesh.triangleCount(), stage.mesh.triangleCount() + 4);

    float low[3] = {1e30f, 1e30f, 1e30f}, high[3] = {-1e30f, -1e30f, -1e30f};
    for (int v = stage.mesh.vertexCount(); v < scene.mesh.vertexCount(); ++v)
        for (int k = 0; k < 3; ++k) {
            low[k] = std::min(low[k], scene.mesh.vertices[3 * v + k]);
            high[k] = std::max(high[k], scene.mesh.vertices[3 * v + k]);
        }
    EXPECT_NEAR(low[1], 0.0f, 1e-4f);            // resting on the floor
    EXPECT_NEAR(high[1] - low[1], 3.2f, 1e-3f);  // its largest side scaled to 3.2
    EXPECT_NEAR(0.5f * (low[0] + high[0]), 0.0f, 1e-3f);
}

TEST(Reporting, FormatsCountsAndProgress) {
    EXPECT_EQ(withThousands(0), "0");
    EXPECT_EQ(withThousands(999), "999");
    EXPECT_EQ(withThousands(1000), "1,000");
    EXPECT_EQ(withThousands(211840), "211,840");
    EXPECT_EQ(withThousands(-1234567), "-1,234,567");

    RenderProgress progress;
    progress.tilesDone = 3;
    progress.tilesTotal = 12;
    progress.seconds = 2.0;
    progress.rays.eye = 3000000;
    progress.rays.shadow = 1000000;
    const std::string line = progressLine(progress, 8);
    EXPECT_EQ(line.rfind("[##......] 3/12 tiles", 0), 0u) << line;
    EXPECT_NE(line.find("2.00 Mrays/s"), std::string::npos) << line;
}

}  // namespace
