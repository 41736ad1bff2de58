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

// ---- Coverage ------------------------------------------------------------

// A convex polygon cut by axis planes keeps at most 3 + 6 corners; the rest
// of the room absorbs rounding.
struct Polygon {
    std::array<double, 3> v[32];
    int n = 0;
    void push(const std::array<double, 3>& p) {
        if (n < 32) v[n++] = p;
    }
};

// The part of the polygon on one side of an axis plane (Sutherland-Hodgman).
Polygon clipToHalfSpace(const Polygon& in, int axis, double plane, bool keepAbove) {
    auto inside = [&](const std::array<double, 3>& p) {
        return keepAbove ? p[size_t(axis)] >= plane : p[size_t(axis)] <= plane;
    };
    Polygon out;
    for (int k = 0; k < in.n; ++k) {
        const auto& a = in.v[k];
        const auto& b = in.v[(k + 1) % in.n];
        if (inside(a)) out.push(a);
        if (inside(a) != inside(b)) {
            const double t = (plane - a[size_t(axis)]) / (b[size_t(axis)] - a[size_t(axis)]);
            std::array<double, 3> p;
            for (size_t c = 0; c < 3; ++c) p[c] = a[c] + t * (b[c] - a[c]);
            p[size_t(axis)] = plane;
            out.push(p);
        }
    }
    return out;
}

Polygon clipToSlab(const Polygon& in, int axis, double lo, double hi) {
    return clipToHalfSpace(clipToHalfSpace(in, axis, lo, true), axis, hi, false);
}

Polygon clipToBox(Polygon p, const double* box) {
    for (int a = 0; a < 3 && p.n > 0; ++a) p = clipToSlab(p, a, box[a], box[a + 3]);
    return p;
}

// Checks the tree's geometry without trusting any traversal: every triangle
// whose part inside the build box reaches into a leaf's box (shrunk by a
// margin, so that touching a face does not count) must be listed in that
// leaf. Each triangle descends the tree clipped exactly, in double.
class CoverageCheck {
  public:
    CoverageCheck(const KDTreeNode* tree, const kelt::Mesh& mesh, const float* rootBox)
        : tree_(reinterpret_cast<const char*>(tree)), mesh_(mesh) {
        double extent = 0;
        for (int a = 0; a < 6; ++a) box_[a] = rootBox[a];
        for (int a = 0; a < 3; ++a) extent = std::max(extent, box_[a + 3] - box_[a]);
        floor_ = 1e-5 * extent;
    }

    // Number of (triangle, leaf) pairs where a reaching triangle is missing.
    int missing() const {
        int misses = 0;
        for (int n = 0; n < mesh_.triangleCount(); ++n) {
            Polygon p;
            for (int k = 0; k < 3; ++k) {
                const float* v = &mesh_.vertices[size_t(3 * mesh_.triangles[size_t(4 * n + k)])];
                p.push({v[0], v[1], v[2]});
            }
            misses += descend(0, box_, clipToBox(p, box_), n);
        }
        return misses;
    }

  private:
    int descend(int offset, const double* box, const Polygon& part, int triangle) const {
        if (part.n == 0) return 0;
        int32_t word0, word1;
        std::memcpy(&word0, tree_ + offset, 4);
        std::memcpy(&word1, tree_ + offset + 4, 4);
        if (word0 < 0) {
            double shrunk[6];
            for (int a = 0; a < 3; ++a) {
                const double margin = std::max(1e-3 * (box[a + 3] - box[a]), floor_);
                shrunk[a] = box[a] + margin;
                shrunk[a + 3] = box[a + 3] - margin;
                if (shrunk[a] > shrunk[a + 3]) return 0;  // too thin to demand anything
            }
            if (clipToBox(part, shrunk).n == 0) return 0;
            const int32_t* list = reinterpret_cast<const int32_t*>(tree_ + offset - word0);
            return std::find(list, list + word1, triangle) == list + word1;
        }
        const int axis = word0 & 3;
        float split;
        std::memcpy(&split, &word1, 4);
        const int pair = offset + (word0 & ~7);
        double below[6], above[6];
        std::copy(box, box + 6, below);
        std::copy(box, box + 6, above);
        below[axis + 3] = split;
        above[axis] = split;
        return descend(pair, below, clipToSlab(part, axis, box[axis], split), triangle) +
               descend(pair + 8, above, clipToSlab(part, axis, split, box[axis + 3]), triangle);
    }

