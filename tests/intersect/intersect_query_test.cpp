// The three queries on random soups and the shared meshes, through the
// one-leaf and PSAH trees, on camera-like blocks: the scalar path
// (planes misaligned) must agree with the brute-force oracle ray by ray, up
// to ties, and the four-ray path (aligned whole tiles) must give its bits
// (shadow rays: the same masks, and ids that name an occluder of the ray).
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "oracle.h"
#include "queries.h"
#include "soups.h"

namespace {

using kelt::Query;

constexpr int kW = 32, kH = 32, kRays = kW * kH;
constexpr float kFar = 3.4028235e38f;

// Eye rays from outside the box (or near its centre) through a grid around
// the box centre, with special tiles: axial rays with -0.0 and tiny
// components, random directions (tiles of mixed octants, one with a NaN
// component), and a tile whose first row lies in octant 1, the rest in
// octant 0. Some entry distances are short or 0, so that a far hit must not
// be taken.
kelt::Rays eyeRays(const float box[6], bool inside, std::mt19937* rng) {
    std::uniform_real_distribution<float> any(-1.0f, 1.0f), unit(0.0f, 1.0f);
    kelt::Rays rays(kW, kH);
    float centre[3], eye[3], extent = 0;
    for (int a = 0; a < 3; ++a) {
        centre[a] = 0.5f * (box[a] + box[a + 3]);
        extent = std::fmax(extent, box[a + 3] - box[a]);
        // Off the centre, so that no ray lies in a symmetric mesh's middle
        // plane, where a tree may file a triangle that touches the plane on
        // one side only.
        const float side = a == 0 ? 0.7f : a == 1 ? 0.5f : 1.3f;
        eye[a] = centre[a] + (box[a + 3] - box[a]) * (inside ? 0.01f * side : side);
    }
    for (int i = 0; i < kRays; ++i) {
        const int row = i / kW, column = i % kW;
        const float d[3] = {centre[0] + extent * (column - kW / 2 + 0.5f) / kW - eye[0],
                            centre[1] + extent * (kH / 2 - row - 0.5f) / kH - eye[1],
                            centre[2] + 0.1f * extent * (column % 3) - eye[2]};
        rays.origin.set(i, eye);
        rays.dir.set(i, d);
        rays.distance[size_t(i)] = i % 7 == 0 ? 2.0f * unit(*rng) : i % 7 == 1 ? 0.0f : kFar;
    }
    const float tiny = 1e-8f, z = -0.0f;
    const float axial[16][3] = {
        {1, 0, 0}, {-1, 0, 0}, {0, 1, 0},        {0, -1, 0},        {0, 0, 1},        {0, 0, -1},
        {z, 0, 1}, {1, z, z},  {tiny, -tiny, 1}, {-tiny, 1, 0},     {1, tiny, -tiny}, {z, z, -1},
        {1, 1, 0}, {0, -1, 1}, {-1, 0, -1},      {-tiny, -tiny, -1}};
    for (int i = 0; i < 16; ++i) {
        rays.dir.set((i / 4) * kW + 4 + i % 4, axial[i]);
        const float d[3] = {any(*rng), any(*rng), any(*rng)};
        rays.dir.set((4 + i / 4) * kW + 8 + i % 4, d);
    }
    rays.dir.at(1, 5 * kW + 9) = std::nanf("");
    for (int row = 8; row < 12; ++row)
        for (int i = row * kW; i < row * kW + 4; ++i)
            for (int a = 0; a < 3; ++a)
                rays.dir.at(a, i) =
                    (a == 0 && row == 8 ? -1 : 1) * (std::fabs(rays.dir.at(a, i)) + 0.01f);
    return rays;
}

// One placement of the eye: blocks for the three queries and the oracle's
// answers, which do not depend on the tree. Rays with their own origins
// start just before the eye rays' hits (mirrored on y, or random, with
// assorted entry distances); shadow rays run from a light to the same
// points, those whose eye ray missed, and some others, masked off on entry.
struct Workload {
    Workload(const kelt::Scene& s, bool inside)
        : rng(7u + inside), eye(eyeRays(s.box, inside, &rng)) {
        std::uniform_real_distribution<float> any(-1.0f, 1.0f);
        float light[3], from[3];
        for (int a = 0; a < 3; ++a) light[a] = s.box[a + 3] + 0.3f * (s.box[a + 3] - s.box[a]);
        eye.origin.get(0, from);
        for (int i = 0; i < kRays; ++i) {
            float p[3], d[3], l[3], r[3];
            eye.dir.get(i, r);
            const oracle::Hit hit =
                oracle::nearest(Query::kEye, s.accel.data(), s.count(), from, r, eye.distance[i]);
            want[0].push_back(hit);
            for (int a = 0; a < 3; ++a) {
                p[a] = from[a] + (hit.id >= 0 ? 0.999f * hit.t : 0.5f) * r[a];
                l[a] = p[a] - light[a];
                d[a] = i % 5 == 0 ? any(rng) : (a == 1 ? -r[a] : r[a]);
            }
            if (i % 61 == 0) l[2] = std::nanf("");
            own.origin.set(i, p);
            own.dir.set(i, d);
            own.distance[size_t(i)] = i % 97 == 0   ? 1e-6f
                                      : i % 89 == 0 ? 2e-6f
                                      : i % 7 == 0  ? 0.3f
                                      : i % 7 == 1  ? 0.0f
                                                    : kFar;
            want[1].push_back(own.distance[i] > 1.1920929e-6f
                                  ? oracle::nearest(Query::kOwnOrigins, s.accel.data(), s.count(),
                                                    p, d, own.distance[i])
                                  : oracle::Hit{});
            shadow.origin.set(i, light);
            shadow.dir.set(i, l);
            shadow.mask[size_t(i)] = hit.id < 0 ? -1 : i % 11 == 0 ? -5 : i % 3;
            occluded.push_back(shadow.mask[i] >= 0 &&
                               oracle::anyOccluder(s.accel.data(), s.count(), light, l) >= 0);
        }
    }
    const kelt::Rays& rays(Query q) const {
        return q == Query::kEye ? eye : q == Query::kOwnOrigins ? own : shadow;
    }

