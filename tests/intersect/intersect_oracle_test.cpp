// The three queries against the brute-force oracle, on random triangle soups
// and on the shared meshes, with a one-leaf tree and median-split trees.
// Each block is run through the entry point and through the scalar worker,
// which must agree bit for bit (whichever path the entry point takes).
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <string>

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

constexpr float kUnsetCoordinate = -7.5f;
constexpr int kUnsetId = 12345;

// A block of rays: origins (one per ray; the eye and shadow queries use the
// first), directions, entry distances and masks.
struct Rays {
    explicit Rays(int width, int height)
        : width(width),
          height(height),
          count(width * height),
          origin(count),
          dir(count),
          distance(count),
          mask(count) {}
    int width, height, count;
    Planes3 origin, dir;
    Plane<float> distance;
    Plane<int> mask;
    void get(const Planes3& planes, int i, float out[3]) const {
        for (int a = 0; a < 3; ++a) out[a] = planes.p[a][i];
    }
};

// Output planes of a nearest-hit query; `misaligned` shifts the v plane off
// its 16-byte boundary.
struct NearestOutput {
    explicit NearestOutput(const Rays& rays, bool misaligned = false)
        : distance(rays.count),
          u(rays.count, kUnsetCoordinate),
          v(rays.count, kUnsetCoordinate, misaligned ? 1 : 0),
          id(rays.count, kUnsetId) {
        for (int i = 0; i < rays.count; ++i) distance[i] = rays.distance[i];
    }
    Plane<float> distance, u, v;
    Plane<int> id;
    float* hit[2] = {u.data(), v.data()};
};

bool sameBits(const void* a, const void* b, int bytes) {
    return std::memcmp(a, b, bytes) == 0;
}

struct Counts {
    int hits = 0, ties = 0;
};

// Nearest-hit queries: every ray of the scalar worker agrees with the oracle
// up to ties. The entry point, given one misaligned plane (the v plane, or
// for rays from many origins also the z origin plane), must take the scalar
// path and give the same bits.
Counts checkNearest(Query q, const TestScene& s, const KDTreeNode* tree, Rays& rays) {
    SCOPED_TRACE(q == Query::Eye ? "eye rays" : "rays from many origins");
    const int n = rays.count;
    NearestOutput entry(rays, true), worker(rays), onePlaneOff(rays);
    const IntersectContext ctx = s.context(tree);
    const float* const* dir = rays.dir.p;
    if (q == Query::Eye) {
        const float eye[3] = {rays.origin.x[0], rays.origin.y[0], rays.origin.z[0]};
        EXPECT_EQ(KEL_STS_OK,
                  kelrIntersectEyeSO_32f(eye, dir, entry.distance.data(), entry.hit,
                                         entry.id.data(), &ctx, rays.width, rays.height));
        EXPECT_EQ(KEL_STS_OK, ownIntersectEyeBlock(eye, dir, s.box, s.accel.data(), tree,
                                                   worker.distance.data(), worker.hit,
                                                   worker.id.data(), rays.width, rays.height));
    } else {
        EXPECT_EQ(KEL_STS_OK,
                  kelrIntersectMO_32f(rays.origin.p, dir, entry.distance.data(), entry.hit,
                                      entry.id.data(), &ctx, rays.width, rays.height));
        EXPECT_EQ(KEL_STS_OK, ownIntersectBlock(rays.origin.p, dir, s.box, s.accel.data(), tree,
                                                worker.distance.data(), worker.hit,
                                                worker.id.data(), rays.width, rays.height));
        Plane<float> z(n, 0.0f, 1);
        for (int i = 0; i < n; ++i) z[i] = rays.origin.z[i];
        const float* origins[3] = {rays.origin.p[0], rays.origin.p[1], z.data()};
        EXPECT_EQ(KEL_STS_OK,
                  kelrIntersectMO_32f(origins, dir, onePlaneOff.distance.data(), onePlaneOff.hit,
                                      onePlaneOff.id.data(), &ctx, rays.width, rays.height));
        EXPECT_TRUE(sameBits(onePlaneOff.distance.data(), worker.distance.data(), 4 * n) &&
                    sameBits(onePlaneOff.id.data(), worker.id.data(), 4 * n))
            << "a misaligned origin plane must take the scalar path";
    }
    EXPECT_TRUE(sameBits(entry.distance.data(), worker.distance.data(), 4 * n) &&
                sameBits(entry.u.data(), worker.u.data(), 4 * n) &&
                sameBits(entry.v.data(), worker.v.data(), 4 * n) &&
                sameBits(entry.id.data(), worker.id.data(), 4 * n))
        << "a misaligned hit plane must take the scalar path";

    Counts counts;
    for (int i = 0; i < n; ++i) {
        float o[3], r[3];
        rays.get(rays.origin, q == Query::Eye ? 0 : i, o);
        rays.get(rays.dir, i, r);
        const float entryDistance = rays.distance[i];
        const bool skipped = q == Query::MultipleOrigin && !(entryDistance > 1.1920929e-6f);
        const oracle::Hit want =
            skipped ? oracle::Hit{}
                    : oracle::nearest(q, s.accel.data(), s.count(), o, r, entryDistance);
        const int id = worker.id[i];
        if (want.id < 0) {
            EXPECT_EQ(-1, id) << "ray " << i;
            EXPECT_TRUE(sameBits(&worker.distance[i], &entryDistance, 4) &&
                        worker.u[i] == kUnsetCoordinate && worker.v[i] == kUnsetCoordinate)
                << "a missing ray must keep its distance and hit coordinates; ray " << i;
            continue;
        }
        ++counts.hits;
        bool tie = false;
        EXPECT_TRUE(oracle::agreesWithNearest(q, s.accel.data(), o, r, entryDistance, want, id,
                                              worker.distance[i], worker.u[i], worker.v[i], &tie))
            << "ray " << i << ": oracle " << want.id << " at " << want.t << ", got " << id << " at "
            << worker.distance[i];
        counts.ties += tie;
    }
    return counts;
}

