// The three queries on random soups and the shared meshes, through
// hand-built and library trees. The scalar workers must agree with the
// brute-force oracle; the entry points, which take the four-ray path for
// these aligned blocks, must give the scalar workers' bits (shadow rays: the
// same masks, and ids that name an occluder of the ray).
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "intersect/printersect.h"
#include "mesh.h"
#include "oracle.h"
#include "packed_tree.h"
#include "scene.h"

namespace {

using kelt::Plane;
using kelt::Planes3;
using kelt::TestScene;
using oracle::Query;

constexpr int kW = 32, kH = 32, kRays = kW * kH;
constexpr float kFar = 3.4028235e38f;
constexpr float kUnset = -7.5f;

// A scene and the trees it is traced through: small scenes get every kind,
// meshes (where one leaf would test every triangle per ray) a median-split
// and a PSAH tree. PSAH trees may list a triangle in several leaves.
struct SceneTrees {
    TestScene scene;
    std::vector<std::pair<std::string, const KDTreeNode*>> trees;
    std::vector<std::unique_ptr<kelt::PackedTree>> packed;
    std::vector<KDTreeNode*> built;

    ~SceneTrees() {
        for (KDTreeNode* tree : built) kelrKDTreeFree(tree);
    }
    void addPacked(const char* name, const kelt::TreeNode& root) {
        packed.push_back(std::make_unique<kelt::PackedTree>(root));
        trees.push_back({name, packed.back()->root()});
    }
    void addBuilt(const char* name, uint32_t algorithm) {
        const KDTreeBuildContext context{algorithm, 30, 0.5f, 256, nullptr};
        int size = 0;
        built.push_back(nullptr);
        ASSERT_EQ(KEL_STS_OK, kelrKDTreeBuildAlloc(
                                  &built.back(), scene.vertices.data(), scene.triangles.data(),
                                  int(scene.vertices.size() / 3), scene.count(), &size, &context))
            << name;
        trees.push_back({name, built.back()});
    }
    void build(bool small) {
        scene.finish();
        auto median = [&](int leafSize, int depth) {
            return kelt::MedianSplitBuilder(scene.vertices.data(), scene.triangles.data(),
                                            scene.count(), leafSize, depth)
                .build(scene.box);
        };
        if (small) {
            addPacked("one leaf", *kelt::singleLeaf(scene.count()));
            addPacked("deep median", *median(1, 30));
            addBuilt("simple", KDT_BUILD_SIMPLE);
        }
        addPacked("median", *median(small ? 6 : 8, small ? 30 : 40));
        addBuilt("psah", KDT_BUILD_PSAH);
    }
};

// Small triangles in the unit cube, some large ones, axis-aligned ones (flat
// records), exact duplicates, degenerate ones and a patch of triangles
// sharing edges (ties between neighbours).
void addRandomSoup(uint32_t seed, TestScene* s) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> unit(0.0f, 1.0f), offset(-0.12f, 0.12f);
    for (int t = 0; t < 300; ++t) {
        const float c[3] = {unit(rng), unit(rng), unit(rng)}, scale = t % 10 == 5 ? 3.0f : 1.0f;
        float p[3][3];
        for (auto& v : p)
            for (int a = 0; a < 3; ++a) v[a] = c[a] + scale * offset(rng);
        if (t % 10 < 3)
            for (auto& v : p) v[t % 10] = c[t % 10];
        s->addTriangle(p[0], p[1], p[2]);
        if (t % 50 == 0) s->addTriangle(p[0], p[1], p[2]);
        if (t % 60 == 0) s->addTriangle(p[0], p[0], p[2]);
    }
    float p[7][7][3];
    for (int j = 0; j < 7; ++j)
        for (int i = 0; i < 7; ++i) {
            const float at[3] = {0.2f + 0.1f * i, 0.2f + 0.1f * j, 0.3f + 0.05f * i + 0.02f * j};
            std::copy(at, at + 3, p[i][j]);
            if (i == 0 || j == 0) continue;
            s->addTriangle(p[i - 1][j - 1], p[i][j - 1], p[i][j]);
            s->addTriangle(p[i - 1][j - 1], p[i][j], p[i - 1][j]);
        }
}

// Eye rays from outside the box (or near its centre) through a grid around the
// box centre, with special tiles: axial rays with -0.0 and tiny components,
// random directions (tiles of mixed octants, one with a NaN component), and
// a tile whose first row lies in octant 1, the rest in octant 0. Some entry
// distances are short or 0, so that a far hit must not be taken.
struct EyeRays {
    float eye[3];
    Planes3 dir{kRays};
    Plane<float> distance{kRays};