    std::mt19937 rng;
    kelt::Rays eye, own{kW, kH}, shadow{kW, kH};
    std::vector<oracle::Hit> want[2];  // eye rays, rays with their own origins
    std::vector<bool> occluded;
};

// A nearest-hit query: the scalar results agree with the oracle up to ties,
// a ray that hits nothing keeps its distance and hit coordinates, and the
// four-ray path gives the scalar bits.
void checkNearest(Query q, const kelt::Scene& s, const kelt::Rays& rays,
                  const std::vector<oracle::Hit>& want, const kelt::Answers& scalar,
                  const kelt::Answers& packet) {
    int hits = 0, ties = 0;
    for (int i = 0; i < kRays; ++i) {
        ASSERT_TRUE(packet.id[i] == scalar.id[i] && kelt::sameBits(packet.t[i], scalar.t[i]) &&
                    kelt::sameBits(packet.u[i], scalar.u[i]) &&
                    kelt::sameBits(packet.v[i], scalar.v[i]))
            << "ray " << i << ": four-ray path " << packet.id[i] << ", scalar " << scalar.id[i];
        float o[3], r[3];
        rays.origin.get(i, o);
        rays.dir.get(i, r);
        if (want[i].id < 0) {
            EXPECT_TRUE(scalar.id[i] == -1 && kelt::sameBits(scalar.t[i], rays.distance[i]) &&
                        scalar.u[i] == -7.0f && scalar.v[i] == -7.0f)
                << "ray " << i << " missed, got " << scalar.id[i];
            continue;
        }
        ++hits;
        bool tie = false;
        EXPECT_TRUE(oracle::agreesWithNearest(q, s.accel.data(), o, r, rays.distance[i], want[i],
                                              scalar.id[i], scalar.t[i], scalar.u[i], scalar.v[i],
                                              &tie))
            << "ray " << i << ": oracle " << want[i].id << " at " << want[i].t << ", got "
            << scalar.id[i] << " at " << scalar.t[i];
        ties += tie;
    }
    EXPECT_GT(hits, kRays / 20);
    EXPECT_LE(ties, kRays / 50);
}

// Both paths mark exactly the rays that the oracle finds occluded, leave
// the others' masks alone, and name an occluder of the ray (the four-ray
// path's cached occluder may settle a ray with another one than the scalar
// walk's first).
void checkShadow(const kelt::Scene& s, const kelt::Rays& rays, const std::vector<bool>& occluded,
                 const kelt::Answers& scalar, const kelt::Answers& packet) {
    float light[3];
    rays.origin.get(0, light);
    int count = 0;
    for (int i = 0; i < kRays; ++i) {
        float r[3];
        rays.dir.get(i, r);
        const bool want = occluded[size_t(i)];
        count += want;
        for (int n : {scalar.id[i], packet.id[i]})
            EXPECT_TRUE(want ? n >= 0 && n < s.count() &&
                                   oracle::occludes(s.accel.data(), n, light, r)
                             : n == -1)
                << "ray " << i << " names " << n;
        EXPECT_TRUE(scalar.mask[i] == (want ? -1 : rays.mask[i]) &&
                    packet.mask[i] == scalar.mask[i])
            << "ray " << i;
    }
    EXPECT_GT(count, 0);
    EXPECT_LT(count, kRays);
}

void checkScene(const std::string& name, const kelt::TracedScene& st) {
    ASSERT_EQ(KEL_STS_OK, st.psahStatus);
    for (int inside = 0; inside < 2; ++inside) {
        const Workload w(st.scene, inside != 0);
        for (auto& [treeName, context] : st.trees)
            for (Query q : kelt::kQueries) {
                SCOPED_TRACE(name + "/" + treeName + (inside ? "/inside" : "/outside") +
                             ", query " + std::to_string(int(q)));
                const kelt::Answers scalar = kelt::trace(q, context, w.rays(q), 1),
                                    packet = kelt::trace(q, context, w.rays(q), 0);
                ASSERT_TRUE(scalar.status == KEL_STS_OK && packet.status == KEL_STS_OK);
                EXPECT_TRUE(scalar.intact && packet.intact) << "a plane was written outside";
                if (q == Query::kShadow)
                    checkShadow(st.scene, w.shadow, w.occluded, scalar, packet);
                else
                    checkNearest(q, st.scene, w.rays(q), w.want[q == Query::kOwnOrigins], scalar,
                                 packet);
            }
    }
}

TEST(IntersectQueries, RandomSoups) {
    for (uint32_t seed : {1u, 2u}) {
        const kelt::TracedScene st(kelt::randomSoup(seed, 400), true);
        checkScene("soup " + std::to_string(seed), st);
    }
}

TEST(IntersectQueries, SharedMeshes) {
    for (const char* file : {"teapot.obj", "stanford-bunny.obj", "fandisk.obj"}) {
        kelt::Mesh mesh;
        if (!kelt::loadSharedMesh(file, &mesh))
            GTEST_SKIP() << "shared mesh " << file << " not found (../shared/data/meshes)";
        checkScene(file, kelt::TracedScene(mesh, false));
    }
}

// Points on a floor under one large triangle, lit from above it, with a
// soup in between: the representative ray's nearest occluder is the roof,
// which then settles every tile, so every active ray names it.
TEST(IntersectQueries, TilesShadowedByTheCachedOccluder) {
    kelt::Mesh mesh;
    mesh.addTriangle(mesh.addVertex(-10, 1, -10), mesh.addVertex(10, 1, -10),
                     mesh.addVertex(0, 1, 20));
    const kelt::Mesh soup = kelt::randomSoup(4, 300);
    for (int t = 0; t < soup.triangleCount(); ++t) {
        int corner[3];
        for (int k = 0; k < 3; ++k) {
            const float* p = soup.corner(t, k);
            corner[k] = mesh.addVertex(p[0], p[1], p[2]);
        }
        mesh.addTriangle(corner[0], corner[1], corner[2]);
    }
    const kelt::TracedScene st(mesh, true);
    const float light[3] = {0.5f, 5.0f, 0.5f};
    kelt::Rays rays(kW, kH);
    for (int i = 0; i < kRays; ++i) {
        const float d[3] = {float(i % kW) / kW - light[0], -1.0f - light[1],
                            float(i / kW) / kH - light[2]};
        rays.origin.set(i, light);
        rays.dir.set(i, d);
        rays.mask[size_t(i)] = i % 13 == 0 ? -1 : 0;
    }
    for (auto& [treeName, context] : st.trees) {
        SCOPED_TRACE(treeName);
        const kelt::Answers a = kelt::trace(Query::kShadow, context, rays, 0);
        ASSERT_EQ(KEL_STS_OK, a.status);
        for (int i = 0; i < kRays; ++i)
            ASSERT_TRUE(a.mask[i] == -1 && a.id[i] == (i % 13 == 0 ? -1 : 0))
                << i << ": " << a.id[i];
    }
}

}  // namespace
