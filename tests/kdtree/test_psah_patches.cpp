// The PSAH driver up to the hand-over to the optimisation: budget refusal,
// the patches it makes (clipping, masks, vertex records), the build box, and
// its clean-up on every failure. The optimisation is replaced by a probe that
// records what it is handed and keeps the root as one leaf, so these cases
// hold whatever tree the real optimisation would grow.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <vector>

#include "alloc_count.h"
#include "kdtree/psah.h"
#include "mesh.h"
#include "tree_check.h"

namespace {

struct SeenPatch {
    int triangle;
    int corners;
    uint32_t mask;
    std::vector<std::array<float, 3>> points;
    std::vector<const float*> addresses;
};

struct Build {
    KelStatus status;
    KDTreeNode* tree = nullptr;
    int size = -1;
};

struct Probe {
    bool called = false;
    std::vector<SeenPatch> patches;
    float box[6] = {};
    KelStatus answer = KEL_STS_OK;  // what the probe returns
} probe;

}  // namespace

// Stands in for the library's optimisation (this program links the static
// archive, so its definition is taken instead).
extern "C" KelStatus ownOptimizationPSAH(kel::PsahBuildState* state, kel::PsahBuildNode* root,
                                         float, int, const float* rootBox) {
    probe.called = true;
    std::memcpy(probe.box, rootBox, sizeof probe.box);
    for (int k = 0; k < root->count; ++k) {
        const kel::PsahPatch& p = root->patches[k];
        SeenPatch seen{kel::patchTriangle(p), kel::patchVertexCount(p), p.mask, {}, {}};
        for (int c = 0; c < seen.corners; ++c) {
            seen.points.push_back({p.vertices[c][0], p.vertices[c][1], p.vertices[c][2]});
            seen.addresses.push_back(p.vertices[c]);
        }
        probe.patches.push_back(seen);
    }
    // Hold an index list either way, so a failure leaves chunks to release.
    KelStatus status = KEL_STS_OK;
    auto* list = static_cast<int32_t*>(
        kel::takeTreeMemory(&state->work, kel::kIndexChunks, uint32_t(4 * root->count), &status));
    if (!list) return status;
    if (probe.answer != KEL_STS_OK) return probe.answer;
    for (int k = 0; k < root->count; ++k) list[k] = kel::patchTriangle(root->patches[k]);
    root->triangles = list;
    return KEL_STS_OK;
}

