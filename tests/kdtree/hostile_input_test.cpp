// Hostile meshes and rays: NaN, infinite, huge and denormal coordinates,
// degenerate, coplanar and repeated triangles, and rays whose directions or
// origins are NaN, infinite, zero or denormal. Every build and query returns
// a status (ctest's timeout bounds the time they take), every tree returned
// is well formed, nothing is written outside the output arrays and nothing
// stays allocated. Rays that are not hostile give the same answers whether
// or not hostile rays share their block.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "../intersect/scene.h"
#include "alloc_count.h"
#include "psah_support.h"
#include "tree_check.h"

namespace {

constexpr float kNaN = NAN, kInf = INFINITY, kDenormal = 1e-40f;
constexpr uint32_t kCanary = 0xA5C3E1F7u;

// An output array between canaries, `misalign` elements past a 16-byte
// boundary (1 sends the queries down their scalar path).
template <typename T>
class Guarded {
  public:
    Guarded(int n, T fill, int misalign) : n_(n), store_(size_t(n) + 16) {
        for (T& word : store_) std::memcpy(&word, &kCanary, 4);
        const uintptr_t start = reinterpret_cast<uintptr_t>(store_.data() + 4);
        data_ = reinterpret_cast<T*>((start + 15) & ~uintptr_t(15)) + misalign;
        for (int i = 0; i < n; ++i) data_[i] = fill;
    }
    T* data() { return data_; }
    T& operator[](int i) { return data_[i]; }
    bool intact() const {
        for (const T& word : store_) {
            const bool inside = &word >= data_ && &word < data_ + n_;
            if (!inside && std::memcmp(&word, &kCanary, 4) != 0) return false;
        }
        return true;
    }

