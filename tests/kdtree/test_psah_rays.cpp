// PSAH trees over the shared meshes and seeded soups, built through the public
// entry point: well formed, listing every triangle in each leaf it reaches
// into, and answering every ray query as the one-leaf tree does (nearest hit
// of eye rays and of rays with their own origins, occlusion of segments), on
// the four-ray path (an aligned block) and on the scalar path (a block whose
// width is not a multiple of 4).
//
// The one-leaf tree tests every triangle in index order; a nearest-hit query
// replaces a hit only by one nearer by more than its margin, so near-equal
// hits on two triangles (a shared edge) may be reported either way. Then the
// ids differ and the distances agree within the margin: a tie, not a fault.
//
// With a clip box only the triangles' parts inside it are in the PSAH tree.
// What stays comparable: a ray whose nearest hit lies inside the box (shrunk
// a little) must find it, since the hit triangle is present there and nothing
// is nearer; a segment inside the box sees exactly the occluders the full
// mesh has; and any hit the PSAH tree reports is no nearer than the true one.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "../intersect/oracle.h"
#include "../intersect/scene.h"
#include "mesh.h"
#include "psah_support.h"
#include "tree_check.h"

namespace {

// A convex polygon cut by axis planes keeps at most 3 + 6 corners; the rest
// of the room absorbs rounding.
struct Polygon {
    std::array<double, 3> v[32];
    int n = 0;
};

// The part of the polygon inside lo <= p[axis] <= hi (Sutherland-Hodgman).
Polygon clipToSlab(Polygon p, int axis, double lo, double hi) {
    for (int side = 0; side < 2; ++side) {
        const double plane = side ? hi : lo;
        auto inside = [&](const std::array<double, 3>& q) {
            return side ? q[axis] <= plane : q[axis] >= plane;
        };
        Polygon out;
        for (int k = 0; k < p.n; ++k) {
            const auto &a = p.v[k], &b = p.v[(k + 1) % p.n];
            if (inside(a) && out.n < 32) out.v[out.n++] = a;
            if (inside(a) == inside(b) || out.n == 32) continue;
            const double t = (plane - a[axis]) / (b[axis] - a[axis]);
            auto& q = out.v[out.n++];
            for (int c = 0; c < 3; ++c) q[c] = a[c] + t * (b[c] - a[c]);
            q[axis] = plane;
        }
        p = out;
    }
    return p;
}

Polygon clipToBox(Polygon p, const double* box) {
    for (int a = 0; a < 3 && p.n > 0; ++a) p = clipToSlab(p, a, box[a], box[a + 3]);
    return p;
}

// Checks the tree's geometry without trusting any traversal: every triangle
// whose part inside the build box reaches into a leaf's box (shrunk by a
// margin, so that touching a face does not count) must be listed in that
// leaf. Each triangle descends the tree clipped exactly, in double. Returns
// the number of (triangle, leaf) pairs where a reaching triangle is missing.
int missingFromLeaves(const KDTreeNode* tree, const kelt::Mesh& mesh, const float* rootBox) {
    const char* block = reinterpret_cast<const char*>(tree);
    double root[6], extent = 0;
    std::copy(rootBox, rootBox + 6, root);
    for (int a = 0; a < 3; ++a) extent = std::max(extent, root[a + 3] - root[a]);
    auto descend = [&](auto& self, int offset, const double* box, const Polygon& part,
                       int triangle) -> int {
        if (part.n == 0) return 0;
        int32_t word0, word1;
        std::memcpy(&word0, block + offset, 4), std::memcpy(&word1, block + offset + 4, 4);
        double below[6], above[6];
        std::copy(box, box + 6, below), std::copy(box, box + 6, above);
        if (word0 < 0) {
            for (int a = 0; a < 3; ++a) {
                const double margin = std::max(1e-3 * (box[a + 3] - box[a]), 1e-5 * extent);
                below[a] += margin, below[a + 3] -= margin;
                if (below[a] > below[a + 3]) return 0;  // too thin to demand anything
            }
            const int32_t* list = reinterpret_cast<const int32_t*>(block + offset - word0);
            return clipToBox(part, below).n > 0 &&
                   std::find(list, list + word1, triangle) == list + word1;
        }
        const int axis = word0 & 3, pair = offset + (word0 & ~7);
        float split;
        std::memcpy(&split, &word1, 4);
        below[axis + 3] = above[axis] = split;
        return self(self, pair, below, clipToSlab(part, axis, box[axis], split), triangle) +
               self(self, pair + 8, above, clipToSlab(part, axis, split, box[axis + 3]), triangle);
    };
    int misses = 0;
    for (int n = 0; n < mesh.triangleCount(); ++n) {
        Polygon p;
        for (int k = 0; k < 3; ++k) {
            const float* v = &mesh.vertices[size_t(3 * mesh.triangles[size_t(4 * n + k)])];
            p.v[p.n++] = {v[0], v[1], v[2]};
        }
        misses += descend(descend, 0, root, clipToBox(p, root), n);
    }
    return misses;
}

constexpr int kRays = 64 * 32;
using oracle::Query;

struct Results {
    kelt::Planes3 hit{kRays};
    kelt::Plane<float> distance{kRays};
    kelt::Plane<int> id{kRays}, mask{kRays};
};

// Runs the query on a width x height block over the first rays.
void run(Query q, const IntersectContext& context, const float eye[3], int width, int height,
         kelt::Planes3& origin, kelt::Planes3& dir, Results* out) {
    for (int i = 0; i < kRays; ++i)
        out->distance[i] = 1e30f, out->hit.x[i] = out->hit.y[i] = -7.0f, out->id[i] = -9,
        out->mask[i] = 0;
    float* d = out->distance.data();
    int* id = out->id.data();
    EXPECT_EQ(
        KEL_STS_OK,
        q == Query::Eye
            ? kelrIntersectEyeSO_32f(eye, dir.p, d, out->hit.p, id, &context, width, height)
        : q == Query::Any
            ? kelrIntersectAnySO_32f(eye, dir.p, id, out->mask.data(), width, height, &context)
            : kelrIntersectMO_32f(origin.p, dir.p, d, out->hit.p, id, &context, width, height));
}

// Builds and checks the PSAH tree of the mesh (cut to the clip box when one
// is given), then compares its query answers.
void checkScene(const std::string& name, const kelt::Mesh& m, const float* clipBox, int maxDepth,
                float weight) {
    SCOPED_TRACE(name);
    const int n = m.triangleCount();
    std::vector<TriangleAccel> accel(size_t(n), TriangleAccel{});
    kelrTriangleAccelInit(accel.data(), m.vertices.data(), m.triangles.data(), n);
    float box[6], clip[6];
    kelt::vertexBounds(m, box);
    const bool clipped = clipBox != nullptr;
    std::copy(clipped ? clipBox : box, (clipped ? clipBox : box) + 6, clip);
    const std::vector<int32_t> oneLeafTree = kelt::oneLeafTree(n);
    const KDTreeBuildContext context = {KDT_BUILD_PSAH, maxDepth, weight,
                                        kelt::psahBudgetMiB(m.vertexCount(), n), clipBox};
    KDTreeNode* tree = nullptr;
    int size = 0;
    ASSERT_EQ(KEL_STS_OK, kelrKDTreeBuildAlloc(&tree, m.vertices.data(), m.triangles.data(),
                                               m.vertexCount(), n, &size, &context));
    std::unique_ptr<KDTreeNode, void (*)(KDTreeNode*)> owner(tree, kelrKDTreeFree);
    kelt::TreeSummary summary;
    ASSERT_EQ("", kelt::checkTree(tree, size, n, &summary));
    EXPECT_LE(summary.maxDepth, maxDepth);
    EXPECT_GT(summary.innerNodes, 0);
    // A node holds at most one patch of a triangle; uncut, every patch
    // reaches some leaf.
    EXPECT_FALSE(summary.duplicateInLeaf);
    if (!clipBox) EXPECT_TRUE(kelt::listsEveryTriangle(summary, n));
    EXPECT_EQ(0, missingFromLeaves(tree, m, clip));

    auto insideClip = [&](const float p[3]) {
        for (int a = 0; a < 3; ++a) {
            const float margin = 1e-3f * (clip[a + 3] - clip[a]);
            if (!(p[a] > clip[a] + margin && p[a] < clip[a + 3] - margin)) return false;
        }
        return true;
    };
    const IntersectContext psah = {clip, accel.data(), tree},
                           oneLeaf = {box, accel.data(),
                                      reinterpret_cast<const KDTreeNode*>(oneLeafTree.data())};
    // Eye rays towards random points in the box (from outside it, or from inside
    // a clip box, where the hits are comparable), rays from random points in
    // random directions, or segments from a light inside the box to random
    // points in it. Each is compared with the one-leaf tree on an aligned block,
    // then on a scalar one over the first rays again, fewer on large meshes as
    // the reference tests every triangle.
    kelt::Planes3 origin{kRays}, dir{kRays};
    Results got, want;
    const bool large = n > 10000;
    const int blocks[2][2] = {{large ? 32 : 64, large ? 16 : 32},
                              {large ? 29 : 61, large ? 5 : 13}};
    const char* names[] = {"eye", "multiple origin", "any"};
    for (Query q : {Query::Eye, Query::MultipleOrigin, Query::Any}) {
        std::mt19937 rng(1234u + unsigned(q));
        std::uniform_real_distribution<float> unit(0.0f, 1.0f);
        std::normal_distribution<float> normal(0.0f, 1.0f);
        const float* b = clip;
        float eye[3];
        for (int a = 0; a < 3; ++a)
            eye[a] = q == Query::Eye && !clipped
                         ? box[a] + (box[a + 3] - box[a]) * (a == 1 ? 0.6f : 1.9f)
                         : b[a] + (b[a + 3] - b[a]) * (0.4f + 0.1f * float(a));
        for (int i = 0; i < kRays; ++i) {
            float p[3], d[3];
            for (int a = 0; a < 3; ++a) p[a] = b[a] + unit(rng) * (b[a + 3] - b[a]);
            for (int a = 0; a < 3; ++a)
                d[a] = q == Query::MultipleOrigin ? normal(rng) : p[a] - eye[a];
            origin.set(i, p);
            dir.set(i, d);
        }
        for (const auto& block : blocks) {
            SCOPED_TRACE(std::string(names[int(q)]) + ", width " + std::to_string(block[0]));
            run(q, psah, eye, block[0], block[1], origin, dir, &got);
            run(q, oneLeaf, eye, block[0], block[1], origin, dir, &want);
            int compared = 0, faults = 0, first = 0;
            for (int i = 0; i < block[0] * block[1]; ++i) {
                auto fault = [&] { first = faults++ ? first : i; };
                float o[3] = {eye[0], eye[1], eye[2]}, d[3];
                if (q == Query::MultipleOrigin) origin.get(i, o);
                dir.get(i, d);
                if (q == Query::Any) {
                    const float end[3] = {o[0] + d[0], o[1] + d[1], o[2] + d[2]};
                    if (clipped && !insideClip(end)) continue;
                    ++compared;
                    if (got.mask[i] != want.mask[i]) fault();
                    continue;
                }
                const float t = got.distance[i], wantT = want.distance[i];
                const double slack =
                    oracle::margin(q) + 2 * std::ldexp(std::fabs(double(wantT)), -23);
                if (clipped) {
                    // Reported hits come from a subset of the triangles' parts.
                    if (got.id[i] >= 0 && (want.id[i] < 0 || double(t) < wantT - slack)) fault();
                    const float p[3] = {o[0] + wantT * d[0], o[1] + wantT * d[1],
                                        o[2] + wantT * d[2]};
                    if (want.id[i] < 0 || !insideClip(p)) continue;
                }
                ++compared;
                if (got.id[i] == want.id[i] &&
                    (got.id[i] < 0 ||
                     (oracle::sameBits(t, wantT) && oracle::sameBits(got.hit.x[i], want.hit.x[i]) &&
                      oracle::sameBits(got.hit.y[i], want.hit.y[i]))))
                    continue;
                if (got.id[i] < 0 || want.id[i] < 0 || std::fabs(double(t) - wantT) > slack)
                    fault();
            }
            EXPECT_EQ(0, faults) << "first at ray " << first << ": tree " << got.id[first] << " at "
                                 << got.distance[first] << ", one leaf " << want.id[first] << " at "
                                 << want.distance[first];
            // Enough rays are comparable for the check to mean something.
            if (clipped) EXPECT_GT(compared, block[0] * block[1] / 20);
        }
    }
}

// The shared meshes whole and cut to a box, and soups over the weights.
TEST(PsahTrees, AreSoundAndAnswerRaysAsTheOneLeafTree) {
    if (kelt::sharedMeshDir().empty())
        std::printf("shared meshes absent: checking the random soups only\n");
    for (const char* file : {"stanford-bunny.obj", "teapot.obj", "fandisk.obj"}) {
        kelt::Mesh mesh;
        if (kelt::loadSharedMesh(file, &mesh)) checkScene(file, mesh, nullptr, 50, 0.5f);
    }
    checkScene("soup 1", kelt::randomSoup(21, 3000), nullptr, 30, 1.0f);
    checkScene("soup 2", kelt::randomSoup(22, 3000), nullptr, 20, 0.0f);
    checkScene("soup 3", kelt::randomSoup(3, 3000), nullptr, 50, 0.5f);
    const float soupBox[6] = {0.15f, 0.2f, 0.3f, 0.7f, 0.85f, 0.65f};
    checkScene("clipped soup", kelt::randomSoup(23, 3000), soupBox, 50, 0.5f);
    kelt::Mesh bunny;
    if (kelt::loadSharedMesh("stanford-bunny.obj", &bunny)) {
        float box[6], clip[6];
        kelt::vertexBounds(bunny, box);
        for (int a = 0; a < 3; ++a)
            clip[a] = box[a] + 0.25f * (box[a + 3] - box[a]),
            clip[a + 3] = box[a] + 0.75f * (box[a + 3] - box[a]);
        checkScene("clipped bunny", bunny, clip, 50, 0.5f);
    }
}

}  // namespace