    EyeRays(const float box[6], bool inside, uint32_t seed) {
        std::mt19937 rng(seed);
        std::uniform_real_distribution<float> any(-1.0f, 1.0f), unit(0.0f, 1.0f);
        float centre[3], extent = 0;
        for (int a = 0; a < 3; ++a) {
            centre[a] = 0.5f * (box[a] + box[a + 3]);
            extent = std::fmax(extent, box[a + 3] - box[a]);
            const float side = a == 0 ? 0.7f : a == 1 ? 0.5f : 1.3f;
            // Off the centre, so that no ray lies in a symmetric mesh's
            // middle plane, where a tree may file a triangle that touches
            // the plane on one side only.
            eye[a] = centre[a] + (box[a + 3] - box[a]) * (inside ? 0.01f * side : side);
        }
        for (int i = 0; i < kRays; ++i) {
            const int row = i / kW, column = i % kW;
            const float d[3] = {centre[0] + extent * (column - kW / 2 + 0.5f) / kW - eye[0],
                                centre[1] + extent * (kH / 2 - row - 0.5f) / kH - eye[1],
                                centre[2] + 0.1f * extent * (column % 3) - eye[2]};
            dir.set(i, d);
            distance[i] = i % 7 == 0 ? 2.0f * unit(rng) : i % 7 == 1 ? 0.0f : kFar;
        }
        const float tiny = 1e-8f, z = -0.0f;
        const float axial[16][3] = {
            {1, 0, 0},        {-1, 0, 0},    {0, 1, 0},        {0, -1, 0},
            {0, 0, 1},        {0, 0, -1},    {z, 0, 1},        {1, z, z},
            {tiny, -tiny, 1}, {-tiny, 1, 0}, {1, tiny, -tiny}, {z, z, -1},
            {1, 1, 0},        {0, -1, 1},    {-1, 0, -1},      {-tiny, -tiny, -1}};
        for (int i = 0; i < 16; ++i) {
            dir.set((i / 4) * kW + 4 + i % 4, axial[i]);
            const float d[3] = {any(rng), any(rng), any(rng)};
            dir.set((4 + i / 4) * kW + 8 + i % 4, d);
        }
        dir.y[5 * kW + 9] = std::nanf("");
        for (int row = 8; row < 12; ++row)
            for (int i = row * kW; i < row * kW + 4; ++i) {
                const float d[3] = {(row == 8 ? -1 : 1) * (std::fabs(dir.x[i]) + 0.01f),
                                    std::fabs(dir.y[i]) + 0.01f, std::fabs(dir.z[i]) + 0.01f};
                dir.set(i, d);
            }
    }
};

// One placement of the eye: rays for the three queries and the oracle's
// answers, which do not depend on the tree. Rays with own origins start
// just before the eye rays' hits (mirrored on y, or random, with assorted
// entry distances); shadow rays run from a light to the same points, those
// whose eye ray missed, and some others, masked off on entry.
struct Workload {
    EyeRays eye;
    Planes3 origin{kRays}, second{kRays}, toPoint{kRays};
    Plane<float> entry{kRays};
    Plane<int> mask{kRays};
    float light[3];
    std::vector<oracle::Hit> eyeWant, ownWant;
    std::vector<bool> occluded;

    Workload(const TestScene& s, bool inside) : eye(s.box, inside, 7u + inside) {
        std::mt19937 rng(11u + inside);
        std::uniform_real_distribution<float> any(-1.0f, 1.0f);
        for (int a = 0; a < 3; ++a) light[a] = s.box[a + 3] + 0.3f * (s.box[a + 3] - s.box[a]);
        for (int i = 0; i < kRays; ++i) {
            float p[3], d[3], l[3], r[3];
            eye.dir.get(i, r);
            eyeWant.push_back(oracle::nearest(Query::Eye, s.accel.data(), s.count(), eye.eye, r,
                                              eye.distance[i]));
            const bool hit = eyeWant[i].id >= 0;
            for (int a = 0; a < 3; ++a) {
                p[a] = eye.eye[a] + (hit ? 0.999f * eyeWant[i].t : 0.5f) * r[a];
                l[a] = p[a] - light[a];
                d[a] = i % 5 == 0 ? any(rng) : (a == 1 ? -r[a] : r[a]);
            }
            if (i % 61 == 0) l[2] = std::nanf("");
            origin.set(i, p);
            second.set(i, d);
            toPoint.set(i, l);
            entry[i] = i % 97 == 0   ? 1e-6f
                       : i % 89 == 0 ? 2e-6f
                       : i % 7 == 0  ? 0.3f
                       : i % 7 == 1  ? 0.0f
                                     : kFar;
            mask[i] = !hit ? -1 : i % 11 == 0 ? -5 : i % 3;
            ownWant.push_back(entry[i] > 1.1920929e-6f
                                  ? oracle::nearest(Query::MultipleOrigin, s.accel.data(),
                                                    s.count(), p, d, entry[i])
                                  : oracle::Hit{});
            occluded.push_back(mask[i] >= 0 &&
                               oracle::anyOccluder(s.accel.data(), s.count(), light, l) >= 0);
        }
    }
};