  private:
    int n_;
    std::vector<T> store_;
    T* data_;
};

struct HostileMesh {
    const char* name;
    bool finite;  // a build over it must succeed
    std::function<void(kelt::Mesh*)> spoil;
};

void every(kelt::Mesh* mesh, int step, const std::function<void(float*)>& f) {
    for (size_t v = 0; v < mesh->vertices.size(); v += 3 * size_t(step)) f(&mesh->vertices[v]);
}

const HostileMesh kMeshes[] = {
    {"NaN corners", false, [](kelt::Mesh* m) { every(m, 7, [](float* p) { p[0] = kNaN; }); }},
    {"infinite corners", false,
     [](kelt::Mesh* m) { every(m, 5, [](float* p) { p[1] = p[2] > 0.5f ? kInf : -kInf; }); }},
    {"huge coordinates", true,
     [](kelt::Mesh* m) { every(m, 1, [](float* p) { p[0] *= 1e38f, p[1] *= 1e38f; }); }},
    {"denormal coordinates", true,
     [](kelt::Mesh* m) { every(m, 1, [](float* p) { p[0] *= kDenormal, p[1] *= kDenormal; }); }},
    {"repeated coordinates", true,
     [](kelt::Mesh* m) {
         for (float& c : m->vertices) c = std::round(2 * c) / 2;
     }},
    {"zero-area and needle triangles", true,
     [](kelt::Mesh* m) {
         for (size_t v = 0; v + 9 <= m->vertices.size(); v += 9) {
             std::memcpy(&m->vertices[v + 3], &m->vertices[v], 12);
             if (v % 18 == 0) m->vertices[v + 3] += 1e-7f;  // a needle, else no area at all
         }
     }},
    {"all coplanar", true, [](kelt::Mesh* m) { every(m, 1, [](float* p) { p[2] = 0.25f; }); }},
    {"one triangle many times", true,
     [](kelt::Mesh* m) {
         for (size_t t = 0; t < m->triangles.size(); t += 4)
             m->triangles[t] = 0, m->triangles[t + 1] = 1, m->triangles[t + 2] = 2;
     }},
};

// Directions (or per-ray origins) that no ray should have, set on every
// third ray of a block so that packets mix them with ordinary rays.
const float kHostileVectors[][3] = {{kNaN, 0, 1},
                                    {1, kNaN, kNaN},
                                    {kInf, 0, 0},
                                    {-kInf, kInf, 1},
                                    {0, 0, 0},
                                    {kNaN, kNaN, kNaN},
                                    {kDenormal, kDenormal, kDenormal},
                                    {0, -kDenormal, 0},
                                    {1e38f, -1e38f, 1e38f}};
constexpr int kWidth = 12, kHeight = 4, kRays = kWidth * kHeight;
constexpr int kHostileVectorCount = int(sizeof kHostileVectors / sizeof kHostileVectors[0]);

bool isHostile(int ray) {
    return ray % 3 == 1;
}

// Ray i's direction from the eye (0.5, 0.5, -2) into the unit cube, or a
// hostile one.
void direction(int ray, bool hostile, float d[3]) {
    if (hostile && isHostile(ray))
        return (void)std::memcpy(d, kHostileVectors[ray / 3 % kHostileVectorCount], 12);
    d[0] = (float(ray % kWidth) + 0.5f) / kWidth - 0.5f;
    d[1] = (float(ray / kWidth) + 0.5f) / kHeight - 0.5f;
    d[2] = 2.5f;
}

// What a block of rays answers; the planes are checked for writes outside.
struct Answers {
    std::vector<float> distance;
    std::vector<int> mask;
};

enum class Query { kEye, kMultipleOrigins, kShadow };

Answers trace(Query query, const IntersectContext& context, int triangleCount, bool hostile,
              int misalign) {
    const float eye[3] = {0.5f, 0.5f, -2.0f};
    Guarded<float> dir[3] = {{kRays, 0, misalign}, {kRays, 0, misalign}, {kRays, 0, misalign}};
    Guarded<float> from[3] = {{kRays, 0, misalign}, {kRays, 0, misalign}, {kRays, 0, misalign}};
    Guarded<float> distance(kRays, 1e30f, misalign), u(kRays, 0, misalign), v(kRays, 0, misalign);
    Guarded<int> id(kRays, 7, misalign), mask(kRays, 0, misalign);
    for (int i = 0; i < kRays; ++i) {
        float d[3];
        direction(i, hostile, d);
        const bool odd = query == Query::kMultipleOrigins && hostile && i % 6 == 4;
        for (int a = 0; a < 3; ++a) {
            dir[a][i] = d[a];
            from[a][i] = odd ? kHostileVectors[i % kHostileVectorCount][a] : eye[a];
        }
        if (i % 5 == 3) mask[i] = -1;  // not traced
    }
    const float* dirs[3] = {dir[0].data(), dir[1].data(), dir[2].data()};
    const float* origins[3] = {from[0].data(), from[1].data(), from[2].data()};
    float* hit[2] = {u.data(), v.data()};
    KelStatus status = KEL_STS_OK;
    if (query == Query::kEye)
        status = kelrIntersectEyeSO_32f(eye, dirs, distance.data(), hit, id.data(), &context,
                                        kWidth, kHeight);
    else if (query == Query::kMultipleOrigins)
        status = kelrIntersectMO_32f(origins, dirs, distance.data(), hit, id.data(), &context,
                                     kWidth, kHeight);
    else
        status =
            kelrIntersectAnySO_32f(eye, dirs, id.data(), mask.data(), kWidth, kHeight, &context);
    EXPECT_TRUE(status == KEL_STS_OK || status == KEL_STS_NO_MEM) << status;
    for (Guarded<float>* plane :
         {&dir[0], &dir[1], &dir[2], &from[0], &from[1], &from[2], &distance, &u, &v})
        EXPECT_TRUE(plane->intact()) << "a float plane was written outside";
    EXPECT_TRUE(id.intact() && mask.intact()) << "an int plane was written outside";
    Answers answers;
    for (int i = 0; i < kRays; ++i) {
        const bool traced = query != Query::kShadow || i % 5 != 3;
        if (traced)
            EXPECT_TRUE(id[i] >= -1 && id[i] < triangleCount) << "ray " << i << ": " << id[i];
        answers.distance.push_back(distance[i]);
        answers.mask.push_back(mask[i]);
    }
    return answers;
}

// Both paths, each query, ordinary rays alone and mixed with hostile ones.
void traceEverything(const kelt::Mesh& mesh, const KDTreeNode* tree) {
    kelt::TestScene scene;
    scene.vertices = mesh.vertices;
    scene.triangles = mesh.triangles;
    scene.finish();
    const IntersectContext context = scene.context(tree);
    for (Query query : {Query::kEye, Query::kMultipleOrigins, Query::kShadow})
        for (int misalign : {0, 1}) {
            SCOPED_TRACE(testing::Message() << "query " << int(query) << ", misalign " << misalign);
            const Answers clean = trace(query, context, mesh.triangleCount(), false, misalign);
            const Answers mixed = trace(query, context, mesh.triangleCount(), true, misalign);
            for (int i = 0; i < kRays; ++i) {
                if (isHostile(i)) continue;  // hostile origins are on hostile rays too
                // Of two triangles within the hit margin either may be found.
                EXPECT_NEAR(clean.distance[i], mixed.distance[i],
                            1e-6f * std::fabs(clean.distance[i]) + 1e-6f)
                    << i;
                EXPECT_EQ(clean.mask[i], mixed.mask[i]) << i;
            }
        }
}

TEST(HostileInput, MeshesAndRaysGetAStatusAndNoStrayWrites) {
    const float clip[6] = {0.2f, 0.2f, 0.2f, 0.8f, 0.8f, 0.8f};
    for (const HostileMesh& hostile : kMeshes) {
        SCOPED_TRACE(hostile.name);
        kelt::Mesh mesh = kelt::randomSoup(11, 240);
        hostile.spoil(&mesh);
        const uint32_t budget = kelt::psahBudgetMiB(mesh.vertexCount(), mesh.triangleCount());
        const KDTreeBuildContext contexts[3] = {{KDT_BUILD_SIMPLE, 0, 0, 0, nullptr},
                                                {KDT_BUILD_PSAH, 50, 0.5f, budget, nullptr},
                                                {KDT_BUILD_PSAH, 50, 1.0f, budget, clip}};
        for (const KDTreeBuildContext& context : contexts) {
            SCOPED_TRACE(context.clipBox ? "clipped PSAH" : context.maxDepth ? "PSAH" : "simple");
            kelt::AllocationCount count;
            KDTreeNode* tree = nullptr;
            int size = 0;
            const KelStatus status =
                kelrKDTreeBuildAlloc(&tree, mesh.vertices.data(), mesh.triangles.data(),
                                     mesh.vertexCount(), mesh.triangleCount(), &size, &context);
            // A NaN bound makes the search's counts and the distribution's
            // disagree, which the build reports as an internal failure.
            if (hostile.finite || status != KEL_STS_INTERNAL) {
                ASSERT_EQ(KEL_STS_OK, status);
                kelt::TreeSummary summary;
                EXPECT_EQ("", kelt::checkTree(tree, size, mesh.triangleCount(), &summary));
                traceEverything(mesh, tree);
            }
            kelrKDTreeFree(tree);
            EXPECT_EQ(0, count.liveBlocks());
        }
    }
}

}  // namespace
