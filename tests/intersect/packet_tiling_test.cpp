// The drivers' tiling, seen through recording kernels: which packet kernel
// runs on which rays, with which lanes, in which order.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "arrays.h"
#include "intersect/packet.h"

namespace {

// Kernels that record their calls as "kind@ray/lanes" (lanes in hex): '2'
// 4x2 and '1' 4x1 from their first ray, 'n' the nearest-occluder search from
// the representative ray, 'o' the occluder pre-test from its first ray with
// the triangle. The pre-test marks the rays in `shadowed` (-1 in the mask),
// as a real occluder would. Every call must come after every triangle id
// was set to -1.
struct Recorder {
    std::vector<int>* ids;
    int* mask;
    int occluder = -1;
    std::vector<int> shadowed;
    std::string calls;

    void note(char kind, int ray, int lanes) {
        for (int id : *ids) EXPECT_EQ(-1, id) << "before " << kind << "@" << ray;
        calls += (calls.empty() ? "" : " ") + std::string(1, kind) + "@" + std::to_string(ray) +
                 "/" + "0123456789ABCDEF"[lanes];
    }
    void trace4x2(int first) { note('2', first, 0xF); }
    void trace4x1(int first, int lanes) { note('1', first, lanes); }
    int nearestOccluder(int ray) {
        note('n', ray, 0);
        return occluder;
    }
    void occluder4x4(int first, int triangle) {
        calls += " o@" + std::to_string(first) + "/" + std::to_string(triangle);
        for (int ray : shadowed) mask[ray] = -1;
    }
};

// A block whose rays all point into octant 0 (+x, +y, +z); tests then turn
// chosen rays into other octants.
struct Block {
    Block(int width, int height)
        : width(width), height(height), dir(width * height, 1.0f), mask(width * height, 0) {}
    void point(int ray, int octant) {
        dir[0][ray] = octant & 1 ? -1.0f : 1.0f;
        dir[1][ray] = octant & 2 ? -1.0f : 1.0f;
        dir[2][ray] = octant & 4 ? -1.0f : 1.0f;
    }
    std::string trace(bool shadow) {
        std::vector<int> ids(size_t(width * height), 7);
        recorder.ids = &ids;
        recorder.mask = mask.data();
        EXPECT_EQ(KEL_STS_OK, shadow ? kel::packet::traceShadowTiles(recorder, dir.p(), ids.data(),
                                                                     mask.data(), width, height)
                                     : kel::packet::traceNearestTiles(recorder, dir.p(), ids.data(),
                                                                      width, height));
        return recorder.calls;
    }
    int width, height;
    kelt::Planes3 dir;
    kelt::Plane<int> mask;
    Recorder recorder;
};

TEST(PacketTiling, NearestTiles) {
    // One octant: two eight-ray calls; -0.0 and NaN components count as
    // not negative.
    Block z(4, 4);
    for (int i = 0; i < 16; ++i) {
        z.dir[0][i] = -0.0f;
        z.dir[1][i] = std::nanf("");
        z.dir[2][i] = i % 2 ? -0.0f : 0.0f;
    }
    EXPECT_EQ("2@0/F 2@8/F", z.trace(false));
    // Any single octant, and the second call starts two rows further on.
    Block w(8, 4);
    for (int i = 0; i < 32; ++i) w.point(i, 6);
    EXPECT_EQ("2@0/F 2@16/F 2@4/F 2@20/F", w.trace(false));
    // First row into octant 1, the others into octant 0: octant 0's rows
    // first, then octant 1's.
    Block b(4, 4);
    for (int c = 0; c < 4; ++c) b.point(c, 1);
    EXPECT_EQ("1@4/F 1@8/F 1@12/F 1@0/F", b.trace(false));
    // A row whose rays fall into three octants is traced three times, each
    // time with only that octant's lanes.
    Block m(4, 4);
    m.point(1, 3);
    m.point(3, 5);
    m.point(14, 5);
    EXPECT_EQ("1@0/5 1@4/F 1@8/F 1@12/B 1@0/2 1@0/8 1@12/4", m.trace(false));
    // Tiles are visited band by band.
    Block t(8, 8);
    t.point(8 * 5 + 6, 7);  // tile (4, 4), row 1, column 2
    EXPECT_EQ("2@0/F 2@16/F 2@4/F 2@20/F 2@32/F 2@48/F 1@36/F 1@44/B 1@52/F 1@60/F 1@44/4",
              t.trace(false));
}

TEST(PacketTiling, ShadowTilesTryTheCachedOccluderFirst) {
    // The representative ray is the first active one of row 3, columns 0-3.
    Block b(8, 4);
    b.mask[24] = b.mask[25] = -1;
    b.recorder.occluder = 42;
    EXPECT_EQ("n@26/0 o@0/42 2@0/F 2@16/F o@4/42 2@4/F 2@20/F", b.trace(true));
    // Without an active ray there, no occluder is looked for or tried.
    Block n(4, 4);
    for (int c = 12; c < 16; ++c) n.mask[c] = -3;
    n.recorder.occluder = 42;
    EXPECT_EQ("2@0/F 2@8/F", n.trace(true));
    // A search that finds nothing leaves every tile to the kernels.
    EXPECT_EQ("n@12/0 2@0/F 2@8/F", Block(4, 4).trace(true));

    // Tile 0 wholly shadowed by the occluder, tile 1 inactive on entry,
    // tile 2 partly shadowed: its survivors share octant 0 even though a
    // shadowed ray points elsewhere, so they go as two eight-ray calls.
    Block s(12, 4);
    s.recorder.occluder = 5;
    for (int row = 0; row < 4; ++row)
        for (int c = 0; c < 4; ++c) {
            s.recorder.shadowed.push_back(row * 12 + c);
            s.mask[row * 12 + 4 + c] = -1;
        }
    s.recorder.shadowed.push_back(8);
    s.point(8, 3);
    EXPECT_EQ("n@36/0 o@0/5 o@8/5 2@8/F 2@32/F", s.trace(true));
    // Survivors of two octants: per octant and row, survivors' lanes only.
    Block m(4, 4);
    m.recorder.occluder = 5;
    m.recorder.shadowed = {0, 5};
    m.point(1, 1);
    m.point(4, 1);
    EXPECT_EQ("n@12/0 o@0/5 1@0/C 1@4/C 1@8/F 1@12/F 1@0/2 1@4/1", m.trace(true));
}

}  // namespace
