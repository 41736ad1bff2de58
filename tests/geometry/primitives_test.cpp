// The masked per-ray primitives, run on every path: whole groups with every
// array aligned (the four-ray worker), each array in turn one element off
// its boundary (the scalar loop, or the worker's unaligned twin), and pieces
// of three rays (the scalar loop). Each result is compared bit for bit with
// a plain per-ray reference of the path that should have run; where the
// worker rounds differently from the scalar loop, the difference shows which
// path ran.
#include <emmintrin.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "arrays.h"
#include "kelr.h"

namespace {

const int kRays = 128;
const float kPoint[3] = {0.25f, -0.5f, 1.0f};  // light position, or shared origin
const float kCoefficient[3] = {0.7f, 0.31f, 1.3f};
const float kScale = 0.999f;

// The planes of a block: three triples, per-ray floats, barycentrics, a
// mesh's triangle and vertex normals; then the integer planes.
enum { AX, AY, AZ, BX, BY, BZ, CX, CY, CZ, F, G, U, V, TRIANGLE_NORMALS, VERTEX_NORMALS, kFloats };
enum { MASK = kFloats, HIT, INDICES, kPlanes };
constexpr auto plane = [](int id) { return 1u << id; };
constexpr auto triple = [](int first) { return 7u << first; };

// Where two planes' values differ, or where a guard word was written.
template <typename T>
std::string difference(const kelt::Plane<T>& a, const kelt::Plane<T>& b, int id) {
    if (!a.intact()) return "written outside plane " + std::to_string(id);
    for (int i = 0; i < a.size(); ++i)
        if (std::memcmp(&a[i], &b[i], 4) != 0)
            return "plane " + std::to_string(id) + " ray " + std::to_string(i);
    return "";
}

struct Block {
    Block();
    float& x(int id, int i) { return f[id][i]; }
    float x(int id, int i) const { return f[id][i]; }
    int& m(int id, int i) { return n[id - kFloats][i]; }
    int m(int id, int i) const { return n[id - kFloats][i]; }
    bool active(int i) const { return m(MASK, i) >= 0; }
    // Summed (x + y) + z in single precision, like the library.
    float dot(int a, int b, int i) const {
        return (x(a, i) * x(b, i) + x(a + 1, i) * x(b + 1, i)) + x(a + 2, i) * x(b + 2, i);
    }
    void placeAt(int id, int misalign) {
        id < kFloats ? f[id].placeAt(misalign) : n[id - kFloats].placeAt(misalign);
    }
    // Empty when every plane holds `other`'s values and no guard was written.
    std::string difference(const Block& other) const {
        std::string d;
        for (int id = 0; id < kPlanes && d.empty(); ++id)
            d = id < kFloats ? ::difference(f[id], other.f[id], id)
                             : ::difference(n[id - kFloats], other.n[id - kFloats], id);
        return d;
    }

    std::vector<kelt::Plane<float>> f;
    std::vector<kelt::Plane<int>> n;
    float* triples[kFloats];
};

// A primitive's arguments: planes of a block from ray `at` on, the
// `nulled`-th checked pointer (and every unchecked constant array, so the
// checks must come before any read) null. Counts the checked pointers.
struct Args {
    template <typename T>
    T* checked(T* p) {
        return pointers++ == nulled ? nullptr : p;
    }
    float* p(int id) { return checked(plain(id)); }
    int* q(int id) { return checked(&b.m(id, offset(id))); }
    float* const* p3(int first) { return checked(plain3(first)); }
    float* plain(int id) { return &b.x(id, offset(id)); }
    float* const* plain3(int first) {
        for (int k = 0; k < 3; ++k) b.triples[first + k] = plain(first + k);
        return b.triples + first;
    }
    const float* constant(const float* c) { return nulled >= 0 ? nullptr : c; }
    int offset(int id) const {
        return id == TRIANGLE_NORMALS || id == VERTEX_NORMALS || id == INDICES ? 0 : at;
    }