// The any-hit query: a ray is occluded exactly when the oracle finds an
// occluder, the reported triangle is one, and untraced rays are untouched.
// The entry point, given a misaligned mask, must match the scalar worker.
int checkAny(const TestScene& s, const KDTreeNode* tree, Rays& rays) {
    const int n = rays.count;
    Plane<int> idEntry(n, kUnsetId), idWorker(n, kUnsetId), maskEntry(n, 0, 1), maskWorker(n);
    for (int i = 0; i < n; ++i) maskEntry[i] = maskWorker[i] = rays.mask[i];
    const IntersectContext ctx = s.context(tree);
    const float light[3] = {rays.origin.x[0], rays.origin.y[0], rays.origin.z[0]};
    EXPECT_EQ(KEL_STS_OK, kelrIntersectAnySO_32f(light, rays.dir.p, idEntry.data(),
                                                 maskEntry.data(), rays.width, rays.height, &ctx));
    EXPECT_EQ(KEL_STS_OK,
              ownIntersectAnyBlock(light, rays.dir.p, s.accel.data(), tree, idWorker.data(),
                                   maskWorker.data(), rays.width, rays.height));
    EXPECT_TRUE(sameBits(idEntry.data(), idWorker.data(), 4 * n) &&
                sameBits(maskEntry.data(), maskWorker.data(), 4 * n))
        << "a misaligned mask must take the scalar path";
    int occluded = 0;
    for (int i = 0; i < n; ++i) {
        float r[3];
        rays.get(rays.dir, i, r);
        if (rays.mask[i] < 0) {
            EXPECT_EQ(-1, idWorker[i]);
            EXPECT_EQ(rays.mask[i], maskWorker[i]);
            continue;
        }
        const int want = oracle::anyOccluder(s.accel.data(), s.count(), light, r);
        if (want < 0) {
            EXPECT_EQ(-1, idWorker[i]) << "ray " << i;
            EXPECT_EQ(rays.mask[i], maskWorker[i]) << "ray " << i;
            continue;
        }
        ++occluded;
        EXPECT_EQ(-1, maskWorker[i]) << "ray " << i << " is occluded by " << want;
        EXPECT_TRUE(idWorker[i] >= 0 && idWorker[i] < s.count() &&
                    oracle::occludes(s.accel.data(), idWorker[i], light, r))
            << "ray " << i << " reports " << idWorker[i];
    }
    return occluded;
}

