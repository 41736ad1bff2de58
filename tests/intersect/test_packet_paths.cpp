// The four-ray path against the scalar workers, ray by ray: same triangle
// ids, masks and (within the rounding of the triangle test) distances and
// barycentrics, on meshes and random scenes, with one-leaf, median-split
// and PSAH trees.
#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "intersect/packet.h"
#include "mesh.h"
#include "oracle.h"
#include "packed_tree.h"
#include "scene.h"

namespace {

using kelt::Plane;
using kelt::Planes3;
using kelt::TestScene;

constexpr int kW = 32, kH = 32, kRays = kW * kH;

// A scene with its trees: the one-leaf tree of the library, a median-split
// tree with small leaves, and a PSAH tree.
struct SceneTrees {
    TestScene scene;
    std::vector<std::pair<std::string, const KDTreeNode*>> trees;
    KDTreeNode* simple = nullptr;
    KDTreeNode* psah = nullptr;
    std::unique_ptr<kelt::PackedTree> median;

    void build() {
        scene.finish();
        int size = 0;
        KDTreeBuildContext simpleContext{KDT_BUILD_SIMPLE, 0, 0.0f, 0, nullptr};
        // One leaf means every ray tests every triangle: only for small scenes.
        if (scene.count() < 10000 &&
            kelrKDTreeBuildAlloc(&simple, scene.vertices.data(), scene.triangles.data(),
                                 int(scene.vertices.size() / 3), scene.count(), &size,
                                 &simpleContext) == KEL_STS_OK)
            trees.push_back({"simple", simple});
        kelt::MedianSplitBuilder builder(scene.vertices.data(), scene.triangles.data(),
                                         scene.count(), 6, 24);
        median = std::make_unique<kelt::PackedTree>(*builder.build(scene.box));
        trees.push_back({"median", median->root()});
        KDTreeBuildContext psahContext{KDT_BUILD_PSAH, 30, 0.5f, 256, nullptr};
        if (kelrKDTreeBuildAlloc(&psah, scene.vertices.data(), scene.triangles.data(),
                                 int(scene.vertices.size() / 3), scene.count(), &size,
                                 &psahContext) == KEL_STS_OK)
            trees.push_back({"psah", psah});
        else
            ADD_FAILURE() << "no PSAH tree";
    }
    ~SceneTrees() {
        kelrKDTreeFree(simple);
        kelrKDTreeFree(psah);
    }
};

void addMesh(const kelt::Mesh& mesh, TestScene* scene) {
    for (int t = 0; t < mesh.triangleCount(); ++t) {
        const float* v[3];
        for (int c = 0; c < 3; ++c) v[c] = &mesh.vertices[3 * mesh.triangles[4 * t + c]];
        scene->addTriangle(v[0], v[1], v[2]);
    }
}

// Random triangles of mixed sizes in the unit cube, plus axis-aligned quads
// (flat records) and a degenerate triangle.
void addRandomSoup(unsigned seed, TestScene* scene) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> unit(0.0f, 1.0f), small(-0.08f, 0.08f);
    for (int t = 0; t < 400; ++t) {
        const float c[3] = {unit(rng), unit(rng), unit(rng)};
        const float scale = t % 10 == 0 ? 4.0f : 1.0f;
        float v[3][3];
        for (int k = 0; k < 3; ++k)
            for (int a = 0; a < 3; ++a) v[k][a] = c[a] + scale * small(rng);
        scene->addTriangle(v[0], v[1], v[2]);
    }
    const float q[4][3] = {
        {0.1f, 0.5f, 0.1f}, {0.9f, 0.5f, 0.1f}, {0.9f, 0.5f, 0.9f}, {0.1f, 0.5f, 0.9f}};
    scene->addTriangle(q[0], q[1], q[2]);
    scene->addTriangle(q[0], q[2], q[3]);
    scene->addTriangle(q[0], q[0], q[2]);
}