    const char* tree_;
    const kelt::Mesh& mesh_;
    double box_[6];
    double floor_;
};

// ---- Scenes --------------------------------------------------------------

struct Scene {
    std::string name;
    kelt::Mesh mesh;
    std::vector<TriangleAccel> accel;
    float box[6];      // the mesh's bounds
    float clipBox[6];  // equal to box when not clipped
    bool clipped = false;
    KDTreeNode* psah = nullptr;
    std::vector<int32_t> oneLeaf;

    Scene() = default;
    Scene(const Scene&) = delete;
    Scene& operator=(const Scene&) = delete;
    ~Scene() { kelrKDTreeFree(psah); }

    IntersectContext psahContext() const { return {clipBox, accel.data(), psah}; }
    IntersectContext referenceContext() const {
        return {box, accel.data(), reinterpret_cast<const KDTreeNode*>(oneLeaf.data())};
    }
    bool insideClip(const float p[3]) const {
        for (int a = 0; a < 3; ++a) {
            const float margin = 1e-3f * (clipBox[a + 3] - clipBox[a]);
            if (!(p[a] > clipBox[a] + margin && p[a] < clipBox[a + 3] - margin)) return false;
        }
        return true;
    }
};

// Builds and checks the scene's PSAH tree.
void prepare(Scene* s, const float* clipBox, int maxDepth, float weight) {
    const kelt::Mesh& m = s->mesh;
    s->accel.assign(size_t(m.triangleCount()), TriangleAccel{});
    kelrTriangleAccelInit(s->accel.data(), m.vertices.data(), m.triangles.data(),
                          m.triangleCount());
    kelt::vertexBounds(m, s->box);
    s->clipped = clipBox != nullptr;
    for (int a = 0; a < 6; ++a) s->clipBox[a] = clipBox ? clipBox[a] : s->box[a];
    s->oneLeaf = kelt::oneLeafTree(m.triangleCount());
    const KDTreeBuildContext context = {KDT_BUILD_PSAH, maxDepth, weight,
                                        kelt::psahBudgetMiB(m.vertexCount(), m.triangleCount()),
                                        clipBox};
    int size = 0;
    ASSERT_EQ(KEL_STS_OK,
              kelrKDTreeBuildAlloc(&s->psah, m.vertices.data(), m.triangles.data(), m.vertexCount(),
                                   m.triangleCount(), &size, &context));
    kelt::TreeSummary summary;
    ASSERT_EQ("", kelt::checkTree(s->psah, size, m.triangleCount(), &summary));
    EXPECT_LE(summary.maxDepth, maxDepth);
    EXPECT_GT(summary.innerNodes, 0);
    // A node holds at most one patch of a triangle.
    EXPECT_FALSE(summary.duplicateInLeaf);
    // Uncut, every patch reaches some leaf.
    if (!clipBox) EXPECT_TRUE(kelt::listsEveryTriangle(summary, m.triangleCount()));
    EXPECT_EQ(0, CoverageCheck(s->psah, m, s->clipBox).missing());
}

