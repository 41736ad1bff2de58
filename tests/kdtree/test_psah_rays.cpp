// PSAH trees answer every ray query as the one-leaf tree does: the nearest
// hit of eye rays and of rays with their own origins, and occlusion of shadow
// segments, through the public entry points, both on the four-ray path (an
// aligned 64 x 32 block) and on the scalar path (a 61-wide block).
//
// The one-leaf tree tests every triangle in index order; a nearest-hit query
// replaces a hit only by one nearer by more than its margin, so near-equal
// hits on two triangles (a shared edge) may be reported either way. Then the
// ids differ and the distances agree within the margin; that is a tie, not a
// fault.
//
// With a clip box only the triangles' parts inside it are in the PSAH tree.
// What stays comparable: a ray whose nearest hit lies inside the box (shrunk
// a little) must find it, since the hit triangle is present there and nothing
// is nearer; a segment inside the box sees exactly the occluders the full
// mesh has; and any hit the PSAH tree reports is no nearer than the true one.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
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

// Builds the PSAH tree through the public entry point.
bool prepare(Scene* s, const float* clipBox, int maxDepth, float weight) {
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
    if (kelrKDTreeBuildAlloc(&s->psah, m.vertices.data(), m.triangles.data(), m.vertexCount(),
                             m.triangleCount(), &size, &context) != KEL_STS_OK)
        return false;
    kelt::TreeSummary summary;
    return kelt::checkTree(s->psah, size, m.triangleCount(), &summary).empty() &&
           summary.innerNodes > 0;
}

constexpr int kRays = 64 * 32;

// The aligned block and the scalar one (width not a multiple of 4). The
// reference tests every triangle, so large meshes get fewer rays.
struct Shape {
    int width, height, scalarWidth, scalarHeight;
    int rays() const { return width * height; }
};

Shape shapeFor(const Scene& s) {
    return s.mesh.triangleCount() > 10000 ? Shape{32, 16, 29, 5} : Shape{64, 32, 61, 13};
}
constexpr float kFar = 1e30f;

// Per-ray arrays of one query, 16-byte aligned.
struct Rays {
    kelt::Plane<float> ox{kRays}, oy{kRays}, oz{kRays};
    kelt::Plane<float> dx{kRays}, dy{kRays}, dz{kRays};
    kelt::Plane<float> distance{kRays}, u{kRays}, v{kRays};
    kelt::Plane<int> id{kRays}, mask{kRays};
    float* origin[3] = {ox.data(), oy.data(), oz.data()};
    float* direction[3] = {dx.data(), dy.data(), dz.data()};
    float* hit[2] = {u.data(), v.data()};

    void reset() {
        for (int i = 0; i < kRays; ++i) {
            distance[i] = kFar;
            u[i] = v[i] = -7.0f;
            id[i] = -9;
            mask[i] = 0;
        }
    }
    void origins(int i, float o[3]) const {
        o[0] = origin[0][i];
        o[1] = origin[1][i];
        o[2] = origin[2][i];
    }
};

struct Outcome {
    std::vector<int> id;
    std::vector<float> t, u, v;
    std::vector<int> mask;
};

// Appends the results of the first `count` rays.
void collect(Rays& r, int count, Outcome* o) {
    for (int i = 0; i < count; ++i) {
        o->id.push_back(r.id[i]);
        o->t.push_back(r.distance[i]);
        o->u.push_back(r.u[i]);
        o->v.push_back(r.v[i]);
        o->mask.push_back(r.mask[i]);
    }
}

enum class Query { Eye, MultipleOrigin, Any };