// An eye for the scene: outside the box, or at its centre.
void placeEye(const float box[6], bool inside, float eye[3]) {
    for (int a = 0; a < 3; ++a) {
        const float c = 0.5f * (box[a] + box[a + 3]), e = box[a + 3] - box[a];
        eye[a] = inside ? c : c + e * (a == 0 ? 0.7f : a == 1 ? 0.5f : 1.3f);
    }
}

// Directions from the eye through a grid of points around the box centre,
// with special tiles: rays along the axes (with -0.0 and tiny components),
// and random directions (tiles whose rays fall into several octants).
void eyeDirections(const float box[6], const float eye[3], unsigned seed, Planes3* dir) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> any(-1.0f, 1.0f);
    float centre[3], extent = 0;
    for (int a = 0; a < 3; ++a) {
        centre[a] = 0.5f * (box[a] + box[a + 3]);
        extent = std::fmax(extent, box[a + 3] - box[a]);
    }
    for (int row = 0; row < kH; ++row)
        for (int column = 0; column < kW; ++column) {
            const float target[3] = {centre[0] + extent * (column - kW / 2 + 0.5f) / kW,
                                     centre[1] + extent * (kH / 2 - row - 0.5f) / kH,
                                     centre[2] + 0.1f * extent * (column % 3)};
            float d[3];
            for (int a = 0; a < 3; ++a) d[a] = target[a] - eye[a];
            dir->set(row * kW + column, d);
        }
    const float tiny = 1e-8f, negZero = -0.0f;
    const float axial[16][3] = {
        {1, 0, 0},        {-1, 0, 0},    {0, 1, 0},        {0, -1, 0},
        {0, 0, 1},        {0, 0, -1},    {negZero, 0, 1},  {1, negZero, negZero},
        {tiny, -tiny, 1}, {-tiny, 1, 0}, {1, tiny, -tiny}, {negZero, negZero, -1},
        {1, 1, 0},        {0, -1, 1},    {-1, 0, -1},      {-tiny, -tiny, -1}};
    for (int i = 0; i < 16; ++i) dir->set((i / 4) * kW + 4 + i % 4, axial[i]);
    for (int i = 0; i < 16; ++i) {
        const float d[3] = {any(rng), any(rng), any(rng)};
        dir->set((4 + i / 4) * kW + 8 + i % 4, d);
    }
    dir->y[5 * kW + 9] = std::nanf("");  // a component that is not a number
    // One tile whose first row points into octant 1, the rest into octant 0.
    for (int row = 8; row < 12; ++row)
        for (int column = 0; column < 4; ++column) {
            const int i = row * kW + column;
            const float d[3] = {
                row == 8 ? -std::fabs(dir->x[i]) - 0.01f : std::fabs(dir->x[i]) + 0.01f,
                std::fabs(dir->y[i]) + 0.01f, std::fabs(dir->z[i]) + 0.01f};
            dir->set(i, d);
        }
}

// A nearest-hit query's results on one block.
struct NearestResults {
    explicit NearestResults(float entry) : distance(kRays, entry), hit(kRays), id(kRays, 99) {}
    Plane<float> distance;
    Planes3 hit;
    Plane<int> id;
    float* hitPlanes[2] = {hit.x.data(), hit.y.data()};
};

// Both paths must agree bit for bit: the own-origin lanes repeat the scalar
// worker's single-precision arithmetic, and the eye lanes leave every
// decision near a rounding margin to the scalar worker's extended-precision
// test.
void expectSameNearest(const std::string& what, const NearestResults& scalar,
                       const NearestResults& packet) {
    int hits = 0;
    for (int i = 0; i < kRays; ++i) {
        SCOPED_TRACE(what + " ray " + std::to_string(i));
        hits += scalar.id[i] >= 0;
        ASSERT_EQ(packet.id[i], scalar.id[i]);
        ASSERT_TRUE(oracle::sameBits(packet.distance[i], scalar.distance[i]));
        ASSERT_TRUE(oracle::sameBits(packet.hit.x[i], scalar.hit.x[i]));
        ASSERT_TRUE(oracle::sameBits(packet.hit.y[i], scalar.hit.y[i]));
    }
    EXPECT_GT(hits, 0) << what;
}