// Random small triangles in the unit cube, axis-aligned ones (flat records),
// a patch of triangles sharing edges, exact duplicates and degenerate ones.
TestScene randomSoup(uint32_t seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> unit(0.0f, 1.0f), offset(-0.12f, 0.12f);
    TestScene s;
    for (int t = 0; t < 300; ++t) {
        float c[3] = {unit(rng), unit(rng), unit(rng)}, p[3][3];
        for (auto& v : p)
            for (int a = 0; a < 3; ++a) v[a] = c[a] + offset(rng);
        const int flatAxis = t % 10 < 3 ? t % 10 : -1;
        if (flatAxis >= 0)
            for (auto& v : p) v[flatAxis] = c[flatAxis];
        s.addTriangle(p[0], p[1], p[2]);
        if (t % 50 == 0) s.addTriangle(p[0], p[1], p[2]);
        if (t % 60 == 0) s.addTriangle(p[0], p[0], p[2]);
    }
    for (int j = 0; j < 6; ++j)
        for (int i = 0; i < 6; ++i) {
            auto at = [](int i, int j, float out[3]) {
                out[0] = 0.2f + 0.1f * i;
                out[1] = 0.2f + 0.1f * j;
                out[2] = 0.3f + 0.05f * i + 0.02f * j;
            };
            float a[3], b[3], c[3], d[3];
            at(i, j, a);
            at(i + 1, j, b);
            at(i + 1, j + 1, c);
            at(i, j + 1, d);
            s.addTriangle(a, b, c);
            s.addTriangle(a, c, d);
        }
    s.finish();
    return s;
}

// Some entry distances are short, so that a hit found early prunes the
// walk and a far hit is not taken.
float entryDistance(std::mt19937& rng, int i) {
    switch (i % 7) {
        case 0:
            return std::uniform_real_distribution<float>(0.0f, 3.0f)(rng);
        case 1:
            return 0.0f;
        default:
            return 3.4028235e38f;
    }
}

void soupRays(std::mt19937& rng, Query q, Rays* rays) {
    std::uniform_real_distribution<float> unit(-0.2f, 1.2f), dir(-1.0f, 1.0f);
    const float source[3] = {-0.4f, 1.6f, 2.1f};
    for (int i = 0; i < rays->count; ++i) {
        float o[3] = {source[0], source[1], source[2]}, target[3], r[3];
        if (q == Query::MultipleOrigin)
            for (float& x : o) x = unit(rng);
        for (int a = 0; a < 3; ++a) {
            target[a] = unit(rng);
            r[a] = q == Query::MultipleOrigin ? dir(rng) : target[a] - o[a];
        }
        rays->origin.set(i, o);
        rays->dir.set(i, r);
        rays->distance[i] = entryDistance(rng, i);
        rays->mask[i] = i % 5 == 0 ? -5 : i % 3;
    }
}

void checkAllQueries(const TestScene& s, const KDTreeNode* tree, uint32_t seed, const char* what) {
    SCOPED_TRACE(what);
    std::mt19937 rng(seed);
    for (Query q : {Query::Eye, Query::MultipleOrigin}) {
        Rays rays(32, 24);
        soupRays(rng, q, &rays);
        const Counts c = checkNearest(q, s, tree, rays);
        EXPECT_GT(c.hits, rays.count / 10) << "the rays should hit the soup";
        EXPECT_LE(c.ties, rays.count / 50);
    }
    Rays shadow(20, 20);
    soupRays(rng, Query::Any, &shadow);
    EXPECT_GT(checkAny(s, tree, shadow), shadow.count / 10);
}

// The library's own trees: one leaf from the simple build, and a PSAH tree
// (whose triangles may be cut into patches and listed in several leaves).
void checkLibraryTree(const TestScene& s, uint32_t algorithm, uint32_t seed, const char* what) {
    const KDTreeBuildContext build{algorithm, 30, 0.5f, 128, nullptr};
    KDTreeNode* tree = nullptr;
    int size = 0;
    ASSERT_EQ(KEL_STS_OK,
              kelrKDTreeBuildAlloc(&tree, s.vertices.data(), s.triangles.data(),
                                   int(s.vertices.size() / 3), s.count(), &size, &build))
        << what;
    checkAllQueries(s, tree, seed, what);
    kelrKDTreeFree(tree);
}

TEST(IntersectOracle, RandomSoups) {
    for (uint32_t seed : {1u, 2u, 3u}) {
        const TestScene s = randomSoup(seed);
        const kelt::PackedTree oneLeaf(*kelt::singleLeaf(s.count()));
        checkAllQueries(s, oneLeaf.root(), seed, "one leaf");
        for (int leafSize : {1, 6}) {
            const kelt::PackedTree tree(*kelt::MedianSplitBuilder(s.vertices.data(),
                                                                  s.triangles.data(), s.count(),
                                                                  leafSize, 30)
                                             .build(s.box));
            checkAllQueries(s, tree.root(), seed, leafSize == 1 ? "deep tree" : "median tree");
        }
        checkLibraryTree(s, KDT_BUILD_SIMPLE, seed, "simple build");
        checkLibraryTree(s, KDT_BUILD_PSAH, seed, "PSAH build");
    }
}

