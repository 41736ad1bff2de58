// The renderer's handling of what users hand it: options, OBJ files, the
// PSAH budget, and the trees it reports on. Bad input is run through the
// program itself (render_cli_* in CMakeLists.txt).
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <tuple>
#include <vector>

#include "camera.h"
#include "image.h"
#include "obj_loader.h"
#include "options.h"
#include "scene_accel.h"
#include "shapes.h"
#include "soups.h"
#include "trees.h"

namespace {

using namespace render;

TEST(Options, AcceptTheDocumentedForms) {
    Options o;
    std::string error;
    ASSERT_TRUE(parseOptions(
        {"--size", "320x200", "--bounces", "0", "--builder", "simple", "--eye", "1,2.5,-3", "--fov",
         "60", "--normals", "flat", "--memory", "200", "--out", "a/b.PNG", "--quiet", "--version"},
        &o, &error))
        << error;
    ASSERT_TRUE(o.eye.has_value() && o.fov.has_value());
    EXPECT_EQ(std::make_tuple(o.render.width, o.render.height, o.render.bounces, o.build.builder,
                              o.build.memoryMiB, o.render.normals, (*o.eye)[1], *o.fov, o.out,
                              o.quiet, o.version),
              std::make_tuple(320, 200, 0, TreeBuilder::kSimple, 200u, NormalMode::kFlat, 2.5f,
                              60.0f, std::string("a/b.PNG"), true, true));

    Options square;
    ASSERT_TRUE(parseOptions({"--size", "256"}, &square, &error));
    EXPECT_TRUE(square.render.width == 256 && square.render.height == 256);
}

TEST(ObjLoader, ReadsFacesAndKeepsOrComputesNormals) {
    Mesh mesh;
    std::string error;
    // A quad, fan-cut into two triangles, without normals.
    ASSERT_TRUE(parseObjText("v 0 0 0\nv 1 0 0\nv 1 0 1\nv 0 0 1\nf 1 2 3 4\n", &mesh, &error))
        << error;
    EXPECT_EQ(mesh.triangleCount(), 2);
    EXPECT_EQ(mesh.vertexCount(), 4);
    ASSERT_EQ(mesh.vertexNormals.size(), 12u);
    for (int v = 0; v < 4; ++v) EXPECT_FLOAT_EQ(std::fabs(mesh.vertexNormals[3 * v + 1]), 1.0f);

    // With normals: one vertex per (position, normal) pair, normals made unit.
    Mesh withNormals;
    ASSERT_TRUE(
        parseObjText("v 0 0 0\nv 1 0 0\nv 0 1 0\nvn 0 0 2\nvn 0 0 -1\n"
                     "f 1//1 2//1 3//1\nf 1//2 3//2 2//2\n",
                     &withNormals, &error))
        << error;
    EXPECT_EQ(withNormals.triangleCount(), 2);
    EXPECT_EQ(withNormals.vertexCount(), 6);
    EXPECT_FLOAT_EQ(withNormals.vertexNormals[2], 1.0f);
    EXPECT_FLOAT_EQ(withNormals.vertexNormals[3 * 3 + 2], -1.0f);

    // Corners written twice (as along the patch borders of a teapot) are
    // welded, so the normals computed from the faces are smooth across the
    // shared edge: the two triangles of this fold share its two corners.
    Mesh folded;
    ASSERT_TRUE(
        parseObjText("v 0 0 0\nv 1 0 0\nv 0 1 0\nv 1 0 0\nv 0 1 0\nv 1 1 1\n"
                     "f 1 2 3\nf 4 6 5\n",
                     &folded, &error))
        << error;
    EXPECT_EQ(folded.vertexCount(), 4);
    EXPECT_EQ(folded.triangles[1], folded.triangles[4]);
    EXPECT_EQ(folded.triangles[2], folded.triangles[6]);
}

TEST(SceneAccel, BudgetCoversTheBuildersFixedNeed) {
    // The builder refuses budgets below its fixed need.
    for (int t : {1, 1000, 250000, 4000000}) {
        const int v = t / 2 + 3;
        EXPECT_GT(uint64_t(psahBudgetMiB(v, t)) << 20, kelt::psahFixedNeedBytes(v, t)) << t;
    }
    // The default scene builds with the budget sized for it.
    const Mesh sphere = makeSphere({0, 0, 0}, 1.0f, 64, 32);
    SceneAccel accel(sphere, BuildSettings());
    EXPECT_GT(accel.stats().innerNodes, 0);
}

TEST(Camera, FindsThePixelOfAPointAndRefusesDirectionlessSetUps) {
    CameraSetup setup;
    setup.eye = {1.0f, 2.0f, 9.0f};
    setup.lookAt = {0.0f, 0.5f, 0.0f};
    Camera camera;
    ASSERT_TRUE(Camera::make(setup, 96, 64, &camera));
    // A point some way along pixel (70, 13)'s ray maps back to that pixel;
    // the pixel checks of the image tests rely on this.
    Vec3 point;
    for (int k = 0; k < 3; ++k)
        point[k] = camera.eye[k] +
                   4.0f * (camera.corner[k] + 70 * camera.columnStep[k] + 13 * camera.rowStep[k]);
    int column = -1, row = -1;
    ASSERT_TRUE(camera.pixelOf(point, &column, &row));
    EXPECT_EQ(column, 70);
    EXPECT_EQ(row, 13);
    // Row 0 is the top of the image: a point above the target has a smaller row.
    ASSERT_TRUE(camera.pixelOf({0.0f, 1.5f, 0.0f}, &column, &row));
    EXPECT_LT(row, 32);
    EXPECT_FALSE(camera.pixelOf({1.0f, 2.0f, 20.0f}, &column, &row));  // behind the eye

    setup.lookAt = setup.eye;
    EXPECT_FALSE(Camera::make(setup, 96, 64, &camera));
    setup.lookAt = {1.0f, -5.0f, 9.0f};  // straight down, along 'up'
    EXPECT_FALSE(Camera::make(setup, 96, 64, &camera));
}

TEST(Output, RefusesFoldersAndUnwritablePlaces) {
    std::string error;
    EXPECT_FALSE(outputWritable("/tmp", &error));
    EXPECT_NE(error.find("folder"), std::string::npos) << error;
    EXPECT_FALSE(outputWritable("/proc/no/such/place.png", &error));
    EXPECT_EQ(toSrgb8(0.0f), 0);
    EXPECT_EQ(toSrgb8(1.0f), 255);
    EXPECT_EQ(toSrgb8(7.0f), 255);  // clamped, not wrapped
    EXPECT_EQ(toSrgb8(-1.0f), 0);
    // The sRGB curve, not a plain 1/2.2 power (which gives 186 and 15).
    EXPECT_EQ(toSrgb8(0.5f), 188);
    EXPECT_EQ(toSrgb8(0.002f), 7);
}

// A PSAH tree of a seeded soup, against the test library's own walk of it;
// a link past the end of the block is reported, not followed.
TEST(WalkTree, CountsNodesLeavesAndDepth) {
    const kelt::Mesh mesh = kelt::randomSoup(4, 500);
    const KDTreeBuildContext context = {KDT_BUILD_PSAH, 20, 1.0f, 128, nullptr};
    KDTreeNode* tree = nullptr;
    int size = 0;
    ASSERT_EQ(KEL_STS_OK, kelrKDTreeBuildAlloc(&tree, mesh.vertices.data(), mesh.triangles.data(),
                                               mesh.vertexCount(), 500, &size, &context));
    kelt::TreeSummary want;
    ASSERT_EQ("", kelt::checkTree(tree, size, 500, &want));
    int empty = 0, largest = 0;
    for (const kelt::TreeLeaf& leaf : want.leaves)
        empty += leaf.count == 0, largest = std::max(largest, leaf.count);
    ASSERT_TRUE(want.innerNodes > 0 && empty > 0);
    const TreeStats got = walkTree(tree, size);
    EXPECT_EQ(std::make_tuple(got.innerNodes, got.leaves, got.emptyLeaves, got.maxDepth,
                              got.triangleReferences, got.largestLeaf),
              std::make_tuple(want.innerNodes, int(want.leaves.size()), empty, want.maxDepth,
                              int64_t(want.listed), largest));
    EXPECT_THROW(walkTree(tree, size - 4), std::runtime_error);  // the last list
    EXPECT_THROW(walkTree(tree, 24), std::runtime_error);        // the root's pair
    kelrKDTreeFree(tree);
}

}  // namespace