void compareEye(const std::string& what, const TestScene& scene, const KDTreeNode* tree,
                const float eye[3], Planes3& dir) {
    const IntersectContext context = scene.context(tree);
    NearestResults scalar(1e30f), packet(1e30f);
    ASSERT_EQ(
        ownIntersectEyeBlock(eye, dir.p, scene.box, scene.accel.data(), tree,
                             scalar.distance.data(), scalar.hitPlanes, scalar.id.data(), kW, kH),
        KEL_STS_OK);
    ASSERT_EQ(kelrIntersectEyeSO_32f(eye, dir.p, packet.distance.data(), packet.hitPlanes,
                                     packet.id.data(), &context, kW, kH),
              KEL_STS_OK);
    expectSameNearest(what + " eye", scalar, packet);
}

void compareOwnOrigin(const std::string& what, const TestScene& scene, const KDTreeNode* tree,
                      Planes3& org, Planes3& dir, Plane<float>& entry) {
    const IntersectContext context = scene.context(tree);
    NearestResults scalar(0), packet(0);
    for (int i = 0; i < kRays; ++i) scalar.distance[i] = packet.distance[i] = entry[i];
    ASSERT_EQ(ownIntersectBlock(org.p, dir.p, scene.box, scene.accel.data(), tree,
                                scalar.distance.data(), scalar.hitPlanes, scalar.id.data(), kW, kH),
              KEL_STS_OK);
    ASSERT_EQ(kelrIntersectMO_32f(org.p, dir.p, packet.distance.data(), packet.hitPlanes,
                                  packet.id.data(), &context, kW, kH),
              KEL_STS_OK);
    expectSameNearest(what + " own-origin", scalar, packet);
}

// Shadow segments: the same rays are marked. The id of an occluded ray may
// name another occluder than the scalar walk's first one (the cached
// occluder settles whole tiles), but it must occlude that segment.
void compareShadow(const std::string& what, const TestScene& scene, const KDTreeNode* tree,
                   const float light[3], Planes3& dir, const Plane<int>& entryMask) {
    const IntersectContext context = scene.context(tree);
    Plane<int> scalarId(kRays, 99), packetId(kRays, 99), scalarMask(kRays), packetMask(kRays);
    for (int i = 0; i < kRays; ++i) scalarMask[i] = packetMask[i] = entryMask[i];
    ASSERT_EQ(ownIntersectAnyBlock(light, dir.p, scene.accel.data(), tree, scalarId.data(),
                                   scalarMask.data(), kW, kH),
              KEL_STS_OK);
    ASSERT_EQ(
        kelrIntersectAnySO_32f(light, dir.p, packetId.data(), packetMask.data(), kW, kH, &context),
        KEL_STS_OK);
    int occluded = 0;
    for (int i = 0; i < kRays; ++i) {
        SCOPED_TRACE(what + " shadow ray " + std::to_string(i));
        ASSERT_EQ(packetMask[i], scalarMask[i]);
        occluded += scalarId[i] >= 0;
        if (packetId[i] == scalarId[i]) continue;
        ASSERT_GE(packetId[i], 0);
        ASSERT_GE(scalarId[i], 0);
        const float r[3] = {dir.x[i], dir.y[i], dir.z[i]};
        EXPECT_TRUE(oracle::occludes(scene.accel.data(), packetId[i], light, r));
    }
    EXPECT_GT(occluded, 0) << what;
    EXPECT_LT(occluded, kRays) << what;
}