    Block& b;
    int at, nulled, pointers;
};

// Random contents with NaNs, zero masks and special rays; groups of four
// inactive or on one triangle as a whole.
Block::Block() {
    std::mt19937 engine(51);
    auto uniform = [&](float lo, float hi) {
        return std::uniform_real_distribution<float>(lo, hi)(engine);
    };
    auto integer = [&](int lo, int hi) { return lo + int(engine() % unsigned(hi - lo + 1)); };
    f.reserve(kFloats);
    for (int id = 0; id < kFloats; ++id) {
        f.emplace_back(id == TRIANGLE_NORMALS ? 120 : id == VERTEX_NORMALS ? 90 : kRays);
        for (int i = 0; i < f[id].size(); ++i) x(id, i) = id == G ? 7.0f : uniform(-3.0f, 3.0f);
    }
    n.reserve(kPlanes - kFloats);
    for (int size : {kRays, kRays, 160}) n.emplace_back(size);
    for (int i = 0; i < 160; ++i) m(INDICES, i) = integer(0, 29);
    for (int i = 0; i < kRays; ++i) {
        m(MASK, i) = integer(0, 3) == 0 ? -integer(1, 9) : integer(0, 1000);
        m(HIT, i) = integer(0, 3) == 0 ? -1 : integer(0, 39);
        const float a = uniform(0, 1), b = uniform(0, 1);
        x(U, i) = std::fmin(a, b);
        x(V, i) = std::fmax(a, b) - x(U, i);
    }
    for (int g = 0; g < kRays; g += 4) {
        const int kind = integer(0, 5);
        for (int l = 0; l < 4; ++l) {
            if (kind == 0) m(MASK, g + l) = -1 - l;
            if (kind == 1) m(HIT, g + l) = -1 - l;
            if (kind >= 4) m(HIT, g + l) = m(HIT, g);
        }
    }
    for (int i = 0; i < kRays; ++i) {
        if (i % 13 == 5) x(AY, i) = NAN;
        // What an inactive ray holds must not matter, nor reach the output;
        // inactive accumulators keep their bits, a marked NaN among them.
        if (!active(i)) x(F, i) = NAN, x(BY, i) = std::nanf("0x1234");
    }
    // Ray 1: facing 0 (a grazing view), a zero divisor. Ray 2: on the light.
    m(MASK, 1) = m(MASK, 2) = 0;
    x(F, 1) = 0.0f;
    for (int k = 0; k < 3; ++k) x(AX + k, 2) = kPoint[k];
    // Triangle 0's vertex normals 0 and 1 cancel: rays 0 and 1 get squared
    // lengths 0 and about 2^-26, ray 2 the tiny normal 2 of squared length
    // exactly 2^-23, ray 3 vertex normal 0.
    const float cancelling[9] = {0.6f, 0.0f, 0.8f, -0.6f, 0.0f, -0.8f, 0x1p-12f, 0.0f, 0x1p-12f};
    for (int j = 0; j < 9; ++j) x(VERTEX_NORMALS, j) = cancelling[j];
    const float us[4] = {0.5f, 0.5f, 0.0f, 1.0f}, vs[4] = {0.5f, 0.5f - 0x1p-13f, 0.0f, 0.0f};
    for (int i = 0; i < 4; ++i) m(INDICES, i) = i, m(HIT, i) = 0, x(U, i) = us[i], x(V, i) = vs[i];
}

// The scalar loop sums z first, takes the square root and leaves normals
// shorter than 2^-23 at zero; the worker sums x first, puts 2^-23 in place of
// zero and refines the processor's reciprocal-square-root estimate once.
void normalise(const float n[3], bool worker, float out[3]) {
    if (worker) {
        float s = (n[0] * n[0] + n[1] * n[1]) + n[2] * n[2];
        if (s == 0.0f) s = 0x1p-23f;
        const float r = _mm_cvtss_f32(_mm_rsqrt_ss(_mm_set_ss(s)));
        for (int k = 0; k < 3; ++k) out[k] = n[k] * ((r * -0.5f) * ((s * r) * r - 3.0f));
        return;
    }
    const float s = (n[2] * n[2] + n[1] * n[1]) + n[0] * n[0];
    for (int k = 0; k < 3; ++k) out[k] = s >= 0x1p-23f ? n[k] / std::sqrt(s) : 0.0f;
}

template <int kStride>
KelStatus smoothNormal(Args& a, int count) {
    const float* uv[2] = {a.plain(U), a.plain(V)};
    return kelrSurfSmoothNormal_32f(a.p(VERTEX_NORMALS), a.q(INDICES), a.q(HIT), a.checked(uv),
                                    a.p3(CX), count, kStride);
}

// u weighs vertex 0, v vertex 1.
template <int kStride>
void smoothNormalReference(const Block& in, Block& out, int i, bool worker) {
    const int h = in.m(HIT, i);
    float n[3] = {0, 0, 0}, normal[3] = {0, 0, 0};
    if (h >= 0) {
        const float u = in.x(U, i), v = in.x(V, i), w = (1.0f - u) - v;
        auto vertex = [&](int c, int k) {
            return in.x(VERTEX_NORMALS, 3 * in.m(INDICES, h * kStride + c) + k);
        };
        for (int k = 0; k < 3; ++k) n[k] = (vertex(0, k) * u + vertex(1, k) * v) + vertex(2, k) * w;
        normalise(n, worker, normal);
    }
    for (int k = 0; k < 3; ++k) out.x(CX + k, i) = normal[k];
}

// The scalar loops round once, from extended precision; the workers work
// in single precision and multiply in another order.
template <bool kSharedOrigin>
KelStatus hitPoint(Args& a, int count) {
    if (kSharedOrigin)
        return kelrHitPoint3DEpsS0_32f_M(a.constant(kPoint), a.p3(BX), a.p(F), a.q(MASK), a.p3(CX),
                                         count, kScale);
    return kelrHitPoint3DEpsM0_32f_M(a.p3(AX), a.p3(BX), a.p(F), a.q(MASK), a.p3(CX), count,
                                     kScale);
}
template <bool kSharedOrigin>
void hitPointReference(const Block& in, Block& out, int i, bool worker) {
    for (int k = 0; k < 3; ++k) {
        const float d = in.x(BX + k, i), t = in.x(F, i);
        const float o = kSharedOrigin ? kPoint[k] : in.x(AX + k, i);
        const float p = worker ? (d * t) * kScale + o : float(((long double)d * kScale) * t + o);
        out.x(CX + k, i) = in.active(i) ? p : 0.0f;
    }
}

template <bool kDivide>
KelStatus mulDiv(Args& a, int count) {
    return (kDivide ? kelrDiv_32f_C1IM : kelrMul_32f_C1IM)(a.plain(F), &a.b.m(MASK, a.at),
                                                           a.plain(G), count);
}
template <bool kDivide>
void mulDivReference(const Block& in, Block& out, int i, bool) {
    const float g = in.x(G, i), f = in.x(F, i);
    out.x(G, i) = !in.active(i) ? 0.0f : kDivide ? g / f : g * f;
}

struct Primitive {
    const char* name;
    KelStatus (*run)(Args& a, int count);  // rays [a.at, a.at + count)
    uint32_t scalarIfMoved;                // planes whose misalignment leaves the worker
    bool pathsDiffer;                      // the worker's results are not the scalar loop's
    void (*reference)(const Block& in, Block& out, int i, bool worker);
};

const uint32_t kSmoothPlanes =
    triple(CX) | plane(VERTEX_NORMALS) | plane(INDICES) | plane(HIT) | plane(U) | plane(V);
const uint32_t kHitPlanes = triple(BX) | triple(CX) | plane(F) | plane(MASK);

const Primitive kPrimitives[] = {
    // The worker drops every failing ray of a group with an active ray,
    // inactive ones included; the scalar loop drops only active rays.
    {"CastShadow",
     [](Args& a, int count) {
         return kelrCastShadowSO_32f(a.constant(kPoint), a.p(F), a.p3(BX), a.p3(AX), a.q(MASK),
                                     a.p(G), a.p3(CX), count);
     },
     0, true,
     [](const Block& in, Block& out, int i, bool worker) {
         float toPoint[3];
         for (int k = 0; k < 3; ++k) toPoint[k] = in.x(AX + k, i) - kPoint[k];
         const float d =
             (toPoint[0] * in.x(BX, i) + toPoint[1] * in.x(BY, i)) + toPoint[2] * in.x(BZ, i);
         const bool passes = in.x(F, i) * d > 0.0f;
         const int g = i & ~3;
         const bool groupActive =
             in.active(g) || in.active(g + 1) || in.active(g + 2) || in.active(g + 3);
         if (!passes && (worker ? groupActive : in.active(i))) out.m(MASK, i) = -1;
         const bool lit = in.active(i) && passes;
         out.x(G, i) = lit ? std::fabs(d) : 0.0f;
         for (int k = 0; k < 3; ++k) out.x(CX + k, i) = lit ? toPoint[k] : 0.0f;
     }},
    {"CastReflectionRay",
     [](Args& a, int count) {
         return kelrCastReflectionRay_32f(a.p3(AX), a.q(MASK), a.p3(BX), a.p3(CX), count);
     },
     0, false,
     [](const Block& in, Block& out, int i, bool) {
         const float s = in.dot(AX, BX, i);
         for (int k = 0; k < 3; ++k)
             out.x(CX + k, i) = in.active(i) ? in.x(AX + k, i) - in.x(BX + k, i) * (s + s) : 0.0f;
     }},
    {"HitPoint3DEpsM0", hitPoint<false>, kHitPlanes | triple(AX), true, hitPointReference<false>},
    // The single origin is not checked; the origin planes play no part.
    {"HitPoint3DEpsS0", hitPoint<true>, kHitPlanes, true, hitPointReference<true>},
    // The output triple is not checked.
    {"SurfFlatNormal",
     [](Args& a, int count) {
         return kelrSurfFlatNormal_32f(a.p(TRIANGLE_NORMALS), a.q(HIT), a.plain3(CX), count);
     },
     triple(CX) | plane(TRIANGLE_NORMALS) | plane(HIT), false,
     [](const Block& in, Block& out, int i, bool) {
         const int h = in.m(HIT, i);
         for (int k = 0; k < 3; ++k)
             out.x(CX + k, i) = h < 0 ? 0.0f : in.x(TRIANGLE_NORMALS, 3 * h + k);
     }},
    {"SurfSmoothNormal stride 3", smoothNormal<3>, kSmoothPlanes, true, smoothNormalReference<3>},
    {"SurfSmoothNormal stride 4", smoothNormal<4>, kSmoothPlanes, true, smoothNormalReference<4>},
    {"Dot",
     [](Args& a, int count) {
         return kelrDot_32f_P3C1M(a.p3(AX), a.p3(BX), a.q(MASK), a.p(G), count);
     },
     triple(AX) | triple(BX) | plane(MASK) | plane(G), false,
     [](const Block& in, Block& out, int i, bool) {
         out.x(G, i) = in.active(i) ? in.dot(AX, BX, i) : 0.0f;
     }},
    // Active normals turn to face against the ray by a sign flip; inactive
    // ones keep their bits.
    {"DotChangeNorm",
     [](Args& a, int count) {
         return kelrDotChangeNorm_32f_IM(a.p3(AX), a.q(MASK), a.p3(BX), a.p(G), count);
     },
     triple(AX) | triple(BX) | plane(MASK) | plane(G), false,
     [](const Block& in, Block& out, int i, bool) {
         const float d = in.dot(AX, BX, i);
         const bool flip = in.active(i) && d > 0.0f;
         out.x(G, i) = !in.active(i) ? 0.0f : flip ? -d : d;
         for (int k = 0; k < 3; ++k) out.x(BX + k, i) = flip ? -in.x(BX + k, i) : in.x(BX + k, i);
     }},
    {"DistAttenuation",
     [](Args& a, int count) {
         return kelrDistAttenuationSO_32f_M(a.constant(kPoint), a.p3(AX), a.q(MASK), a.p(G), count);
     },
     triple(AX) | plane(MASK) | plane(G), false,
     [](const Block& in, Block& out, int i, bool) {
         float d[3];
         for (int k = 0; k < 3; ++k) d[k] = in.x(AX + k, i) - kPoint[k];
         const float q = (d[0] * d[0] + d[1] * d[1]) + d[2] * d[2];
         out.x(G, i) = in.active(i) && q >= 1.0f ? std::sqrt(q) : 1.0f;
     }},
    {"Mul C1P3",
     [](Args& a, int count) { return kelrMul_32f_C1P3IM(a.p(F), a.q(MASK), a.p3(BX), count); },
     triple(BX) | plane(F) | plane(MASK), false,
     [](const Block& in, Block& out, int i, bool) {
         for (int k = 0; k < 3; ++k)
             out.x(BX + k, i) = in.active(i) ? in.x(BX + k, i) * in.x(F, i) : 0.0f;
     }},
    // The worker reads src (the A triple) wherever it is.
    {"AddMulMul",
     [](Args& a, int count) {
         return kelrAddMulMul_32f_AC1P3IM(a.constant(kCoefficient), a.p(F), a.p3(AX), a.q(MASK),
                                          a.p3(BX), count);
     },
     triple(BX) | plane(F) | plane(MASK), true,
     [](const Block& in, Block& out, int i, bool worker) {
         for (int k = 0; k < 3; ++k) {
             const float acc = in.x(BX + k, i), src = in.x(AX + k, i), f = in.x(F, i);
             const float c = kCoefficient[k];
             if (in.active(i))
                 out.x(BX + k, i) = worker ? acc + (src * f) * c
                                           : float((long double)acc + ((long double)src * c) * f);
         }
     }},
    // Plain loops without checks or worker.
    {"Mul C1", mulDiv<false>, 0, false, mulDivReference<false>},
    {"Div C1", mulDiv<true>, 0, false, mulDivReference<true>},
};

Block expected(const Block& in, const Primitive& primitive, bool worker) {
    Block out(in);
    for (int i = 0; i < kRays; ++i) primitive.reference(in, out, i, worker);
    return out;
}

// Runs rays [at, at + count) of b with the nulled-th checked pointer null;
// tells how many pointers are checked.
KelStatus run(const Primitive& primitive, Block& b, int at, int count, int nulled = -1,
              int* checked = nullptr) {
    Args args{b, at, nulled, 0};
    const KelStatus status = primitive.run(args, count);
    if (checked) *checked = args.pointers;
    return status;
}

TEST(MaskedPrimitives, EveryPathAgainstItsReference) {
    const Block initial;
    for (const Primitive& primitive : kPrimitives) {
        SCOPED_TRACE(primitive.name);
        const Block onWorker = expected(initial, primitive, true);
        const Block onScalar = expected(initial, primitive, false);
        EXPECT_EQ(onWorker.difference(onScalar).empty(), !primitive.pathsDiffer);
        // moved: the plane off its boundary; kPlanes: none; -1: pieces of
        // three rays, which are never whole groups.
        for (int moved = -1; moved <= kPlanes; ++moved) {
            SCOPED_TRACE("moved plane " + std::to_string(moved));
            Block b(initial);
            if (moved >= 0 && moved < kPlanes) b.placeAt(moved, 1);
            const int piece = moved < 0 ? 3 : kRays;
            for (int at = 0; at < kRays; at += piece)
                ASSERT_EQ(run(primitive, b, at, std::min(piece, kRays - at)), KEL_STS_OK);
            const bool worker =
                moved >= 0 && !(moved < kPlanes && primitive.scalarIfMoved >> moved & 1);
            EXPECT_EQ(b.difference(worker ? onWorker : onScalar), "");
        }
        // Null pointers, and blocks without rays (zero, or negative whole
        // groups), write nothing.
        Block b(initial);
        int checked = 0;
        run(primitive, b, 0, 0, -1, &checked);
        for (int w = 0; w < checked; ++w)
            EXPECT_EQ(run(primitive, b, 0, 8, w), KEL_STS_NULL_PTR) << "pointer " << w;
        for (int count : {0, -4, -3}) EXPECT_EQ(run(primitive, b, 0, count), KEL_STS_OK);
        EXPECT_EQ(b.difference(initial), "");
    }
    // Nothing to write, so the unchecked output triple is not looked at.
    Block b(initial);
    EXPECT_EQ(kelrSurfFlatNormal_32f(&b.x(TRIANGLE_NORMALS, 0), &b.m(HIT, 0), nullptr, 0),
              KEL_STS_OK);
}

// The scalar loop evaluates the per-ray formula; the workers, aligned or
// not, step the row base by addition, so their rounding builds up down the
// block. Blocks without rays write nothing.
TEST(CastEye, EachPathKeepsItsOwnFormula) {
    std::mt19937 engine(20);
    std::uniform_real_distribution<float> coordinate(-1.0f, 1.0f), step(-0.01f, 0.01f);
    float corner[3], columnStep[3], rowStep[3];
    for (int k = 0; k < 3; ++k)
        corner[k] = coordinate(engine), columnStep[k] = step(engine), rowStep[k] = step(engine);
    const float x0 = 15, y0 = 21;  // tile (3, 7) of 5 x 3 pixels
    const int height = 24;
    for (int width : {7, 16}) {
        for (int moved = -1; moved < 3; ++moved) {
            kelt::Planes3 dir(width * height);
            if (moved >= 0) dir[moved].placeAt(1);
            ASSERT_EQ(
                kelrCastEye_32f(corner, columnStep, rowStep, 3, 7, 5, 3, dir.p(), width, height),
                KEL_STS_OK);
            int differing = 0;
            for (int k = 0; k < 3; ++k) {
                float base = (rowStep[k] * y0 + corner[k]) + columnStep[k] * x0;
                for (int r = 0; r < height; ++r, base += rowStep[k])
                    for (int c = 0; c < width; ++c) {
                        const float perRay =
                            (rowStep[k] * (y0 + r) + corner[k]) + columnStep[k] * (x0 + c);
                        const float stepped = columnStep[k] * float(c) + base;
                        ASSERT_EQ(dir.at(k, r * width + c), width == 7 ? perRay : stepped);
                        differing += perRay != stepped;
                    }
            }
            EXPECT_GT(differing, 0);
            EXPECT_TRUE(dir.intact());
        }
    }
    kelt::Planes3 dir(8, 5.0f);
    EXPECT_EQ(kelrCastEye_32f(corner, corner, corner, 0, 0, 1, 1, nullptr, 0, 0), KEL_STS_NULL_PTR);
    for (int width : {5, 4, 0, -4, -3})
        for (int height : {0, -2, width == -4 ? 2 : 0})
            EXPECT_EQ(kelrCastEye_32f(corner, corner, corner, 0, 0, 1, 1, dir.p(), width, height),
                      KEL_STS_OK);
    for (float v : dir.values()) EXPECT_EQ(v, 5.0f);
}

}  // namespace
