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

#include "alloc_count.h"
#include "queries.h"
#include "soups.h"
#include "trees.h"

namespace {

constexpr float kNaN = NAN, kInf = INFINITY, kDenormal = 1e-40f;

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

// Rays from the eye (0.5, 0.5, -2) into the unit cube, every fifth one
// masked off for shadow rays; with `hostile`, every third ray has a hostile
// direction and for rays with their own origins every sixth a hostile origin.
kelt::Rays rays(bool hostile) {
    kelt::Rays r(kWidth, kHeight);
    const float eye[3] = {0.5f, 0.5f, -2.0f};
    for (int i = 0; i < kRays; ++i) {
        float d[3] = {(float(i % kWidth) + 0.5f) / kWidth - 0.5f,
                      (float(i / kWidth) + 0.5f) / kHeight - 0.5f, 2.5f};
        r.dir.set(i, hostile && isHostile(i) ? kHostileVectors[i / 3 % kHostileVectorCount] : d);
        r.origin.set(i, hostile && i % 6 == 4 ? kHostileVectors[i % kHostileVectorCount] : eye);
        r.distance[size_t(i)] = 1e30f;
        r.mask[size_t(i)] = i % 5 == 3 ? -1 : 0;
    }
    return r;
}

// Both paths, each query, ordinary rays alone and mixed with hostile ones:
// a status, ids in range, no stray writes, and the same answers for the
// ordinary rays either way.
void traceEverything(const kelt::Mesh& mesh, const KDTreeNode* tree) {
    const kelt::Scene scene(mesh);
    const IntersectContext context = scene.context(tree);
    const kelt::Rays clean = rays(false), mixed = rays(true);
    for (kelt::Query query : kelt::kQueries)
        for (int misalign : {0, 1}) {
            SCOPED_TRACE(testing::Message() << "query " << int(query) << ", misalign " << misalign);
            const kelt::Answers a = trace(query, context, clean, misalign),
                                b = trace(query, context, mixed, misalign);
            for (const kelt::Answers& answers : {a, b}) {
                EXPECT_TRUE(answers.status == KEL_STS_OK || answers.status == KEL_STS_NO_MEM);
                EXPECT_TRUE(answers.intact) << "a plane was written outside";
                for (int id : answers.id) EXPECT_TRUE(id >= -1 && id < mesh.triangleCount()) << id;
            }
            for (int i = 0; i < kRays; ++i) {
                if (isHostile(i)) continue;  // hostile origins are on hostile rays too
                // Of two triangles within the hit margin either may be found.
                EXPECT_NEAR(a.t[i], b.t[i], 1e-6f * std::fabs(a.t[i]) + 1e-6f) << i;
                EXPECT_EQ(a.mask[i], b.mask[i]) << i;
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