// Runs all three queries on the scene and every tree: eye rays from outside
// and inside the box, secondary rays from the eye hits (mirror directions,
// and random ones with assorted entry distances), shadow rays from a light
// to the eye hits with some rays masked off.
void compareAllQueries(const std::string& name, SceneTrees& s) {
    const TestScene& scene = s.scene;
    for (auto& [treeName, tree] : s.trees) {
        for (int inside = 0; inside < 2; ++inside) {
            const std::string what = name + "/" + treeName + (inside ? "/inside" : "/outside");
            float eye[3];
            placeEye(scene.box, inside != 0, eye);
            Planes3 dir(kRays);
            eyeDirections(scene.box, eye, 7u + inside, &dir);
            compareEye(what, scene, tree, eye, dir);

            NearestResults first(1e30f);
            ownIntersectEyeBlock(eye, dir.p, scene.box, scene.accel.data(), tree,
                                 first.distance.data(), first.hitPlanes, first.id.data(), kW, kH);
            std::mt19937 rng(11u + inside);
            std::uniform_real_distribution<float> any(-1.0f, 1.0f);
            Planes3 org(kRays), second(kRays), toPoint(kRays);
            Plane<float> entry(kRays);
            Plane<int> mask(kRays);
            float light[3];
            for (int a = 0; a < 3; ++a)
                light[a] = scene.box[a + 3] + 0.3f * (scene.box[a + 3] - scene.box[a]);
            for (int i = 0; i < kRays; ++i) {
                const float r[3] = {dir.x[i], dir.y[i], dir.z[i]};
                const float t = first.id[i] >= 0 ? 0.999f * first.distance[i] : 0.5f;
                float p[3], d[3], l[3];
                for (int a = 0; a < 3; ++a) {
                    p[a] = eye[a] + t * r[a];
                    l[a] = p[a] - light[a];
                    // mirror about a random plane, or a random direction
                    d[a] = i % 5 == 0 ? any(rng) : (a == 1 ? -r[a] : r[a]);
                }
                org.set(i, p);
                second.set(i, d);
                toPoint.set(i, l);
                if (i % 61 == 0) toPoint.z[i] = std::nanf("");
                entry[i] = i % 97 == 0 ? 1e-6f : i % 89 == 0 ? 2e-6f : i % 7 == 0 ? 0.3f : 1e30f;
                mask[i] = first.id[i] < 0 ? -1 : i % 11 == 0 ? -5 : 7;
            }
            compareOwnOrigin(what, scene, tree, org, second, entry);
            compareShadow(what, scene, tree, light, toPoint, mask);
        }
    }
}

TEST(PacketPaths, RandomScenesAgreeWithScalarWorkers) {
    for (unsigned seed : {1u, 2u}) {
        SceneTrees s;
        addRandomSoup(seed, &s.scene);
        s.build();
        ASSERT_GE(s.trees.size(), 2u);
        compareAllQueries("soup" + std::to_string(seed), s);
    }
}

TEST(PacketPaths, MeshesAgreeWithScalarWorkers) {
    for (const char* file : {"teapot.obj", "stanford-bunny.obj"}) {
        kelt::Mesh mesh;
        if (!kelt::loadSharedMesh(file, &mesh))
            GTEST_SKIP() << "shared meshes not found (../shared/data/meshes)";
        SceneTrees s;
        addMesh(mesh, &s.scene);
        s.build();
        compareAllQueries(file, s);
    }
}