// Runs one query on the aligned block and then on the scalar block, which
// covers the first rays again, laid out 61 (or 29) wide; the results follow
// each other.
Outcome run(Query q, const IntersectContext& context, const float eye[3], const Shape& shape,
            Rays& r) {
    Outcome all;
    for (bool scalar : {false, true}) {
        r.reset();
        const int w = scalar ? shape.scalarWidth : shape.width;
        const int h = scalar ? shape.scalarHeight : shape.height;
        KelStatus status = KEL_STS_OK;
        if (q == Query::Eye)
            status = kelrIntersectEyeSO_32f(eye, r.direction, r.distance.data(), r.hit, r.id.data(),
                                            &context, w, h);
        else if (q == Query::MultipleOrigin)
            status = kelrIntersectMO_32f(r.origin, r.direction, r.distance.data(), r.hit,
                                         r.id.data(), &context, w, h);
        else
            status = kelrIntersectAnySO_32f(eye, r.direction, r.id.data(), r.mask.data(), w, h,
                                            &context);
        EXPECT_EQ(KEL_STS_OK, status);
        collect(r, w * h, &all);
    }
    return all;
}

oracle::Query oracleQuery(Query q) {
    return q == Query::Eye              ? oracle::Query::Eye
           : q == Query::MultipleOrigin ? oracle::Query::MultipleOrigin
                                        : oracle::Query::Any;
}

// The ray of result slot k: slots past the aligned block belong to the
// scalar block, whose ray j is ray j of the arrays.
int rayOf(size_t k, const Shape& shape) {
    const size_t aligned = size_t(shape.rays());
    return int(k < aligned ? k : k - aligned);
}

struct Tally {
    int compared = 0, ties = 0, faults = 0;
    std::string first;
};

void compareNearest(Query q, const Scene& s, const Shape& shape, const Rays& r, const float eye[3],
                    const Outcome& got, const Outcome& want, Tally* tally) {
    for (size_t k = 0; k < got.id.size(); ++k) {
        const int i = rayOf(k, shape);
        float o[3];
        if (q == Query::Eye)
            for (int a = 0; a < 3; ++a) o[a] = eye[a];
        else
            r.origins(i, o);
        const float d[3] = {r.direction[0][i], r.direction[1][i], r.direction[2][i]};
        const bool sameId = got.id[k] == want.id[k];
        const double slack =
            oracle::margin(oracleQuery(q)) + 2 * std::ldexp(std::fabs(double(want.t[k])), -23);
        if (s.clipped) {
            // Reported hits come from a subset of the triangles' parts.
            if (got.id[k] >= 0 && (want.id[k] < 0 || double(got.t[k]) < want.t[k] - slack)) {
                ++tally->faults;
                if (tally->first.empty()) tally->first = "clipped hit nearer than any hit";
            }
            float p[3];
            for (int a = 0; a < 3; ++a) p[a] = o[a] + want.t[k] * d[a];
            if (want.id[k] < 0 || !s.insideClip(p)) continue;
        }
        ++tally->compared;
        if (sameId && (got.id[k] < 0 || (oracle::sameBits(got.t[k], want.t[k]) &&
                                         oracle::sameBits(got.u[k], want.u[k]) &&
                                         oracle::sameBits(got.v[k], want.v[k]))))
            continue;
        if (!sameId && got.id[k] >= 0 && want.id[k] >= 0 &&
            std::fabs(double(got.t[k]) - want.t[k]) <= slack) {
            ++tally->ties;
            continue;
        }
        ++tally->faults;
        if (tally->first.empty())
            tally->first = "ray " + std::to_string(i) + ": tree " + std::to_string(got.id[k]) +
                           " at " + std::to_string(got.t[k]) + ", one leaf " +
                           std::to_string(want.id[k]) + " at " + std::to_string(want.t[k]);
    }
}

void compareOcclusion(const Scene& s, const Shape& shape, const Rays& r, const float light[3],
                      const Outcome& got, const Outcome& want, Tally* tally) {
    for (size_t k = 0; k < got.mask.size(); ++k) {
        const int i = rayOf(k, shape);
        if (s.clipped) {
            const float end[3] = {light[0] + r.direction[0][i], light[1] + r.direction[1][i],
                                  light[2] + r.direction[2][i]};
            if (!s.insideClip(end)) continue;
        }
        ++tally->compared;
        if (got.mask[k] == want.mask[k]) continue;
        ++tally->faults;
        if (tally->first.empty())
            tally->first = "segment " + std::to_string(i) + ": tree occluder " +
                           std::to_string(got.id[k]) + ", one leaf " + std::to_string(want.id[k]);
    }
}