// A nearest-hit query through the scalar worker and the entry point (the
// four-ray path for these blocks), which must give the same bits. The
// scalar results must agree with the oracle ray by ray, up to ties; a ray
// that hits nothing keeps its distance and hit coordinates.
void checkNearest(Query q, const TestScene& s, const KDTreeNode* tree, const Workload& w) {
    const bool eyeRays = q == Query::Eye;
    SCOPED_TRACE(eyeRays ? "eye rays" : "rays with own origins");
    const IntersectContext context = s.context(tree);
    const Planes3& dir = eyeRays ? w.eye.dir : w.second;
    const Plane<float>& entry = eyeRays ? w.eye.distance : w.entry;
    const std::vector<oracle::Hit>& want = eyeRays ? w.eyeWant : w.ownWant;
    Planes3 dist(kRays), uv(kRays, kUnset), packetUv(kRays, kUnset);
    Plane<int> id(kRays, 99), packetId(kRays, 99);
    for (int i = 0; i < kRays; ++i) dist.x[i] = dist.y[i] = entry[i];
    float* hit[2] = {uv.x.data(), uv.y.data()};
    float* packetHit[2] = {packetUv.x.data(), packetUv.y.data()};
    if (eyeRays) {
        ASSERT_EQ(KEL_STS_OK, ownIntersectEyeBlock(w.eye.eye, dir.p, s.box, s.accel.data(), tree,
                                                   dist.x.data(), hit, id.data(), kW, kH));
        ASSERT_EQ(KEL_STS_OK, kelrIntersectEyeSO_32f(w.eye.eye, dir.p, dist.y.data(), packetHit,
                                                     packetId.data(), &context, kW, kH));
    } else {
        ASSERT_EQ(KEL_STS_OK, ownIntersectBlock(w.origin.p, dir.p, s.box, s.accel.data(), tree,
                                                dist.x.data(), hit, id.data(), kW, kH));
        ASSERT_EQ(KEL_STS_OK, kelrIntersectMO_32f(w.origin.p, dir.p, dist.y.data(), packetHit,
                                                  packetId.data(), &context, kW, kH));
    }
    int hits = 0, ties = 0;
    for (int i = 0; i < kRays; ++i) {
        ASSERT_TRUE(packetId[i] == id[i] && oracle::sameBits(dist.y[i], dist.x[i]) &&
                    oracle::sameBits(packetUv.x[i], uv.x[i]) &&
                    oracle::sameBits(packetUv.y[i], uv.y[i]))
            << "ray " << i << ": four-ray path " << packetId[i] << ", scalar " << id[i];
        float o[3], r[3];
        eyeRays ? (void)std::copy(w.eye.eye, w.eye.eye + 3, o) : w.origin.get(i, o);
        dir.get(i, r);
        if (want[i].id < 0) {
            EXPECT_TRUE(id[i] == -1 && oracle::sameBits(dist.x[i], entry[i]) && uv.x[i] == kUnset &&
                        uv.y[i] == kUnset)
                << "ray " << i << " missed, got " << id[i];
            continue;
        }
        ++hits;
        bool tie = false;
        EXPECT_TRUE(oracle::agreesWithNearest(q, s.accel.data(), o, r, entry[i], want[i], id[i],
                                              dist.x[i], uv.x[i], uv.y[i], &tie))
            << "ray " << i << ": oracle " << want[i].id << " at " << want[i].t << ", got " << id[i]
            << " at " << dist.x[i];
        ties += tie;
    }
    EXPECT_GT(hits, kRays / 20);
    EXPECT_LE(ties, kRays / 50);
}

