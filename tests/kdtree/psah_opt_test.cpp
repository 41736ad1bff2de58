// The PSAH optimisation's choice at the root, one level deep, on seeded
// soups and on cases at the boundaries of its rules, against brute-force
// pricing of every candidate plane.
#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstring>
#include <tuple>
#include <vector>

#include "soups.h"
#include "trees.h"

namespace {

void addTriangle(kelt::Mesh* mesh, float ax, float ay, float az, float bx, float by, float bz,
                 float cx, float cy, float cz) {
    const int a = mesh->addVertex(ax, ay, az), b = mesh->addVertex(bx, by, bz);
    mesh->addTriangle(a, b, mesh->addVertex(cx, cy, cz));
}

// Brute force over every distinct event value of an axis, with the sides
// counted by the distribution rule, priced in Real and compared in double.
struct Choice {
    double cost;
    float position;
    int left, right;
};

template <typename Real>
Choice bruteForceAxis(const kelt::Mesh& mesh, const float* box, int a, double leafCost) {
    const int o1 = (a + 1) % 3, o2 = (a + 2) % 3;
    const float lo = box[a], hi = box[a + 3], e1 = box[o1 + 3] - box[o1],
                e2 = box[o2 + 3] - box[o2];
    Choice best{leafCost, 0, 0, 0};
    if (!(hi - lo > 1e-5f && (e1 > 1e-5f || e2 > 1e-5f))) return best;
    std::vector<float> mins, maxs, events;
    float ends[2][2] = {{FLT_MAX, -FLT_MAX}, {FLT_MAX, -FLT_MAX}};  // [planar][low, high]
    for (int t = 0; t < mesh.triangleCount(); ++t) {
        const float p = mesh.corner(t, 0)[a], q = mesh.corner(t, 1)[a], r = mesh.corner(t, 2)[a];
        const float mn = std::min({p, q, r}), mx = std::max({p, q, r});
        mins.push_back(mn), maxs.push_back(mx), events.insert(events.end(), {mn, mx});
        float* e = ends[mn == mx];
        e[0] = std::min(e[0], mn), e[1] = std::max(e[1], mx);
    }
    if (ends[0][0] == FLT_MAX) ends[0][0] = lo, ends[0][1] = hi;
    const float lowest = std::min(ends[0][0], ends[1][0]),
                highest = std::max(ends[0][1], ends[1][1]);
    const int total = mesh.triangleCount();
    const Real sum = Real(e1) + Real(e2), prod = Real(e1) * Real(e2);
    const Real r = double(prod) >= 1e-9 ? prod / sum : Real(0);
    double raw = DBL_MAX;
    auto offer = [&](float x, int l, int rr, Real bonus = 1) {
        const double c = double((Real(float(l)) * ((Real(x) - Real(lo)) + r) +
                                 Real(float(rr)) * ((Real(hi) - Real(x)) + r)) *
                                bonus);
        if (c < raw) raw = c, best = Choice{0, x, l, rr};
    };
    const float tenth = (hi - lo) * 0.1f;
    if (lowest - lo > tenth) offer(lowest, 0, total);
    if (hi - highest > tenth) offer(highest, total, 0);
    if (raw < DBL_MAX) return best.cost = raw * 0.699999988079071 * double(sum), best;
    int onLo = 0, onHi = 0;
    for (size_t i = 0; i < mins.size(); ++i)
        onLo += mins[i] == maxs[i] && mins[i] == lo, onHi += mins[i] == maxs[i] && mins[i] == hi;
    if (onLo) offer(lo, onLo, total - onLo, 0.7f);
    if (onHi) offer(hi, total - onHi, onHi, 0.7f);
    std::sort(events.begin(), events.end());
    events.erase(std::unique(events.begin(), events.end()), events.end());
    for (float x : events) {
        int l = 0, rr = 0, onPlane = 0;
        for (size_t i = 0; i < mins.size(); ++i) {
            const bool planar = mins[i] == maxs[i] && mins[i] == x;
            onPlane += planar, l += !planar && mins[i] < x, rr += !planar && maxs[i] > x;
        }
        offer(x, l, rr + onPlane);
        if (onPlane) offer(x, l + onPlane, rr);
    }
    return best.cost = raw * double(sum), best;
}

// The root's split, or -1 for a leaf. Nodes of more than 75 patches are
// priced in double, smaller ones in float.
int bruteForceSplit(const kelt::Mesh& mesh, const float* box, float weight, Choice* out) {
    const double dx = box[3] - box[0], dy = box[4] - box[1], dz = box[5] - box[2];
    const double n = mesh.triangleCount(), leaf = n * (dx * (dy + dz) + dy * dz);
    const float k = float((10.0 - 9.0 * double(weight)) * 0.5057569742202759);
    Choice c[3];
    for (int a = 0; a < 3; ++a)
        c[a] = n > 75 ? bruteForceAxis<double>(mesh, box, a, leaf)
                      : bruteForceAxis<float>(mesh, box, a, leaf);
    int axis =
        c[0].cost >= c[1].cost ? (c[1].cost < c[2].cost ? 1 : 2) : (c[2].cost <= c[0].cost ? 2 : 0);
    *out = c[axis];
    return n * (leaf - c[axis].cost) > std::max(leaf * k, 9.999999747378752e-06) ? axis : -1;
}

// Builds the tree one level deep in the box (the vertex bounds, with the z
// bounds replaced when given: a clip box that cuts nothing) and expects the
// brute force's split, or its leaf. Returns the root's first two words.
std::pair<int32_t, float> expectBruteForceSplit(const kelt::Mesh& mesh, float weight,
                                                const float* zBounds = nullptr) {
    float box[6];
    kelt::vertexBounds(mesh, box);
    if (zBounds) box[2] = zBounds[0], box[5] = zBounds[1];
    Choice want;
    const int axis = bruteForceSplit(mesh, box, weight, &want);
    const KDTreeBuildContext context = {KDT_BUILD_PSAH, 1, weight, 128, zBounds ? box : nullptr};
    KDTreeNode* tree = nullptr;
    int size = 0;
    EXPECT_EQ(KEL_STS_OK,
              kelrKDTreeBuildAlloc(&tree, mesh.vertices.data(), mesh.triangles.data(),
                                   mesh.vertexCount(), mesh.triangleCount(), &size, &context));
    if (!tree) return {0, 0};
    int32_t words[8] = {};
    std::memcpy(words, tree, std::min(size, 32));
    kelrKDTreeFree(tree);
    float split;
    std::memcpy(&split, &words[1], 4);
    EXPECT_EQ(words[0] < 0 ? -1 : words[0] & 3, axis);
    if (axis >= 0)
        EXPECT_EQ(std::make_tuple(split, words[5], words[7]),
                  std::make_tuple(want.position, want.left, want.right));
    return {words[0], split};
}

// Small nodes and wide ones (400: sorted by the radix sort).
TEST(PsahOpt, SoupsChooseTheBruteForceSplit) {
    for (int n : {30, 74, 120, 400})
        for (float weight : {0.0f, 1.0f}) {
            SCOPED_TRACE(testing::Message() << "n = " << n << ", weight " << weight);
            expectBruteForceSplit(kelt::randomSoup(unsigned(n + 10 * weight), n), weight);
        }
}

// Cases at the boundaries of the split rules, each checked against the
// brute force and the root it must give.
struct Boundary {
    const char* name;
    kelt::Mesh mesh;
    int axis;  // -1: a leaf
    float at = NAN;
    float zBounds[2] = {NAN, NAN};
};

std::vector<Boundary> boundaries() {
    std::vector<Boundary> rows;
    // A set closed under rotating the axes prices alike on all three: the tie
    // goes to z. Mirrored between x and y, with z spanning the box, it goes to
    // y; mirrored between x and z, with y spanning, to z. Small and wide nodes.
    for (int copies : {2, 30}) {
        kelt::Mesh rotated, mirrored, swapped;
        for (int i = 0; i < 3 * copies; ++i) {
            const float o = 0.7f * float(i % 2),
                        p[9] = {o, o, o, o + 0.3f, o + 0.1f, o + 0.2f, o + 0.1f, o + 0.3f, o};
            float t[9];
            for (int k = 0; k < 9; ++k) t[k] = p[k / 3 * 3 + (k + i) % 3];  // rotation i % 3
            addTriangle(&rotated, t[0], t[1], t[2], t[3], t[4], t[5], t[6], t[7], t[8]);
            addTriangle(&mirrored, o, o + 0.1f, 0, o + 0.3f, o, 1, o + 0.2f, o + 0.3f, 0.5f);
            addTriangle(&mirrored, o + 0.1f, o, 0, o, o + 0.3f, 1, o + 0.3f, o + 0.2f, 0.5f);
            addTriangle(&swapped, o, 0, o + 0.1f, o + 0.3f, 1, o, o + 0.2f, 0.5f, o + 0.3f);
            addTriangle(&swapped, o + 0.1f, 0, o, o, 1, o + 0.3f, o + 0.3f, 0.5f, o + 0.2f);
        }
        rows.push_back({"rotated", rotated, 2});
        rows.push_back({"mirrored in x and y", mirrored, 1});
        rows.push_back({"mirrored in x and z", swapped, 2});
    }
    // A box flat in z never splits on z (here on y, then x); flat in y and
    // z, not at all.
    for (int n : {50, 300}) {
        kelt::Mesh flat = kelt::randomSoup(7, n);
        for (size_t k = 2; k < flat.vertices.size(); k += 3) flat.vertices[k] = 0.25f;
        rows.push_back({"flat in z", flat, n == 50 ? 1 : 0});
        for (size_t k = 1; k < flat.vertices.size(); k += 3) flat.vertices[k] = 0.5f;
        rows.push_back({"flat in y and z", flat, -1});
    }
    // A floor at z = 0 splits off into a flat left child. Planar patches in
    // the middle of the box price the same on both sides of a plane through
    // them; the right side, priced first, wins.
    kelt::Mesh floor, middle, slabs, straddling;
    addTriangle(&floor, 0, 0, 0, 1, 0, 0, 1, 1, 0);
    addTriangle(&floor, 0, 0, 0, 1, 1, 0, 0, 1, 0);
    for (int i = 0; i < 8; ++i)
        addTriangle(&floor, 0, 0, 0.05f, 1, 1, 0.05f + 0.1f * i, 0.5f, 0.5f, 1);
    rows.push_back({"floor", floor, 2, 0.0f});
    for (int i = 0; i < 3; ++i) {
        addTriangle(&middle, 0, 0, 0, 1, 1, 0.5f, 0, 1, 0.2f);
        addTriangle(&middle, 0, 0, 0.5f, 1, 1, 1, 0, 1, 0.7f);
        addTriangle(&middle, 0, 0, 0.5f, 1, 1, 0.5f, 0, 1, 0.5f);
    }
    rows.push_back({"planar in the middle", middle, 2, 0.5f});
    // Two slabs in z with the box top just over a tenth above the upper one:
    // the top goes although a plane between the slabs would be cheaper.
    for (int i = 0; i < 4; ++i) {
        addTriangle(&slabs, 0, 0, 0, 0.01f, 0.01f, 0.1f, 0, 0.01f, 0.05f);
        addTriangle(&slabs, 0, 0, 0.8f, 0.01f, 0.01f, 0.89f, 0, 0.01f, 0.85f);
    }
    rows.push_back({"empty top", slabs, 2, 0.89f, {0.0f, 1.0f}});
    // In a box of height 10, empty space of exactly 1 does not count; 1.1
    // does, at either end, and only its bonus makes the cut pay here.
    const float spans[4][3] = {{0, 9, -1}, {1, 10, -1}, {0, 8.9f, 2}, {1.1f, 10, 2}};
    for (const auto& s : spans) {
        kelt::Mesh same;
        for (int i = 0; i < 4; ++i) addTriangle(&same, 0, 0, s[0], 1, 1, s[1], 0, 1, 4.5f);
        rows.push_back(
            {"empty end of a box of 10", same, int(s[2]), s[0] > 0 ? s[0] : s[1], {0.0f, 10.0f}});
    }
    // The triangle (0,0,0), (2,0,0), (0,2,0) straddles the plane x = 1
    // between two clusters and is cut: a piece on either side.
    addTriangle(&straddling, 0, 0, 0, 2, 0, 0, 0, 2, 0);
    for (int i = 0; i < 2; ++i) {
        addTriangle(&straddling, 0, 0, 0, 1, 0, 0, 0.5f, 2, 0);
        addTriangle(&straddling, 1, 0, 0, 2, 0, 0, 1.5f, 2, 0);
    }
    rows.push_back({"straddling", straddling, 0, 1.0f});
    return rows;
}

TEST(PsahOpt, BoundaryCasesChooseTheBruteForceSplit) {
    for (const Boundary& row : boundaries()) {
        SCOPED_TRACE(row.name);
        const auto [word0, split] = expectBruteForceSplit(
            row.mesh, 1.0f, row.zBounds[0] == row.zBounds[0] ? row.zBounds : nullptr);
        EXPECT_EQ(word0 < 0 ? -1 : word0 & 3, row.axis);
        if (row.axis >= 0 && row.at == row.at) EXPECT_EQ(split, row.at);
    }
}

}  // namespace