// The 4x1 kernels leave the lanes outside their lane mask untouched and give
// the active lanes the scalar results.
TEST(PacketPaths, InactiveLanesAreLeftUntouched) {
    SceneTrees s;
    addRandomSoup(3, &s.scene);
    s.build();
    const TestScene& scene = s.scene;
    const KDTreeNode* tree = s.trees.back().second;
    float eye[3];
    placeEye(scene.box, false, eye);
    Planes3 dir(kRays);
    eyeDirections(scene.box, eye, 5, &dir);
    // The first four rays pointing at the centre region hit; take a row of them.
    const int row = (kH / 2) * kW + kW / 2;
    const float* d[3] = {dir.x.data() + row, dir.y.data() + row, dir.z.data() + row};
    const float* o[3];
    Planes3 org(4);
    for (int i = 0; i < 4; ++i) org.set(i, eye);
    for (int a = 0; a < 3; ++a) o[a] = org.p[a];
    for (int lanes : {0x5, 0xA, 0x1, 0x8}) {
        SCOPED_TRACE("lanes " + std::to_string(lanes));
        NearestResults expect(1e30f), eyeOut(1e30f), ownOut(1e30f);
        ownIntersectBlock(o, d, scene.box, scene.accel.data(), tree, expect.distance.data(),
                          expect.hitPlanes, expect.id.data(), 4, 1);
        for (int i = 0; i < 4; ++i)
            if (!(lanes >> i & 1))
                for (NearestResults* r : {&eyeOut, &ownOut}) {
                    r->distance[i] = 123.0f;
                    r->hit.x[i] = 7.0f;
                    r->hit.y[i] = 8.0f;
                    r->id[i] = 99;
                }
        ownIntersectEyeBlock4x1(eye, d, scene.box, scene.accel.data(), tree, eyeOut.distance.data(),
                                eyeOut.hitPlanes, eyeOut.id.data(), lanes);
        ownIntersectBlock4x1(o, d, scene.box, scene.accel.data(), tree, ownOut.distance.data(),
                             ownOut.hitPlanes, ownOut.id.data(), lanes);
        for (int i = 0; i < 4; ++i) {
            for (NearestResults* r : {&eyeOut, &ownOut}) {
                if (lanes >> i & 1) {
                    EXPECT_EQ(r->id[i], expect.id[i]);
                    EXPECT_NEAR(r->distance[i], expect.distance[i], 1e-5f * expect.distance[i]);
                } else {
                    EXPECT_EQ(r->distance[i], 123.0f);
                    EXPECT_EQ(r->hit.x[i], 7.0f);
                    EXPECT_EQ(r->hit.y[i], 8.0f);
                    EXPECT_EQ(r->id[i], 99);
                }
            }
        }
        EXPECT_GE(expect.id[0] + expect.id[1] + expect.id[2] + expect.id[3], 0);

        // Shadow segments towards the far side of the box through the same
        // points: inactive lanes keep id and mask, active ones match.
        Planes3 seg(4);
        for (int i = 0; i < 4; ++i) {
            const float r[3] = {2 * d[0][i], 2 * d[1][i], 2 * d[2][i]};
            seg.set(i, r);
        }
        Plane<int> sid(4, 99), smask(4, 3), pid(4, 99), pmask(4, 3);
        pmask[1] = smask[1] = -2;
        ownIntersectAnyBlock(eye, seg.p, scene.accel.data(), tree, sid.data(), smask.data(), 4, 1);
        ownIntersectAnyBlock4x1(eye, seg.p, scene.accel.data(), tree, pid.data(), pmask.data(),
                                lanes);
        for (int i = 0; i < 4; ++i) {
            if ((lanes >> i & 1) && smask[i] != -2) {
                EXPECT_EQ(pid[i], sid[i]);
                EXPECT_EQ(pmask[i], smask[i]);
            } else {
                EXPECT_EQ(pid[i], 99);
                EXPECT_EQ(pmask[i], i == 1 ? -2 : 3);
            }
        }
    }
}

// Points on a floor under one large triangle, lit from above it: the
// representative ray's occluder shadows every tile, and the packet path
// marks the same rays as the scalar walk (here every active one, with that
// triangle's id).
TEST(PacketPaths, TilesShadowedByTheCachedOccluder) {
    SceneTrees s;
    const float roof[3][3] = {{-10, 1, -10}, {10, 1, -10}, {0, 1, 20}};
    s.scene.addTriangle(roof[0], roof[1], roof[2]);
    addRandomSoup(4, &s.scene);  // below the roof, between it and the floor
    s.build();
    const float light[3] = {0.5f, 5.0f, 0.5f};
    Planes3 dir(kRays);
    Plane<int> mask(kRays);
    for (int i = 0; i < kRays; ++i) {
        const float p[3] = {float(i % kW) / kW, -1.0f, float(i / kW) / kH};
        const float d[3] = {p[0] - light[0], p[1] - light[1], p[2] - light[2]};
        dir.set(i, d);
        mask[i] = i % 13 == 0 ? -1 : 0;
    }
    for (auto& [treeName, tree] : s.trees) {
        SCOPED_TRACE(treeName);
        const IntersectContext context = s.scene.context(tree);
        Plane<int> id(kRays, 99), out(kRays), scalarId(kRays), scalarMask(kRays);
        for (int i = 0; i < kRays; ++i) out[i] = scalarMask[i] = mask[i];
        ownIntersectAnyBlock(light, dir.p, s.scene.accel.data(), tree, scalarId.data(),
                             scalarMask.data(), kW, kH);
        ASSERT_EQ(kelrIntersectAnySO_32f(light, dir.p, id.data(), out.data(), kW, kH, &context),
                  KEL_STS_OK);
        for (int i = 0; i < kRays; ++i) {
            ASSERT_EQ(out[i], -1) << i;
            ASSERT_EQ(scalarMask[i], -1) << i;
            ASSERT_EQ(id[i], mask[i] < 0 ? -1 : 0) << i;
        }
    }
}