// Fills rays for the query: eye rays towards random points in the box (from
// outside it, or from inside a clip box), rays from random points in random
// directions, or segments from a light inside the box to random points in
// it.
void makeRays(Query q, const Scene& s, unsigned seed, float eye[3], Rays* r) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> unit(0.0f, 1.0f);
    std::normal_distribution<float> normal(0.0f, 1.0f);
    const float* b = s.clipBox;
    auto inBox = [&](float p[3]) {
        for (int a = 0; a < 3; ++a) p[a] = b[a] + unit(rng) * (b[a + 3] - b[a]);
    };
    for (int a = 0; a < 3; ++a) {
        const float e = s.box[a + 3] - s.box[a];
        // Clipped scenes see from inside the box, where the hits are comparable.
        eye[a] = q == Query::Eye && !s.clipped
                     ? s.box[a] + e * (a == 1 ? 0.6f : 1.9f)
                     : b[a] + (b[a + 3] - b[a]) * (0.4f + 0.1f * float(a));
    }
    for (int i = 0; i < kRays; ++i) {
        float p[3];
        inBox(p);
        for (int a = 0; a < 3; ++a) {
            if (q == Query::MultipleOrigin) {
                r->origin[a][i] = p[a];
                r->direction[a][i] = normal(rng);
            } else {
                r->direction[a][i] = p[a] - eye[a];
            }
        }
    }
}

std::vector<std::unique_ptr<Scene>> scenes() {
    std::vector<std::unique_ptr<Scene>> list;
    auto add = [&list](const std::string& name, kelt::Mesh mesh, const float* clip, int depth,
                       float weight) {
        auto s = std::make_unique<Scene>();
        s->name = name;
        s->mesh = std::move(mesh);
        if (!prepare(s.get(), clip, depth, weight)) {
            ADD_FAILURE() << name << ": no valid PSAH tree";
            return;
        }
        list.push_back(std::move(s));
    };
    for (const char* file : {"stanford-bunny.obj", "teapot.obj", "fandisk.obj"}) {
        kelt::Mesh mesh;
        if (kelt::loadSharedMesh(file, &mesh)) add(file, std::move(mesh), nullptr, 50, 0.5f);
    }
    add("soup 1", kelt::randomSoup(21, 3000), nullptr, 30, 1.0f);
    add("soup 2", kelt::randomSoup(22, 3000), nullptr, 20, 0.0f);
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

TEST(PsahRays, AgreeWithTheOneLeafTree) {
    if (kelt::sharedMeshDir().empty())
        std::printf("shared meshes absent: checking the random soups only\n");
    Rays rays;
    for (const auto& scene : scenes()) {
        const Scene& s = *scene;
        for (Query q : {Query::Eye, Query::MultipleOrigin, Query::Any}) {
            const char* name = q == Query::Eye              ? "eye"
                               : q == Query::MultipleOrigin ? "multiple origin"
                                                            : "any";
            SCOPED_TRACE(s.name + ", " + name);
            float eye[3];
            makeRays(q, s, 1234u + unsigned(q), eye, &rays);
            const Shape shape = shapeFor(s);
            const Outcome got = run(q, s.psahContext(), eye, shape, rays);
            const Outcome want = run(q, s.referenceContext(), eye, shape, rays);
            Tally tally;
            if (q == Query::Any)
                compareOcclusion(s, shape, rays, eye, got, want, &tally);
            else
                compareNearest(q, s, shape, rays, eye, got, want, &tally);
            EXPECT_EQ(0, tally.faults) << tally.first;
            // Enough rays are comparable for the check to mean something.
            EXPECT_GT(tally.compared, s.clipped ? shape.rays() / 10 : shape.rays());
        }
    }
}

}  // namespace
