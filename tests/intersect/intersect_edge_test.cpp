// Edge cases of the ray-scene queries on small hand-made scenes and trees:
// what rays that miss keep, the distance limits, the box tests that differ
// between the queries, the segment ends of shadow rays, traversal order,
// early termination, the traversal stack limit, the choice between the
// scalar and the four-ray path, and the four-ray kernels' lane masks.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include "intersect/packet.h"
#include "packed_tree.h"
#include "queries.h"

namespace {

using kelt::PackedTree;
using kelt::Plane;
using kelt::Planes3;
using kelt::Query;
using kelt::TreeNode;
using V3 = std::array<float, 3>;

constexpr float kFar = 3.4028235e38f;
constexpr float kUnset = -7.0f;  // the hit coordinates before a query

using Corners = std::array<V3, 3>;

// A scene of the given triangles.
kelt::Scene scene(const std::vector<Corners>& triangles) {
    kelt::Mesh mesh;
    for (const Corners& t : triangles) {
        int c[3];
        for (int k = 0; k < 3; ++k) c[k] = mesh.addVertex(t[k][0], t[k][1], t[k][2]);
        mesh.addTriangle(c[0], c[1], c[2]);
    }
    return kelt::Scene(mesh);
}

// A triangle in the plane x = at covering y, z in [lo, hi] (and more).
Corners wall(float at, float lo = 0.0f, float hi = 1.0f) {
    const float span = hi - lo;
    return {V3{at, lo, lo}, V3{at, lo + 2 * span, lo}, V3{at, lo, lo + 2 * span}};
}

// A scene of walls at the given x, all covering [lo, hi].
kelt::Scene walls(std::vector<float> xs, float lo = 0.0f, float hi = 1.0f) {
    std::vector<Corners> triangles;
    for (float x : xs) triangles.push_back(wall(x, lo, hi));
    return scene(triangles);
}

using Result = kelt::Answers;

// The rays as one row, from their origins (or all from the first one).
kelt::Rays row(const std::vector<V3>& origins, const std::vector<V3>& dirs) {
    kelt::Rays rays(int(dirs.size()), 1);
    for (int i = 0; i < rays.count; ++i) {
        rays.origin.set(i, origins[origins.size() == 1 ? 0 : size_t(i)].data());
        rays.dir.set(i, dirs[size_t(i)].data());
    }
    return rays;
}

// Nearest hits for the given rays; origins.size() == 1 runs the eye query.
Result nearest(const kelt::Scene& s, const float* box, const KDTreeNode* tree,
               const std::vector<V3>& origins, const std::vector<V3>& dirs,
               const std::vector<float>& distances) {
    kelt::Rays rays = row(origins, dirs);
    rays.distance = distances;
    const Query q = origins.size() == 1 ? Query::kEye : Query::kOwnOrigins;
    const Result r = kelt::trace(q, {box, s.accel.data(), tree}, rays, 0);
    EXPECT_TRUE(r.intact) << "a plane was written outside";
    return r;
}

// Shadow segments from the light; the context's box is null, since the
// query must not read it.
Result occluded(const kelt::Scene& s, const KDTreeNode* tree, const V3& light,
                const std::vector<V3>& dirs, const std::vector<int>& masks) {
    kelt::Rays rays = row({light}, dirs);
    rays.mask = masks;
    const Result r = kelt::trace(Query::kShadow, {nullptr, s.accel.data(), tree}, rays, 0);
    EXPECT_TRUE(r.intact) << "a plane was written outside";
    return r;
}

TEST(IntersectEdges, MissesKeepTheirInputsAndZeroDistanceNeverHits) {
    const kelt::Scene s = walls({0.5f});
    const PackedTree tree(*kelt::singleLeaf(1));
    // toward the wall; away from it; distance 0; zero direction; too short
    const std::vector<V3> dirs = {{1, 0, 0}, {-1, 0, 0}, {1, 0, 0}, {0, 0, 0}, {1, 0, 0}};
    const std::vector<float> dist = {kFar, 7.0f, 0.0f, 7.0f, 0.4f};
    for (bool eye : {true, false}) {
        SCOPED_TRACE(eye ? "eye" : "multiple origins");
        const std::vector<V3> origins(eye ? 1 : dirs.size(), V3{0.0f, 0.3f, 0.4f});
        const Result r = nearest(s, s.box, tree.root(), origins, dirs, dist);
        EXPECT_EQ(KEL_STS_OK, r.status);
        EXPECT_EQ((std::vector<int>{0, -1, -1, -1, -1}), r.id);
        EXPECT_EQ((std::vector<float>{0.5f, 7.0f, 0.0f, 7.0f, 0.4f}), r.t);
        // corners (0.5, 0, 0), (0.5, 2, 0), (0.5, 0, 2); the hit is (0.5, 0.3, 0.4)
        EXPECT_TRUE(std::fabs(r.u[0] - 0.65f) < 1e-6f && std::fabs(r.v[0] - 0.15f) < 1e-6f);
        for (int i = 1; i < 5; ++i) EXPECT_TRUE(r.u[i] == kUnset && r.v[i] == kUnset) << i;
    }
}

// The eye query does not test the slab of an axis along which a ray does
// not move; rays from many origins must start strictly inside it; shadow
// segments ignore the box altogether.
TEST(IntersectEdges, SlabsOfZeroDirectionComponents) {
    const kelt::Scene s = walls({0.5f}, -1.0f, 2.0f);
    const float unitBox[6] = {0, 0, 0, 1, 1, 1};
    const PackedTree tree(*kelt::singleLeaf(1));
    const V3 aboveBox = {-1.0f, 1.5f, 0.5f}, onMinY = {-1.0f, 0.0f, 0.5f},
             insideY = {-1.0f, 0.25f, 0.5f};
    EXPECT_EQ(0, nearest(s, unitBox, tree.root(), {aboveBox}, {{1, 0, 0}}, {kFar}).id[0]);
    const Result mo = nearest(s, unitBox, tree.root(), {aboveBox, onMinY, insideY},
                              {{1, 0, 0}, {1, 0, 0}, {1, 0, 0}}, {kFar, kFar, kFar});
    EXPECT_EQ((std::vector<int>{-1, -1, 0}), mo.id);
    EXPECT_EQ(1.5f, mo.t[2]);
    const Result any = occluded(s, tree.root(), aboveBox, {{2, 0, 0}}, {0});
    EXPECT_TRUE(any.id[0] == 0 && any.mask[0] == -1);
}

TEST(IntersectEdges, MultipleOriginDistanceLimits) {
    const kelt::Scene s = walls({4.999995f, 4.9999f}, -1.0f, 1.0f);
    // Each wall alone, so that the margin below the entry distance decides.
    for (int wall : {0, 1}) {
        const PackedTree tree(*TreeNode::leaf({wall}));
        const Result r = nearest(s, s.box, tree.root(), {{0, 0, 0}, {0, 0, 0}},
                                 {{1, 0, 0}, {1, 0, 0}}, {5.0f, kFar});
        EXPECT_EQ(wall == 0 ? -1 : 1, r.id[0]) << "a hit within 1e-5 of the entry distance";
        EXPECT_EQ(wall, r.id[1]);
    }
}

TEST(IntersectEdges, ShadowSegmentsExcludeTheirEnds) {
    const kelt::Scene s = scene({wall(0.0f),                // through the light: t = 0
                                 wall(1.0f),                // through the lit points: t = 1
                                 wall(1.5f),                // behind them
                                 wall(0.5f, 0.0f, 0.2f)});  // covers y + z <= 0.4 at x = 0.5
    const PackedTree tree(*kelt::singleLeaf(4));
    const V3 light = {0.0f, 0.5f, 0.05f};
    const std::vector<V3> dirs = {{1, -0.4f, 0}, {1, 0.3f, 0}, {1, 0.3f, 0}, {1, -0.4f, 0}};
    const Result r = occluded(s, tree.root(), light, dirs, {0, 7, -5, -1});
    EXPECT_EQ(KEL_STS_OK, r.status);
    EXPECT_EQ((std::vector<int>{3, -1, -1, -1}), r.id);
    EXPECT_EQ((std::vector<int>{-1, 7, -5, -1}), r.mask);
}

TEST(IntersectEdges, RayThroughAVertexHits) {
    const kelt::Scene s = scene({{V3{1, 0, 0}, V3{0, 1, 0}, V3{0, 0, 0}}});
    const PackedTree tree(*kelt::singleLeaf(1));
    for (const V3& corner : {V3{1, 0, 0}, V3{0, 1, 0}, V3{0, 0, 0}}) {
        const V3 from = {corner[0], corner[1], 1.0f};
        const Result r = nearest(s, s.box, tree.root(), {from}, {{0, 0, -1}}, {kFar});
        EXPECT_TRUE(r.id[0] == 0 && r.u[0] == corner[0] && r.v[0] == corner[1]) << r.u[0];
        EXPECT_EQ(0, occluded(s, tree.root(), from, {{0, 0, -2}}, {0}).id[0]);
    }
}

// Walls at x = 0.25, 0.8, 0.1, 0.6, and two copies of one at 0.7. Trees that
// file triangles in the wrong cell show which cells a ray visits.
TEST(IntersectEdges, TraversalOrderAndEarlyTermination) {
    const kelt::Scene s = walls({0.25f, 0.8f, 0.1f, 0.6f, 0.7f, 0.7f}, -1.0f, 1.0f);
    auto split = [](float at, std::vector<int> below, std::vector<int> above) {
        return PackedTree(*TreeNode::inner(0, at, TreeNode::leaf(below), TreeNode::leaf(above)));
    };
    const V3 start = {0, 0, 0}, back = {1, 0, 0};
    auto nearestId = [&](const PackedTree& tree, const V3& from, const V3& dir) {
        const int eye = nearest(s, s.box, tree.root(), {from}, {dir}, {kFar}).id[0];
        const int mo = nearest(s, s.box, tree.root(), {from, from}, {dir, dir}, {kFar, kFar}).id[0];
        EXPECT_EQ(eye, mo);
        return eye;
    };
    // A hit inside the near cell ends the ray: the misfiled nearer wall in
    // the far cell is never seen.
    EXPECT_EQ(0, nearestId(split(0.5f, {0}, {2}), start, {1, 0, 0}));
    // Going the other way the upper cell comes first.
    EXPECT_EQ(1, nearestId(split(0.5f, {3}, {1}), back, {-1, 0, 0}));
    // A hit beyond the near cell does not end it: the far cell holds a nearer one.
    EXPECT_EQ(3, nearestId(split(0.5f, {1}, {3}), start, {1, 0, 0}));
    // Equal distances: the triangle met first keeps the hit.
    EXPECT_EQ(5, nearestId(PackedTree(*TreeNode::leaf({5, 4})), start, {1, 0, 0}));
    EXPECT_EQ(4, nearestId(PackedTree(*TreeNode::leaf({4, 5})), start, {1, 0, 0}));

    // Shadow segments never visit cells beyond t = 1.0001.
    const V3 light = {0, 0, 0};
    EXPECT_EQ(-1, occluded(s, split(1.5f, {}, {0}).root(), light, {{1, 0, 0}}, {0}).id[0]);
    EXPECT_EQ(0, occluded(s, split(0.9f, {}, {0}).root(), light, {{1, 0, 0}}, {0}).id[0]);
}

// A chain of `depth` splits at x = 0.5 whose lower children lead on; a ray
// along +x through the plane defers one upper child per level.
PackedTree chainTree(int depth, const std::vector<int>& triangles) {
    auto node = TreeNode::inner(0, 0.5f, TreeNode::leaf(triangles), TreeNode::leaf(triangles));
    for (int d = 1; d < depth; ++d)
        node = TreeNode::inner(0, 0.5f, std::move(node), TreeNode::leaf({}));
    return PackedTree(*node);
}

TEST(IntersectEdges, TraversalStackHoldsFiftyDeferredChildren) {
    const kelt::Scene s = walls({0.25f});
    const float box[6] = {0, 0, 0, 1, 1, 1};
    // Ray 0 turns away from the plane (no deferral) and hits; ray 1 defers
    // one child per level; ray 2 must stay untouched after an overflow.
    const std::vector<V3> origins = {{0.4f, 0.3f, 0.3f}, {0, 0.3f, 0.3f}, {0, 0.3f, 0.3f}};
    const std::vector<V3> dirs = {{-1, 0, 0}, {1, 0, 0}, {1, 0, 0}};
    for (int depth : {50, 51}) {
        SCOPED_TRACE(depth);
        const PackedTree tree = chainTree(depth, {0});
        const KelStatus want = depth == 50 ? KEL_STS_OK : KEL_STS_NO_MEM;
        const std::vector<int> ids =
            depth == 50 ? std::vector<int>{0, 0, 0} : std::vector<int>{0, -1, 99};
        const Result mo = nearest(s, box, tree.root(), origins, dirs, {kFar, kFar, kFar});
        EXPECT_TRUE(want == mo.status && ids == mo.id && mo.t[0] == 0.15f) << mo.status;
        EXPECT_EQ(want, nearest(s, box, tree.root(), {origins[1]}, {dirs[1]}, {kFar}).status);
        EXPECT_EQ(want, occluded(s, tree.root(), origins[1], {dirs[1]}, {0}).status);

        // Rays from many origins at or below 1.1920929e-6 are not walked at
        // all; 2e-6 is walked (and overflows), though it cannot hit.
        const V3 nearPlane = {0.5f - 0.00005f, 0.3f, 0.3f};
        EXPECT_EQ(KEL_STS_OK, nearest(s, box, tree.root(), {nearPlane, nearPlane},
                                      {dirs[1], dirs[1]}, {1e-6f, 1e-6f})
                                  .status);
        const Result walked = nearest(s, box, tree.root(), {nearPlane, nearPlane},
                                      {dirs[1], dirs[1]}, {2e-6f, 2e-6f});
        EXPECT_TRUE(want == walked.status && walked.id[0] == -1) << walked.status;
    }
}

// 4 x 4 rays along +x through a chain of 51 splits: the scalar workers run
// out of stack, while the four-ray drivers do not look at their kernels'
// status, so the status tells which path a call took. Each per-ray plane
// of a query, misaligned alone, must send it down the scalar path.
TEST(IntersectEdges, DispatchByBlockShapeAndAlignment) {
    const kelt::Scene s = walls({0.25f});
    const float box[6] = {0, 0, 0, 1, 1, 1};
    const PackedTree tree = chainTree(51, {0});
    const IntersectContext ctx{box, s.accel.data(), tree.root()};
    const float eye[3] = {0, 0.3f, 0.3f};
    // origins x, y, z, directions x, y, z, distances, u, v; then ids, mask
    const float fill[9] = {0, 0.3f, 0.3f, 1, 0, 0, kFar, 0, 0};
    enum { kIds = 9, kMask = 10 };
    for (int off = -1; off <= kMask; ++off) {
        SCOPED_TRACE(off);
        std::vector<std::unique_ptr<Plane<float>>> f;
        for (int j = 0; j < 9; ++j)
            f.push_back(std::make_unique<Plane<float>>(20, fill[j], off == j));
        Plane<int> id(20, 0, off == kIds), mask(20, 0, off == kMask);
        const float* o[3] = {f[0]->data(), f[1]->data(), f[2]->data()};
        const float* d[3] = {f[3]->data(), f[4]->data(), f[5]->data()};
        float* hit[2] = {f[7]->data(), f[8]->data()};
        const KelStatus want = off < 0 ? KEL_STS_OK : KEL_STS_NO_MEM;
        EXPECT_EQ(off == kMask ? KEL_STS_OK : want,
                  kelrIntersectMO_32f(o, d, f[6]->data(), hit, id.data(), &ctx, 4, 4));
        if (off < 0 || (off >= 3 && off < kMask))
            EXPECT_EQ(want,
                      kelrIntersectEyeSO_32f(eye, d, f[6]->data(), hit, id.data(), &ctx, 4, 4));
        if (off < 0 || (off >= 3 && off < 6) || off >= kIds)
            EXPECT_EQ(want, kelrIntersectAnySO_32f(eye, d, id.data(), mask.data(), 4, 4, &ctx));
        if (off < 0) {
            // a side that is not a multiple of 4 takes the scalar path too
            EXPECT_EQ(KEL_STS_NO_MEM,
                      kelrIntersectEyeSO_32f(eye, d, f[6]->data(), hit, id.data(), &ctx, 5, 4));
            EXPECT_EQ(KEL_STS_NO_MEM,
                      kelrIntersectMO_32f(o, d, f[6]->data(), hit, id.data(), &ctx, 4, 3));
            EXPECT_EQ(KEL_STS_NO_MEM,
                      kelrIntersectAnySO_32f(eye, d, id.data(), mask.data(), 2, 4, &ctx));
        }
    }
}

// Blocks without rays write nothing, on either path (width 0 or -4 with
// aligned planes and 4 rows takes the four-ray path).
TEST(IntersectEdges, EmptyBlocks) {
    const kelt::Scene s = walls({0.5f});
    const PackedTree tree(*kelt::singleLeaf(1));
    const IntersectContext ctx = s.context(tree.root());
    Planes3 dir(4, 1.0f), hits(4);
    Plane<float> dist(4, kFar);
    Plane<int> id(4, 9), mask(4, 0);
    const float o[3] = {0, 0.3f, 0.3f};
    for (auto [w, h] :
         {std::pair{0, 4}, std::pair{-4, 4}, std::pair{4, 0}, std::pair{-4, 2}, std::pair{2, -1}}) {
        EXPECT_EQ(KEL_STS_OK,
                  kelrIntersectEyeSO_32f(o, dir.p(), dist.data(), hits.p(), id.data(), &ctx, w, h));
        EXPECT_EQ(KEL_STS_OK, kelrIntersectMO_32f(dir.p(), dir.p(), dist.data(), hits.p(),
                                                  id.data(), &ctx, w, h));
        EXPECT_EQ(KEL_STS_OK,
                  kelrIntersectAnySO_32f(o, dir.p(), id.data(), mask.data(), w, h, &ctx));
    }
    for (int i = 0; i < 4; ++i) EXPECT_TRUE(id[i] == 9 && mask[i] == 0 && dist[i] == kFar) << i;
}

// Eye rays of very different lengths, and one whose direction is not a
// number, in one four-ray packet: the lanes must still find what the
// scalar worker finds (the NaN ray nothing).
TEST(IntersectEdges, UndefinedEyeRayHidesNoHits) {
    const kelt::Scene s = scene({{V3{0.595923245f, 0.710457444f, 0.154319271f},
                                  V3{0.546393454f, 0.619260788f, 0.150560379f},
                                  V3{0.52102989f, 0.58924222f, 0.0166986585f}}});
    const PackedTree tree(*kelt::singleLeaf(1));
    const IntersectContext ctx = s.context(tree.root());
    const float eye[3] = {-0.5f, -0.4f, -0.3f},
                toward[3] = {1.07912755f, 1.07953227f, 0.453044623f};
    const float scale[4] = {1e4f, std::nanf(""), 1e-4f, 1e-4f};
    Planes3 dir(16), hit(16), scalarHit(16);
    Plane<float> dist(16, kFar), scalarDist(16, kFar);
    Plane<int> id(16), scalarId(16);
    for (int i = 0; i < 16; ++i)
        for (int a = 0; a < 3; ++a) dir.at(a, i) = toward[a] * scale[i % 4];
    ASSERT_EQ(KEL_STS_OK,
              kelrIntersectEyeSO_32f(eye, dir.p(), dist.data(), hit.p(), id.data(), &ctx, 4, 4));
    ASSERT_EQ(KEL_STS_OK,
              ownIntersectEyeBlock(eye, dir.p(), s.box, s.accel.data(), tree.root(),
                                   scalarDist.data(), scalarHit.p(), scalarId.data(), 4, 4));
    for (int i = 0; i < 16; ++i)
        EXPECT_TRUE(scalarId[i] == (i % 4 == 1 ? -1 : 0) && id[i] == scalarId[i] &&
                    dist[i] == scalarDist[i])
            << i << ": " << id[i] << " at " << dist[i] << ", scalar " << scalarId[i];
}

// The 4x1 kernels trace only the lanes of their lane set (the shadow kernel
// only those whose mask entry is >= 0); the other lanes keep every output.
// Every traced ray meets both walls, the later-listed one first.
TEST(IntersectEdges, FourRayKernelsLeaveOtherLanesAlone) {
    const kelt::Scene s = walls({0.8f, 0.6f}, -1.0f, 1.0f);
    const PackedTree tree(*kelt::singleLeaf(2));
    const float eye[3] = {0.4f, 0.1f, 0.1f};
    Planes3 origin(4), dir(4);
    for (int i = 0; i < 4; ++i) {
        const float d[3] = {1.0f, 0.1f * i, 0.05f};
        origin.set(i, eye);
        dir.set(i, d);
    }
    for (int lanes : {0x5, 0xA, 0x1, 0x8}) {
        for (bool eyeQuery : {true, false}) {
            SCOPED_TRACE(std::to_string(lanes) + (eyeQuery ? " eye" : " own origins"));
            Planes3 hit(4, 7.0f);
            Plane<float> dist(4, 123.0f);
            Plane<int> id(4, 99);
            for (int i = 0; i < 4; ++i)
                if (lanes >> i & 1) dist[i] = kFar;
            if (eyeQuery)
                ownIntersectEyeBlock4x1(eye, dir.p(), s.box, s.accel.data(), tree.root(),
                                        dist.data(), hit.p(), id.data(), lanes);
            else
                ownIntersectBlock4x1(origin.p(), dir.p(), s.box, s.accel.data(), tree.root(),
                                     dist.data(), hit.p(), id.data(), lanes);
            for (int i = 0; i < 4; ++i) {
                const bool traced = lanes >> i & 1;
                EXPECT_TRUE(id[i] == (traced ? 1 : 99) &&
                            std::fabs(dist[i] - (traced ? 0.2f : 123.0f)) < 1e-6f &&
                            traced == (hit[0][i] != 7.0f && hit[1][i] != 7.0f))
                    << i << ": " << id[i] << " at " << dist[i];
            }
        }
        Plane<int> id(4, 99), mask(4, 3);
        mask[1] = -2;
        ownIntersectAnyBlock4x1(eye, dir.p(), s.accel.data(), tree.root(), id.data(), mask.data(),
                                lanes);
        for (int i = 0; i < 4; ++i) {  // traced lanes name the first occluder listed
            const bool traced = (lanes >> i & 1) && i != 1;
            EXPECT_TRUE(id[i] == (traced ? 0 : 99) && mask[i] == (traced   ? -1
                                                                  : i == 1 ? -2
                                                                           : 3))
                << i << ": " << id[i] << ", mask " << mask[i];
        }
    }
}

}  // namespace