// Eye rays over the mesh, mirror rays from their hits and shadow rays from a
// light to the hits.
void checkMesh(const char* file) {
    kelt::Mesh mesh;
    if (!kelt::loadSharedMesh(file, &mesh))
        GTEST_SKIP() << "shared mesh " << file << " not found (../shared/data/meshes)";
    TestScene s;
    s.vertices = mesh.vertices;
    s.triangles = mesh.triangles;
    s.finish();
    const kelt::PackedTree tree(
        *kelt::MedianSplitBuilder(s.vertices.data(), s.triangles.data(), s.count(), 8, 40)
             .build(s.box));

    const int w = 32;
    Rays eye(w, w);
    float c[3], d[3], e[3], light[3];
    for (int a = 0; a < 3; ++a) {
        c[a] = 0.5f * (s.box[a] + s.box[a + 3]);
        d[a] = s.box[a + 3] - s.box[a];
    }
    const float diag = std::sqrt(d[0] * d[0] + d[1] * d[1] + d[2] * d[2]);
    const float back[3] = {0.3f, 0.4f, 1.0f}, lightAt[3] = {0.5f, 1.0f, 0.3f};
    for (int a = 0; a < 3; ++a) {
        e[a] = c[a] + 1.5f * diag * back[a];
        light[a] = c[a] + diag * lightAt[a];
    }
    for (int j = 0; j < w; ++j)
        for (int i = 0; i < w; ++i) {
            const int k = j * w + i;
            const float target[3] = {s.box[0] + d[0] * (i + 0.5f) / w,
                                     s.box[4] - d[1] * (j + 0.5f) / w, c[2]};
            const float r[3] = {target[0] - e[0], target[1] - e[1], target[2] - e[2]};
            eye.origin.set(k, e);
            eye.dir.set(k, r);
            eye.distance[k] = 3.4028235e38f;
        }
    const Counts eyeCounts = checkNearest(Query::Eye, s, tree.root(), eye);
    EXPECT_GT(eyeCounts.hits, w * w / 10);
    EXPECT_LE(eyeCounts.ties, w * w / 50);

    // Secondary rays from the hits of the library's own eye rays.
    NearestOutput hits(eye);
    const IntersectContext ctx = s.context(tree.root());
    ASSERT_EQ(KEL_STS_OK, kelrIntersectEyeSO_32f(e, eye.dir.p, hits.distance.data(), hits.hit,
                                                 hits.id.data(), &ctx, w, w));
    Rays mirror(w, w), shadow(w, w);
    for (int k = 0; k < w * w; ++k) {
        float r[3], p[3], n[3];
        eye.get(eye.dir, k, r);
        const int t = hits.id[k];
        for (int a = 0; a < 3; ++a) p[a] = e[a] + 0.999f * hits.distance[k] * r[a];
        if (t >= 0) {
            const float* A = &s.vertices[3 * s.triangles[4 * t]];
            const float* B = &s.vertices[3 * s.triangles[4 * t + 1]];
            const float* C = &s.vertices[3 * s.triangles[4 * t + 2]];
            const float u[3] = {B[0] - A[0], B[1] - A[1], B[2] - A[2]};
            const float v[3] = {C[0] - A[0], C[1] - A[1], C[2] - A[2]};
            n[0] = u[1] * v[2] - u[2] * v[1];
            n[1] = u[2] * v[0] - u[0] * v[2];
            n[2] = u[0] * v[1] - u[1] * v[0];
            const float dn = r[0] * n[0] + r[1] * n[1] + r[2] * n[2];
            const float nn = n[0] * n[0] + n[1] * n[1] + n[2] * n[2];
            for (int a = 0; a < 3; ++a) r[a] -= 2.0f * dn / nn * n[a];
        }
        mirror.origin.set(k, p);
        mirror.dir.set(k, r);
        mirror.distance[k] = t >= 0 ? 3.4028235e38f : 0.0f;
        const float toPoint[3] = {p[0] - light[0], p[1] - light[1], p[2] - light[2]};
        shadow.origin.set(k, light);
        shadow.dir.set(k, toPoint);
        shadow.mask[k] = t >= 0 ? 0 : -1;
    }
    const Counts mirrorCounts = checkNearest(Query::MultipleOrigin, s, tree.root(), mirror);
    EXPECT_LE(mirrorCounts.ties, w * w / 50);
    checkAny(s, tree.root(), shadow);
}

TEST(IntersectOracle, Bunny) {
    checkMesh("stanford-bunny.obj");
}
TEST(IntersectOracle, Teapot) {
    checkMesh("teapot.obj");
}
TEST(IntersectOracle, Fandisk) {
    checkMesh("fandisk.obj");
}

}  // namespace