// Blocks of no rays, and a chain of nested splits deeper than the
// traversal stack: the packet path writes nothing for the former and
// still returns KEL_STS_OK for the latter, where the scalar worker fails.
TEST(PacketPaths, EmptyBlocksAndDeepTrees) {
    TestScene scene;
    const float a[3] = {70, 0, -1}, b[3] = {70, 1, 1}, c[3] = {70, -1, 1};
    scene.addTriangle(a, b, c);
    scene.finish();
    scene.box[0] = 0;
    // split x = 60, 59, ..., 1: each below child is the next split, each
    // above child the leaf with the triangle
    std::unique_ptr<kelt::TreeNode> node = kelt::TreeNode::leaf({0});
    for (int x = 1; x <= 60; ++x)
        node = kelt::TreeNode::inner(0, float(x), std::move(node), kelt::TreeNode::leaf({0}));
    kelt::PackedTree deep(*node);
    const IntersectContext context = scene.context(deep.root());
    Planes3 dir(16), org(16);
    NearestResults out(1e30f);
    Plane<int> mask(16, 0);
    for (int i = 0; i < 16; ++i) {
        const float d[3] = {1.0f, 0.001f * (i % 4), 0.001f * (i / 4)};
        const float o[3] = {0.5f, 0, 0};
        dir.set(i, d);
        org.set(i, o);
    }
    const float eye[3] = {0.5f, 0, 0};
    EXPECT_EQ(ownIntersectEyeBlock(eye, dir.p, scene.box, scene.accel.data(), deep.root(),
                                   out.distance.data(), out.hitPlanes, out.id.data(), 4, 4),
              KEL_STS_NO_MEM);
    EXPECT_EQ(kelrIntersectEyeSO_32f(eye, dir.p, out.distance.data(), out.hitPlanes, out.id.data(),
                                     &context, 4, 4),
              KEL_STS_OK);
    EXPECT_EQ(kelrIntersectMO_32f(org.p, dir.p, out.distance.data(), out.hitPlanes, out.id.data(),
                                  &context, 4, 4),
              KEL_STS_OK);
    EXPECT_EQ(kelrIntersectAnySO_32f(eye, dir.p, out.id.data(), mask.data(), 4, 4, &context),
              KEL_STS_OK);

    for (int i = 0; i < 16; ++i) out.id[i] = 99;
    for (int width : {0, -4}) {
        EXPECT_EQ(kelrIntersectEyeSO_32f(eye, dir.p, out.distance.data(), out.hitPlanes,
                                         out.id.data(), &context, width, 4),
                  KEL_STS_OK);
        EXPECT_EQ(kelrIntersectMO_32f(org.p, dir.p, out.distance.data(), out.hitPlanes,
                                      out.id.data(), &context, width, 4),
                  KEL_STS_OK);
        EXPECT_EQ(
            kelrIntersectAnySO_32f(eye, dir.p, out.id.data(), mask.data(), width, 4, &context),
            KEL_STS_OK);
    }
    for (int i = 0; i < 16; ++i) {
        EXPECT_EQ(out.id[i], 99);
        EXPECT_EQ(out.distance[i], 1e30f);
    }
}

}  // namespace