// The shared meshes whole and cut to a box, and soups over the weights.
std::vector<std::unique_ptr<Scene>> scenes() {
    std::vector<std::unique_ptr<Scene>> list;
    auto add = [&list](const std::string& name, kelt::Mesh mesh, const float* clip, int depth,
                       float weight) {
        auto s = std::make_unique<Scene>();
        s->name = name;
        s->mesh = std::move(mesh);
        SCOPED_TRACE(name);
        prepare(s.get(), clip, depth, weight);
        if (!::testing::Test::HasFatalFailure()) list.push_back(std::move(s));
    };
    for (const char* file : {"stanford-bunny.obj", "teapot.obj", "fandisk.obj"}) {
        kelt::Mesh mesh;
        if (kelt::loadSharedMesh(file, &mesh)) add(file, std::move(mesh), nullptr, 50, 0.5f);
    }
    add("soup 1", kelt::randomSoup(21, 3000), nullptr, 30, 1.0f);
    add("soup 2", kelt::randomSoup(22, 3000), nullptr, 20, 0.0f);
    add("soup 3", kelt::randomSoup(3, 3000), nullptr, 50, 0.5f);
    const float soupBox[6] = {0.15f, 0.2f, 0.3f, 0.7f, 0.85f, 0.65f};
    add("clipped soup", kelt::randomSoup(23, 3000), soupBox, 50, 0.5f);
    kelt::Mesh bunny;
    if (kelt::loadSharedMesh("stanford-bunny.obj", &bunny)) {
        float box[6], clip[6];
        kelt::vertexBounds(bunny, box);
        for (int a = 0; a < 3; ++a) {
            clip[a] = box[a] + 0.25f * (box[a + 3] - box[a]);
            clip[a + 3] = box[a] + 0.75f * (box[a + 3] - box[a]);
        }
        add("clipped bunny", std::move(bunny), clip, 50, 0.5f);
    }
    return list;
}

// ---- Ray queries ---------------------------------------------------------

constexpr int kRays = 64 * 32;
using oracle::Query;

// The rays of a query: origins (for rays with their own) and directions.
struct Rays {
    kelt::Planes3 origin{kRays}, direction{kRays};
};

struct Results {
    kelt::Planes3 hit{kRays};
    kelt::Plane<float> distance{kRays};
    kelt::Plane<int> id{kRays}, mask{kRays};
};

// Runs the query on a width x height block over the first rays.
void run(Query q, const IntersectContext& context, const float eye[3], int width, int height,
         Rays& r, Results* out) {
    for (int i = 0; i < kRays; ++i) {
        out->distance[i] = 1e30f;
        out->hit.x[i] = out->hit.y[i] = -7.0f;
        out->id[i] = -9;
        out->mask[i] = 0;
    }
    KelStatus status;
    if (q == Query::Eye)
        status = kelrIntersectEyeSO_32f(eye, r.direction.p, out->distance.data(), out->hit.p,
                                        out->id.data(), &context, width, height);
    else if (q == Query::MultipleOrigin)
        status = kelrIntersectMO_32f(r.origin.p, r.direction.p, out->distance.data(), out->hit.p,
                                     out->id.data(), &context, width, height);
    else
        status = kelrIntersectAnySO_32f(eye, r.direction.p, out->id.data(), out->mask.data(), width,
                                        height, &context);
    EXPECT_EQ(KEL_STS_OK, status);
}

struct Tally {
    int compared = 0, faults = 0;
    std::string first;
    void fault(int ray, const Results& got, const Results& want) {
        if (faults++ == 0)
            first = "ray " + std::to_string(ray) + ": tree " + std::to_string(got.id[ray]) +
                    " at " + std::to_string(got.distance[ray]) + ", one leaf " +
                    std::to_string(want.id[ray]) + " at " + std::to_string(want.distance[ray]);
    }
};