// Both paths mark exactly the rays that the oracle finds occluded, leave
// the others' masks alone, and name an occluder of the ray (the four-ray
// path's cached occluder may settle a ray with another one than the scalar
// walk's first).
void checkShadow(const TestScene& s, const KDTreeNode* tree, const Workload& w) {
    SCOPED_TRACE("shadow rays");
    const IntersectContext context = s.context(tree);
    Plane<int> scalarId(kRays, 99), packetId(kRays, 99), scalarMask(kRays), packetMask(kRays);
    for (int i = 0; i < kRays; ++i) scalarMask[i] = packetMask[i] = w.mask[i];
    ASSERT_EQ(KEL_STS_OK, ownIntersectAnyBlock(w.light, w.toPoint.p, s.accel.data(), tree,
                                               scalarId.data(), scalarMask.data(), kW, kH));
    ASSERT_EQ(KEL_STS_OK, kelrIntersectAnySO_32f(w.light, w.toPoint.p, packetId.data(),
                                                 packetMask.data(), kW, kH, &context));
    int occluded = 0;
    for (int i = 0; i < kRays; ++i) {
        float r[3];
        w.toPoint.get(i, r);
        const bool want = w.occluded[i];
        occluded += want;
        for (int n : {scalarId[i], packetId[i]})
            EXPECT_TRUE(want ? n >= 0 && n < s.count() &&
                                   oracle::occludes(s.accel.data(), n, w.light, r)
                             : n == -1)
                << "ray " << i << " names " << n;
        EXPECT_TRUE(scalarMask[i] == (want ? -1 : w.mask[i]) && packetMask[i] == scalarMask[i])
            << "ray " << i;
    }
    EXPECT_GT(occluded, 0);
    EXPECT_LT(occluded, kRays);
}

void checkScene(const std::string& name, const SceneTrees& st) {
    for (int inside = 0; inside < 2; ++inside) {
        const Workload w(st.scene, inside != 0);
        for (auto& [treeName, tree] : st.trees) {
            SCOPED_TRACE(name + "/" + treeName + (inside ? "/inside" : "/outside"));
            checkNearest(Query::Eye, st.scene, tree, w);
            checkNearest(Query::MultipleOrigin, st.scene, tree, w);
            checkShadow(st.scene, tree, w);
        }
    }
}

TEST(IntersectQueries, RandomSoups) {
    for (uint32_t seed : {1u, 2u}) {
        SceneTrees st;
        addRandomSoup(seed, &st.scene);
        st.build(true);
        checkScene("soup " + std::to_string(seed), st);
    }
}

TEST(IntersectQueries, SharedMeshes) {
    for (const char* file : {"teapot.obj", "stanford-bunny.obj", "fandisk.obj"}) {
        kelt::Mesh mesh;
        if (!kelt::loadSharedMesh(file, &mesh))
            GTEST_SKIP() << "shared mesh " << file << " not found (../shared/data/meshes)";
        SceneTrees st;
        st.scene.vertices = mesh.vertices;
        st.scene.triangles = mesh.triangles;
        st.build(false);
        checkScene(file, st);
    }
}

// Points on a floor under one large triangle, lit from above it, with a
// soup in between: the representative ray's nearest occluder is the roof,
// which then settles every tile, so every active ray names it.
TEST(IntersectQueries, TilesShadowedByTheCachedOccluder) {
    SceneTrees st;
    const float roof[3][3] = {{-10, 1, -10}, {10, 1, -10}, {0, 1, 20}};
    st.scene.addTriangle(roof[0], roof[1], roof[2]);
    addRandomSoup(4, &st.scene);
    st.build(true);
    const float light[3] = {0.5f, 5.0f, 0.5f};
    Planes3 dir(kRays);
    for (int i = 0; i < kRays; ++i)
        dir.x[i] = float(i % kW) / kW - light[0], dir.y[i] = -1.0f - light[1],
        dir.z[i] = float(i / kW) / kH - light[2];
    for (auto& [treeName, tree] : st.trees) {
        SCOPED_TRACE(treeName);
        const IntersectContext context = st.scene.context(tree);
        Plane<int> id(kRays, 99), mask(kRays);
        for (int i = 0; i < kRays; ++i) mask[i] = i % 13 == 0 ? -1 : 0;
        ASSERT_EQ(KEL_STS_OK,
                  kelrIntersectAnySO_32f(light, dir.p, id.data(), mask.data(), kW, kH, &context));
        for (int i = 0; i < kRays; ++i)
            ASSERT_TRUE(mask[i] == -1 && id[i] == (i % 13 == 0 ? -1 : 0)) << i << ": " << id[i];
    }
}

}  // namespace