namespace {

constexpr uint32_t kMiB = 1u << 20;
const float kUnitBox[6] = {0, 0, 0, 1, 1, 1};

Build build(const kelt::Mesh& mesh, const float* clipBox, uint32_t budget = 128 * kMiB,
            KelStatus answer = KEL_STS_OK) {
    probe = Probe();
    probe.answer = answer;
    Build b;
    b.status = ownKDTBldPSAH_ML(mesh.vertices.data(), mesh.triangles.data(), mesh.vertexCount(),
                                mesh.triangleCount(), &b.tree, &b.size, 0.5f, 20, budget, clipBox);
    return b;
}

// The vertices, and a triangle over each three in turn.
kelt::Mesh meshOf(std::vector<float> xyz) {
    kelt::Mesh mesh;
    for (size_t k = 0; k + 2 < xyz.size(); k += 3) mesh.addVertex(xyz[k], xyz[k + 1], xyz[k + 2]);
    for (int k = 0; k + 2 < mesh.vertexCount(); k += 3) mesh.addTriangle(k, k + 1, k + 2);
    return mesh;
}

std::vector<float> flat(const std::vector<std::array<float, 3>>& points) {
    std::vector<float> out;
    for (const auto& p : points) out.insert(out.end(), p.begin(), p.end());
    return out;
}

// The triangle list of a one-leaf tree.
std::vector<int32_t> leafList(const Build& b, int triangleCount) {
    kelt::TreeSummary summary;
    EXPECT_EQ("", kelt::checkTree(b.tree, b.size, triangleCount, &summary));
    EXPECT_EQ(1u, summary.leaves.size());
    return std::vector<int32_t>(summary.leaves[0].list, summary.leaves[0].list + summary.listed);
}

TEST(PsahPatches, WholeTrianglesReferenceTheMeshAndNameTheLowestExtremeVertex) {
    // Triangle 0 ties on min x (corners 0, 1), min y (0, 2) and on all of z;
    // triangle 1 ties on min x between corners 1 and 2 only. The last vertex
    // is used by no triangle and still widens the build box.
    const kelt::Mesh mesh =
        meshOf({0, 0, 2, 0, 1, 2, 1, 0, 2, 1, 5, 0, -3, 4, 1, -3, 6, -1, 7, -2, 9});
    kelt::AllocationCount count;
    Build b = build(mesh, nullptr);
    ASSERT_EQ(KEL_STS_OK, b.status);
    const float box[6] = {-3, -2, -1, 7, 6, 9};
    EXPECT_EQ(0, std::memcmp(box, probe.box, sizeof box));
    ASSERT_EQ(2u, probe.patches.size());
    const SeenPatch &p0 = probe.patches[0], &p1 = probe.patches[1];
    EXPECT_EQ(0, p0.triangle);
    EXPECT_EQ(3, p0.corners);
    EXPECT_EQ(2u | 1u << 5, p0.mask);  // max x 2, max y 1, the rest 0
    for (int c = 0; c < 3; ++c) EXPECT_EQ(mesh.vertices.data() + 3 * c, p0.addresses[size_t(c)]);
    EXPECT_EQ(1, p1.triangle);
    // max x 0, max y 2, max z 1 | min x 1 (corners 1 and 2 tie), min y 1, min z 2
    EXPECT_EQ(2u << 5 | 1u << 10 | 1u << 15 | 1u << 20 | 2u << 25, p1.mask);
    // The probe keeps the root one leaf: the patches' triangles in order.
    EXPECT_EQ(24, b.size);
    EXPECT_EQ(leafList(b, 2), (std::vector<int32_t>{0, 1}));
    kelrKDTreeFree(b.tree);
    EXPECT_EQ(0, count.liveBlocks());
}

TEST(PsahPatches, ClippingEmitsCornersAndCrossingsInEdgeOrder) {
    // The second triangle is the first walked the other way round.
    kelt::Mesh mesh = meshOf({-1, 0.25f, 0.5f, 2, 0.25f, 0.5f, 0.5f, 0.75f, 0.5f});
    mesh.addTriangle(1, 0, 2);
    Build b = build(mesh, kUnitBox);
    ASSERT_EQ(KEL_STS_OK, b.status);
    EXPECT_EQ(0, std::memcmp(kUnitBox, probe.box, sizeof kUnitBox));
    ASSERT_EQ(2u, probe.patches.size());
    // Edge 0-1 rises through x = 0 then x = 1; edge 1-2 falls through x = 1;
    // corner 2 is inside; edge 2-0 falls through x = 0. The crossings are
    // interpolated in double and rounded once; y and z cut nothing.
    const SeenPatch &p = probe.patches[0], &q = probe.patches[1];
    const float y12 = float(0.25 + (-1.0 / -1.5) * 0.5), y20 = float(0.75 + (-0.5 / -1.5) * -0.5);
    EXPECT_EQ(flat(p.points), (std::vector<float>{0, 0.25f, 0.5f, 1, 0.25f, 0.5f, 1, y12, 0.5f,
                                                  0.5f, 0.75f, 0.5f, 0, y20, 0.5f}));
    // Only the surviving mesh corner is referenced in place.
    for (int c = 0; c < 5; ++c)
        EXPECT_EQ(c == 3, p.addresses[size_t(c)] >= mesh.vertices.data() &&
                              p.addresses[size_t(c)] < mesh.vertices.data() + 9)
            << c;
    EXPECT_EQ(mesh.vertices.data() + 6, p.addresses[3]);
    // Ties on the cut points name the lower index: min x 0 (0, 4 tie),
    // max x 1 (1, 2 tie), min y 0 (0, 1 tie), max y 3, z all equal.
    EXPECT_EQ(1u | 3u << 5, p.mask);
    // Reversed: edge 1-0 falls through x = 1 then x = 0; edge 0-2 rises
    // through x = 0; corner 2; edge 2-1 rises through x = 1.
    const float y02 = float(0.25 + (1.0 / 1.5) * 0.5), y21 = float(0.75 + (0.5 / 1.5) * -0.5);
    EXPECT_EQ(1, q.triangle);
    EXPECT_EQ(flat(q.points), (std::vector<float>{1, 0.25f, 0.5f, 0, 0.25f, 0.5f, 0, y02, 0.5f,
                                                  0.5f, 0.75f, 0.5f, 1, y21, 0.5f}));
    // min x 1 (1, 2 tie), max x 0 (0, 4 tie), min y 0, max y 3.
    EXPECT_EQ(1u << 15 | 3u << 5, q.mask);
    kelrKDTreeFree(b.tree);
}

TEST(PsahPatches, ClippingKeepsFacesDropsOutsidersAndCutsCornersToNineVertices) {
    // 0 outside; 1 on the face z = 1; 2 in x + y + z = 1.5, round the cube's
    // corners; 3 just above the cube; 4 inside.
    const kelt::Mesh mesh =
        meshOf({2,     2,     2,          3,     2,      2,          2,      3,     2,
                0,     0,     1,          1,     0,      1,          0,      1,     1,
                1.25f, 0.5f,  -0.25f,     0.5f,  -0.25f, 1.25f,      -0.25f, 1.25f, 0.5f,
                -1,    -1,    1.0000001f, 2,     -1,     1.0000001f, -1,     2,     1.0000001f,
                0.25f, 0.25f, 0.25f,      0.75f, 0.25f,  0.25f,      0.25f,  0.75f, 0.75f});
    Build b = build(mesh, kUnitBox);
    ASSERT_EQ(KEL_STS_OK, b.status);
    EXPECT_EQ(leafList(b, mesh.triangleCount()), (std::vector<int32_t>{1, 2, 4}));
    ASSERT_EQ(3u, probe.patches.size());
    EXPECT_EQ(3, probe.patches[0].corners);
    EXPECT_EQ(mesh.vertices.data() + 9, probe.patches[0].addresses[0]);
    // Each edge of the triangle cuts off one corner of the hexagon in which
    // the plane meets the cube.
    const SeenPatch& corner = probe.patches[1];
    ASSERT_EQ(9, corner.corners);
    for (const auto& v : corner.points) {
        EXPECT_TRUE(*std::min_element(v.begin(), v.end()) >= 0 &&
                    *std::max_element(v.begin(), v.end()) <= 1);
        EXPECT_NEAR(1.5, double(v[0]) + v[1] + v[2], 1e-6);
    }
    kelrKDTreeFree(b.tree);
}

TEST(PsahPatches, EmptyInputsGiveTheEmptyTreeWithoutOptimising) {
    for (bool excluded : {true, false}) {
        // None inside the clip box, or no triangles at all.
        kelt::Mesh mesh = meshOf({5, 5, 5, 6, 5, 5, 5, 6, 5});
        if (!excluded) mesh.triangles.clear();
        kelt::AllocationCount count;
        Build b = build(mesh, excluded ? kUnitBox : nullptr, 64 * kMiB);
        ASSERT_EQ(KEL_STS_OK, b.status);
        EXPECT_FALSE(probe.called);
        ASSERT_EQ(16, b.size);
        EXPECT_TRUE(b.tree[0].link == -16 && b.tree[0].data.count == 0);
        kelrKDTreeFree(b.tree);
        EXPECT_EQ(0, count.liveBlocks());
    }
}

TEST(PsahPatches, BudgetRefusalAndEveryFailureReleaseEverything) {
    const kelt::Mesh mesh = meshOf({0, 0, 0, 1, 0, 0, 0, 1, 0});
    // The budget below which a build is refused, from the real record sizes.
    const uint32_t need = 12 * 3 + 48 + 3 * uint32_t(sizeof(kel::PsahPatch)) + (32u << 20) +
                          kel::kStateCharge + 2 * kel::kChunkRecordCharge;
#if defined(__i386__)
    EXPECT_EQ(12u * 3 + 84 + 0x20000F4u, need);
#endif
    const uint32_t chunk = kel::kChunkCost;
    {
        kelt::AllocationCount count;
        EXPECT_EQ(KEL_STS_NO_MEM, build(mesh, nullptr, 32 * kMiB).status);
        EXPECT_EQ(KEL_STS_NO_MEM, build(mesh, nullptr, need - 1).status);
        EXPECT_EQ(0, count.peakBytes());  // refused before anything is taken
    }
    // Just the fixed need: the first vertex-pointer record cannot get a
    // chunk. One chunk more: the root node cannot. Two more: the probe's
    // index list cannot. Three: the build goes through. With room to spare,
    // a failing optimisation's status comes back after the same clean-up.
    const struct {
        uint32_t budget;
        const float* box;
        KelStatus answer, expected;
    } cases[] = {{need, nullptr, KEL_STS_OK, KEL_STS_OVERFLOW},
                 {need, kUnitBox, KEL_STS_OK, KEL_STS_OVERFLOW},
                 {need + chunk, nullptr, KEL_STS_OK, KEL_STS_OVERFLOW},
                 {need + 2 * chunk, kUnitBox, KEL_STS_OK, KEL_STS_OVERFLOW},
                 {need + 3 * chunk, nullptr, KEL_STS_OK, KEL_STS_OK},
                 {128 * kMiB, kUnitBox, KEL_STS_INTERNAL, KEL_STS_INTERNAL},
                 {128 * kMiB, nullptr, KEL_STS_OVERFLOW, KEL_STS_OVERFLOW}};
    for (const auto& c : cases) {
        kelt::AllocationCount count;
        Build b = build(mesh, c.box, c.budget, c.answer);
        EXPECT_EQ(c.expected, b.status) << "budget " << c.budget;
        // A failed build writes neither output.
        EXPECT_EQ(2 * (c.expected == KEL_STS_OK), (b.size > 0) + (b.tree != nullptr));
        kelrKDTreeFree(b.tree);
        EXPECT_EQ(0, count.liveBlocks()) << "budget " << c.budget;
    }
}

}  // namespace