// Compares the first n results; with a clip box only where they are
// comparable (see the top of this file).
void compare(Query q, const Scene& s, Rays& r, const float eye[3], int n, const Results& got,
             const Results& want, Tally* tally) {
    for (int i = 0; i < n; ++i) {
        float o[3], d[3];
        if (q == Query::MultipleOrigin)
            r.origin.get(i, o);
        else
            std::copy(eye, eye + 3, o);
        r.direction.get(i, d);
        if (q == Query::Any) {
            const float end[3] = {o[0] + d[0], o[1] + d[1], o[2] + d[2]};
            if (s.clipped && !s.insideClip(end)) continue;
            ++tally->compared;
            if (got.mask[i] != want.mask[i]) tally->fault(i, got, want);
            continue;
        }
        const float t = got.distance[i], wantT = want.distance[i];
        const double slack = oracle::margin(q) + 2 * std::ldexp(std::fabs(double(wantT)), -23);
        if (s.clipped) {
            // Reported hits come from a subset of the triangles' parts.
            if (got.id[i] >= 0 && (want.id[i] < 0 || double(t) < wantT - slack))
                tally->fault(i, got, want);
            const float p[3] = {o[0] + wantT * d[0], o[1] + wantT * d[1], o[2] + wantT * d[2]};
            if (want.id[i] < 0 || !s.insideClip(p)) continue;
        }
        ++tally->compared;
        if (got.id[i] == want.id[i] &&
            (got.id[i] < 0 ||
             (oracle::sameBits(t, wantT) && oracle::sameBits(got.hit.x[i], want.hit.x[i]) &&
              oracle::sameBits(got.hit.y[i], want.hit.y[i]))))
            continue;
        const bool tie = got.id[i] >= 0 && want.id[i] >= 0 && std::fabs(double(t) - wantT) <= slack;
        if (!tie) tally->fault(i, got, want);
    }
}

// Eye rays towards random points in the box (from outside it, or from inside
// a clip box, where the hits are comparable), rays from random points in
// random directions, or segments from a light inside the box to random
// points in it.
void makeRays(Query q, const Scene& s, unsigned seed, float eye[3], Rays* r) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> unit(0.0f, 1.0f);
    std::normal_distribution<float> normal(0.0f, 1.0f);
    const float* b = s.clipBox;
    for (int a = 0; a < 3; ++a)
        eye[a] = q == Query::Eye && !s.clipped
                     ? s.box[a] + (s.box[a + 3] - s.box[a]) * (a == 1 ? 0.6f : 1.9f)
                     : b[a] + (b[a + 3] - b[a]) * (0.4f + 0.1f * float(a));
    for (int i = 0; i < kRays; ++i) {
        float p[3], d[3];
        for (int a = 0; a < 3; ++a) p[a] = b[a] + unit(rng) * (b[a + 3] - b[a]);
        for (int a = 0; a < 3; ++a) d[a] = q == Query::MultipleOrigin ? normal(rng) : p[a] - eye[a];
        r->origin.set(i, p);
        r->direction.set(i, d);
    }
}

TEST(PsahTrees, AreSoundAndAnswerRaysAsTheOneLeafTree) {
    if (kelt::sharedMeshDir().empty())
        std::printf("shared meshes absent: checking the random soups only\n");
    Rays rays;
    Results got, want;
    for (const auto& scene : scenes()) {
        const Scene& s = *scene;
        // The reference tests every triangle, so large meshes get fewer rays:
        // an aligned block, then a scalar one over the first rays again.
        const bool large = s.mesh.triangleCount() > 10000;
        const int blocks[2][2] = {{large ? 32 : 64, large ? 16 : 32},
                                  {large ? 29 : 61, large ? 5 : 13}};
        for (Query q : {Query::Eye, Query::MultipleOrigin, Query::Any}) {
            float eye[3];
            makeRays(q, s, 1234u + unsigned(q), eye, &rays);
            for (const auto& block : blocks) {
                const char* names[] = {"eye", "multiple origin", "any"};
                SCOPED_TRACE(s.name + ", " + names[int(q)] + ", width " + std::to_string(block[0]));
                run(q, s.psahContext(), eye, block[0], block[1], rays, &got);
                run(q, s.referenceContext(), eye, block[0], block[1], rays, &want);
                Tally tally;
                compare(q, s, rays, eye, block[0] * block[1], got, want, &tally);
                EXPECT_EQ(0, tally.faults) << tally.first;
                // Enough rays are comparable for the check to mean something.
                if (s.clipped) EXPECT_GT(tally.compared, block[0] * block[1] / 20);
            }
        }
    }
}

}  // namespace
