// The renderer's handling of what users hand it: options, OBJ files, the
// PSAH budget, and the trees it reports on.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "camera.h"
#include "image.h"
#include "obj_loader.h"
#include "options.h"
#include "scene_accel.h"
#include "shapes.h"
#include "status.h"

namespace {

using namespace render;

bool parse(const std::vector<std::string>& args, Options* options, std::string* error) {
    return parseOptions(args, options, error);
}

TEST(Options, AcceptTheDocumentedForms) {
    Options o;
    std::string error;
    ASSERT_TRUE(parse(
        {"--size", "320x200", "--bounces", "0", "--builder", "simple", "--eye", "1,2.5,-3", "--fov",
         "60", "--normals", "flat", "--memory", "200", "--out", "a/b.PNG", "--quiet", "--version"},
        &o, &error))
        << error;
    EXPECT_EQ(o.render.width, 320);
    EXPECT_EQ(o.render.height, 200);
    EXPECT_EQ(o.render.bounces, 0);
    EXPECT_EQ(o.build.builder, TreeBuilder::kSimple);
    EXPECT_EQ(o.build.memoryMiB, 200u);
    EXPECT_EQ(o.render.normals, NormalMode::kFlat);
    ASSERT_TRUE(o.eye.has_value());
    EXPECT_EQ((*o.eye)[1], 2.5f);
    EXPECT_EQ(*o.fov, 60.0f);
    EXPECT_EQ(o.out, "a/b.PNG");
    EXPECT_TRUE(o.quiet);
    EXPECT_TRUE(o.version);

    Options square;
    ASSERT_TRUE(parse({"--size", "256"}, &square, &error));
    EXPECT_EQ(square.render.width, 256);
    EXPECT_EQ(square.render.height, 256);
}

TEST(Options, RejectUnknownMissingAndAbsurdValues) {
    const std::vector<std::vector<std::string>> bad = {
        {"--frobnicate"},          {"--size"},
        {"--size", "0x10"},        {"--size", "100000x10"},
        {"--size", "16384x16384"}, {"--size", "12x"},
        {"--size", "-5"},          {"--bounces", "17"},
        {"--bounces", "two"},      {"--threads", "0"},
        {"--builder", "bvh"},      {"--eye", "1,2"},
        {"--eye", "1,2,3,4"},      {"--fov", "180"},
        {"--fov", "nan"},          {"--memory", "31"},
        {"--memory", "4096"},      {"--weight", "1.5"},
        {"--max-depth", "51"},     {"stray"},
        {"--out", "picture.jpg"},  {"--out", "png"}};
    for (const auto& args : bad) {
        Options o;
        std::string error;
        EXPECT_FALSE(parse(args, &o, &error)) << args[0];
        EXPECT_FALSE(error.empty()) << args[0];
    }
    Options o;
    std::string error;
    parse({"--bogus", "1"}, &o, &error);
    EXPECT_NE(error.find("unknown option '--bogus'"), std::string::npos) << error;
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
    ASSERT_TRUE(parseObjText("v 0 0 0\nv 1 0 0\nv 0 1 0\nv 1 0 0\nv 0 1 0\nv 1 1 1\n"
                             "f 1 2 3\nf 4 6 5\n",
                             &folded, &error))
        << error;
    EXPECT_EQ(folded.vertexCount(), 4);
    EXPECT_EQ(folded.triangles[1], folded.triangles[4]);
    EXPECT_EQ(folded.triangles[2], folded.triangles[6]);
}

TEST(ObjLoader, ExplainsBrokenInput) {
    Mesh mesh;
    std::string error;
    EXPECT_FALSE(loadObjFile("/nonexistent/model.obj", &mesh, &error));
    EXPECT_NE(error.find("cannot open"), std::string::npos) << error;

    const char* broken[] = {
        "",                                           // nothing at all
        "\x89PNG\r\n\x1a\n binary junk \x01\x02",     // not OBJ
        "v 0 0 0\nv 1 0 0\nv 0 1 0\n",                // vertices but no face
        "v 0 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 7\n",       // index past the end
        "v 0 0 0\nv 1 0 0\nv 0 1 0\nf -1 -2 -9\n",    // relative index before the start
        "v 0 0 0\nv 1 1e999 0\nv 0 1 0\nf 1 2 3\n",   // overflows to infinity
        "v 0 0 0\nv 1 nan 0\nv 0 1 0\nf 1 2 3\n",     // read as 0 by the reader itself
        "v 0 0 0\nv 1 0\n",                           // cut off in a vertex
        "v 0 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 3\nf 1 2",  // cut off in a face
    };
    for (const char* text : broken) {
        error.clear();
        EXPECT_FALSE(parseObjText(text, &mesh, &error)) << text;
        EXPECT_FALSE(error.empty()) << text;
    }
}

TEST(SceneAccel, ReportsBuildFailuresClearly) {
    Mesh empty;
    EXPECT_THROW(SceneAccel(empty, BuildSettings()), std::runtime_error);

    // A budget of 32 MiB is below what the builder needs up front for any mesh.
    const Mesh sphere = makeSphere({0, 0, 0}, 1.0f, 16, 8);
    BuildSettings tight;
    tight.memoryMiB = 32;
    try {
        SceneAccel accel(sphere, tight);
        FAIL() << "a 32 MiB budget was accepted";
    } catch (const LibraryError& e) {
        const std::string message = e.what();
        EXPECT_EQ(message.rfind("kelrKDTreeBuildAlloc failed: KEL_STS_NO_MEM (-4)", 0), 0u)
            << message;
        EXPECT_NE(message.find("--memory"), std::string::npos) << message;
    }
    EXPECT_STREQ(LibraryError("kelrIntersectMO_32f", KEL_STS_OVERFLOW).what(),
                 "kelrIntersectMO_32f failed: KEL_STS_OVERFLOW (-9)");
    EXPECT_STREQ(statusName(-77), "unknown status");
}

TEST(SceneAccel, BudgetCoversTheBuildersFixedNeed) {
    // The builder refuses budgets below 12 V + 84 T bytes + 32 MiB + 244.
    for (int t : {1, 1000, 250000, 4000000}) {
        const int v = t / 2 + 3;
        const double need = (12.0 * v + 84.0 * t + 244.0) / 1048576.0 + 32.0;
        EXPECT_GT(psahBudgetMiB(v, t), need) << t;
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

// A packed block: the root splits into two leaves holding triangles {0, 1}
// and {2}. Layout: root, spare words, child pair, then the lists.
struct TwoLeafTree {
    KDTreeNode nodes[4];
    int lists[3];
};

TEST(WalkTree, CountsNodesLeavesAndDepth) {
    TwoLeafTree tree = {};
    tree.nodes[0].link = 16 | 1;  // split on y, children 16 bytes on
    tree.nodes[0].data.split = 0.5f;
    tree.nodes[2].link = 16 - 32;  // first leaf's list at byte 32
    tree.nodes[2].data.count = 2;
    tree.nodes[3].link = 24 - 40;  // second list right after the first
    tree.nodes[3].data.count = 1;
    tree.lists[0] = 0;
    tree.lists[1] = 1;
    tree.lists[2] = 2;
    const TreeStats stats = walkTree(tree.nodes, int(sizeof tree));
    EXPECT_EQ(stats.innerNodes, 1);
    EXPECT_EQ(stats.leaves, 2);
    EXPECT_EQ(stats.emptyLeaves, 0);
    EXPECT_EQ(stats.maxDepth, 1);
    EXPECT_EQ(stats.triangleReferences, 3);
    EXPECT_EQ(stats.largestLeaf, 2);

    // A link past the end of the block is reported, not followed.
    tree.nodes[3].data.count = 50;
    EXPECT_THROW(walkTree(tree.nodes, int(sizeof tree)), std::runtime_error);
    tree.nodes[3].data.count = 1;
    tree.nodes[0].link = 4000 | 1;
    EXPECT_THROW(walkTree(tree.nodes, int(sizeof tree)), std::runtime_error);
}

}  // namespace
