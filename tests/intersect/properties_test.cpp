// Properties of the ray queries that hold whatever the scene: the four-ray
// path answers every query as the scalar path does on random rays into
// random soups, and rays from inside a closed surface always hit it.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "oracle.h"
#include "queries.h"
#include "soups.h"

namespace {

using kelt::Query;

constexpr int kSide = 32, kRays = kSide * kSide;

// Random rays into the unit cube from inside and outside it, with the
// directions that trouble packets: axial ones with -0.0 and tiny
// components, lanes of one packet in different octants, a NaN component;
// and assorted entry distances, among them 0.
kelt::Rays randomRays(unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> around(-0.5f, 1.5f), any(-1.0f, 1.0f), unit(0.0f, 1.0f);
    const float tiny = 1e-8f, z = -0.0f;
    const float special[8][3] = {{1, 0, 0},   {0, z, -1},    {tiny, -tiny, 1}, {z, 1, tiny},
                                 {-1, -1, 0}, {0, tiny, -1}, {1, z, z},        {NAN, 0.5f, 1}};
    kelt::Rays rays(kSide, kSide);
    for (int i = 0; i < kRays; ++i) {
        float o[3], d[3];
        for (int a = 0; a < 3; ++a) o[a] = around(rng), d[a] = any(rng);
        rays.origin.set(i, o);
        rays.dir.set(i, i % 9 == 4 ? special[i / 9 % 8] : d);
        rays.distance[size_t(i)] = i % 7 == 0 ? 0.0f : i % 7 == 1 ? 0.5f * unit(rng) : 3.4e38f;
        rays.mask[size_t(i)] = i % 11 == 0 ? -1 : i % 3;
    }
    return rays;
}

// The four-ray path gives the scalar path's answers bit for bit, except
// that its shadow rays may name another occluder.
void expectSameAnswers(Query q, const kelt::Answers& packet, const kelt::Answers& scalar) {
    ASSERT_TRUE(packet.status == KEL_STS_OK && scalar.status == KEL_STS_OK);
    EXPECT_TRUE(packet.intact && scalar.intact) << "a plane was written outside";
    for (int i = 0; i < kRays; ++i) {
        const bool sameId = q == Query::kShadow ? (packet.id[i] >= 0) == (scalar.id[i] >= 0)
                                                : packet.id[i] == scalar.id[i];
        ASSERT_TRUE(sameId && packet.mask[i] == scalar.mask[i] &&
                    kelt::sameBits(packet.t[i], scalar.t[i]) &&
                    kelt::sameBits(packet.u[i], scalar.u[i]) &&
                    kelt::sameBits(packet.v[i], scalar.v[i]))
            << "ray " << i << ": four-ray path " << packet.id[i] << " at " << packet.t[i]
            << ", scalar " << scalar.id[i] << " at " << scalar.t[i];
    }
}

TEST(Properties, FourRayPathAnswersAsTheScalarPathOnRandomSoups) {
    for (unsigned seed : {1u, 2u}) {
        const kelt::TracedScene st(kelt::randomSoup(seed, 2000), true);
        ASSERT_EQ(KEL_STS_OK, st.psahStatus);
        const kelt::Rays rays = randomRays(seed);
        for (const auto& [tree, context] : st.trees)
            for (Query q : kelt::kQueries) {
                SCOPED_TRACE(testing::Message()
                             << "soup " << seed << ", " << tree << ", query " << int(q));
                const kelt::Answers scalar = kelt::trace(q, context, rays, 1);
                expectSameAnswers(q, kelt::trace(q, context, rays, 0), scalar);
                int hits = 0;
                for (int id : scalar.id) hits += id >= 0;
                EXPECT_GT(hits, kRays / 10);
            }
    }
}

// Rays from inside a closed surface, all from one point (eye and shadow
// rays) or each from its own, aimed at a corner of a random triangle, at
// the middle of one of its edges, or anywhere, and long enough to leave it.
kelt::Rays raysFromInside(const kelt::Mesh& mesh, bool ownOrigins) {
    std::mt19937 rng(5);
    std::uniform_real_distribution<float> inside(0.3f, 0.7f), any(-1.0f, 1.0f);
    std::uniform_int_distribution<int> pick(0, mesh.triangleCount() - 1);
    const float eye[3] = {0.45f, 0.52f, 0.48f};
    kelt::Rays rays(kSide, kSide);
    for (int i = 0; i < kRays; ++i) {
        float o[3] = {eye[0], eye[1], eye[2]}, d[3], length = 0;
        if (ownOrigins)
            for (float& c : o) c = inside(rng);
        const int t = pick(rng);
        const float *a = mesh.corner(t, 0), *b = mesh.corner(t, 1);
        for (int k = 0; k < 3; ++k) {
            d[k] = i % 3 == 0 ? a[k] - o[k] : i % 3 == 1 ? 0.5f * (a[k] + b[k]) - o[k] : any(rng);
            length += d[k] * d[k];
        }
        for (float& c : d) c *= 2.0f / std::sqrt(length);
        rays.origin.set(i, o);
        rays.dir.set(i, d);
    }
    return rays;
}

// The cube's faces are flat records in the planes of the box; every edge of
// both surfaces is shared by two triangles.
TEST(Properties, RaysFromInsideAClosedSurfaceAlwaysHitIt) {
    for (const kelt::Mesh& mesh : {kelt::closedBox(6), kelt::closedSphere(40, 20)}) {
        const kelt::TracedScene st(mesh, true);
        ASSERT_EQ(KEL_STS_OK, st.psahStatus);
        for (Query q : kelt::kQueries) {
            const kelt::Rays rays = raysFromInside(mesh, q == Query::kOwnOrigins);
            float light[3];
            rays.origin.get(0, light);
            for (const auto& [tree, context] : st.trees) {
                SCOPED_TRACE(testing::Message() << mesh.triangleCount() << " triangles, " << tree
                                                << ", query " << int(q));
                // Rays aimed at corners and edges leave the decisions no
                // margin: the paths must still agree to the bit.
                const kelt::Answers scalar = kelt::trace(q, context, rays, 1);
                expectSameAnswers(q, kelt::trace(q, context, rays, 0), scalar);
                int misses = 0, first = -1;
                for (int i = 0; i < kRays; ++i) {
                    float d[3];
                    rays.dir.get(i, d);
                    const bool hit = q != Query::kShadow ? scalar.id[i] >= 0 : scalar.mask[i] == -1;
                    // A shadow segment aimed exactly at a corner or an edge
                    // may pass between the triangles there: its
                    // single-precision weights miss the snap to zero, as the
                    // brute force shows.
                    const bool want =
                        q != Query::kShadow || i % 3 == 2 ||
                        oracle::anyOccluder(st.scene.accel.data(), st.scene.count(), light, d) >= 0;
                    if (hit != want && misses++ == 0) first = i;
                }
                EXPECT_EQ(0, misses) << "first at ray " << first;
            }
        }
    }
}

}  // namespace
