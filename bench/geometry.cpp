// Geometry and shading primitives on a 64 x 64 block of rays: nanoseconds
// per ray for the scalar loop and for the four-ray worker of each function.
// The scalar loop is reached through the exported function with planes one
// float off a 16-byte boundary, or with a ray count one short of the block
// where alignment does not choose the path.
#include <stdint.h>
#include <stdio.h>

#include <chrono>
#include <functional>
#include <random>
#include <vector>

#include "geometry/prmisc.h"

namespace {

const int kSide = 64;
const int kRays = kSide * kSide;

// count floats or ints placed misalign elements past a 16-byte boundary.
template <typename T>
struct Plane {
    explicit Plane(int misalign, int count = kRays) : storage(count + 8) {
        uintptr_t p = (reinterpret_cast<uintptr_t>(storage.data()) + 15) & ~uintptr_t(15);
        data = reinterpret_cast<T*>(p) + misalign;
    }
    std::vector<T> storage;
    T* data;
    T& operator[](int i) { return data[i]; }
};

struct Triple {
    explicit Triple(int misalign) : x(misalign), y(misalign), z(misalign) {
        p[0] = x.data, p[1] = y.data, p[2] = z.data;
    }
    Plane<float> x, y, z;
    float* p[3];
};

std::mt19937 rng(7);
float uniform(float lo, float hi) {
    return std::uniform_real_distribution<float>(lo, hi)(rng);
}

// One set of ray-block arrays; the scalar runs use a set one float off.
struct Block {
    explicit Block(int misalign)
        : a(misalign),
          b(misalign),
          c(misalign),
          out3(misalign),
          mask(misalign),
          hitTriangle(misalign),
          u(misalign),
          v(misalign),
          scalar(misalign),
          out(misalign) {
        std::mt19937 local(11);  // both blocks hold the same values
        auto uni = [&](float lo, float hi) {
            return std::uniform_real_distribution<float>(lo, hi)(local);
        };
        for (int i = 0; i < kRays; ++i) {
            for (int k = 0; k < 3; ++k) {
                a.p[k][i] = uni(-1, 1);
                b.p[k][i] = uni(-1, 1);
                c.p[k][i] = uni(-5, 5);
            }
            mask[i] = uni(0, 1) < 0.9f ? i : -1;  // one ray in ten missed
            // Coherent hits: neighbouring rays mostly share a triangle.
            hitTriangle[i] = mask[i] < 0 ? -1 : (i / 4) % kTriangles;
            u[i] = uni(0, 0.5f), v[i] = uni(0, 0.5f);
            scalar[i] = uni(0.999f, 1.001f);
        }
    }
    static const int kTriangles = 2000;
    Triple a, b, c, out3;
    Plane<int> mask, hitTriangle;
    Plane<float> u, v, scalar, out;
};

// Best of several timed rounds, in nanoseconds per ray.
double nsPerRay(int rays, const std::function<void()>& call) {
    double best = 1e30;
    for (int round = 0; round < 7; ++round) {
        const int repeats = 200;
        const auto start = std::chrono::steady_clock::now();
        for (int r = 0; r < repeats; ++r) call();
        const std::chrono::duration<double, std::nano> took =
            std::chrono::steady_clock::now() - start;
        best = std::min(best, took.count() / repeats / rays);
    }
    return best;
}

void report(const char* name, double scalar, double worker) {
    if (worker > 0)
        printf("%-28s %8.2f %8.2f %7.2fx\n", name, scalar, worker, scalar / worker);
    else
        printf("%-28s %8.2f %8s\n", name, scalar, "-");
}

}  // namespace

int main() {
    Block aligned(0), shifted(1);
    // The per-triangle and per-vertex tables are aligned, as the workers need.
    Plane<float> vertices(0, 3 * 3000), triangleNormals(0, 3 * Block::kTriangles),
        vertexNormals(0, 3 * 3000);
    Plane<int> triangles(0, 4 * Block::kTriangles);
    for (int i = 0; i < 3 * 3000; ++i) vertices[i] = uniform(-10, 10);
    for (int i = 0; i < 3 * 3000; ++i) vertexNormals[i] = uniform(-1, 1);
    for (int i = 0; i < 4 * Block::kTriangles; ++i) triangles[i] = int(uniform(0, 2999.99f));
    kelrTriangleNormal_32f(vertices.data, triangles.data, triangleNormals.data, Block::kTriangles);
    // Shadow rays that all pass their facing test, so the mask stays put.
    const float light[3] = {0.5f, 8.0f, -2.0f};
    for (Block* blk : {&aligned, &shifted})
        for (int i = 0; i < kRays; ++i) {
            float d = 0;
            for (int k = 0; k < 3; ++k) d += (blk->c.p[k][i] - light[k]) * blk->b.p[k][i];
            blk->scalar[i] = d < 0 ? -1.0f : 1.0f;
        }

    printf("64 x 64 rays, ns per ray      scalar   worker  speed-up\n");
    float box[6];
    report("SetBoundBox (per vertex)",
           nsPerRay(3000, [&] { kelrSetBoundBox_32f(vertices.data, 3000, box); }), 0);
    report("TriangleNormal (per tri)",
           nsPerRay(Block::kTriangles,
                    [&] {
                        kelrTriangleNormal_32f(vertices.data, triangles.data, triangleNormals.data,
                                               Block::kTriangles);
                    }),
           0);

    const float corner[3] = {-0.5f, 0.5f, -1.0f}, column[3] = {0.001f, 0, 0},
                row[3] = {0, -0.001f, 0};
    report("CastEye",
           nsPerRay(
               63 * 65,
               [&] { kelrCastEye_32f(corner, column, row, 1, 2, 64, 64, aligned.out3.p, 63, 65); }),
           nsPerRay(kRays, [&] {
               kelrCastEye_32f(corner, column, row, 1, 2, 64, 64, aligned.out3.p, kSide, kSide);
           }));

    auto shadow = [&](Block& blk, int count) {
        kelrCastShadowSO_32f(light, blk.scalar.data, blk.b.p, blk.c.p, blk.mask.data, blk.out.data,
                             blk.out3.p, count);
    };
    report("CastShadowSO", nsPerRay(kRays - 1, [&] { shadow(aligned, kRays - 1); }),
           nsPerRay(kRays, [&] { shadow(aligned, kRays); }));

    auto reflect = [&](Block& blk, int count) {
        kelrCastReflectionRay_32f(blk.a.p, blk.mask.data, blk.b.p, blk.out3.p, count);
    };
    report("CastReflectionRay", nsPerRay(kRays - 1, [&] { reflect(aligned, kRays - 1); }),
           nsPerRay(kRays, [&] { reflect(aligned, kRays); }));

    // From here on the scalar runs use the misaligned block.
    auto both = [&](const char* name, const std::function<void(Block&)>& call) {
        report(name, nsPerRay(kRays, [&] { call(shifted); }),
               nsPerRay(kRays, [&] { call(aligned); }));
    };
    both("HitPoint3DEpsS0", [&](Block& blk) {
        kelrHitPoint3DEpsS0_32f_M(light, blk.a.p, blk.u.data, blk.mask.data, blk.out3.p, kRays,
                                  0.999f);
    });
    both("HitPoint3DEpsM0", [&](Block& blk) {
        kelrHitPoint3DEpsM0_32f_M(blk.c.p, blk.a.p, blk.u.data, blk.mask.data, blk.out3.p, kRays,
                                  0.999f);
    });
    // The misaligned per-ray planes send the scalar runs to the loop.
    both("SurfFlatNormal", [&](Block& blk) {
        kelrSurfFlatNormal_32f(triangleNormals.data, blk.hitTriangle.data, blk.out3.p, kRays);
    });
    both("SurfSmoothNormal", [&](Block& blk) {
        const float* uv[2] = {blk.u.data, blk.v.data};
        kelrSurfSmoothNormal_32f(vertexNormals.data, triangles.data, blk.hitTriangle.data, uv,
                                 blk.out3.p, kRays, 4);
    });
    both("Dot_P3C1M", [&](Block& blk) {
        kelrDot_32f_P3C1M(blk.a.p, blk.b.p, blk.mask.data, blk.out.data, kRays);
    });
    both("DotChangeNorm_IM", [&](Block& blk) {
        kelrDotChangeNorm_32f_IM(blk.a.p, blk.mask.data, blk.b.p, blk.out.data, kRays);
    });
    both("DistAttenuationSO_M", [&](Block& blk) {
        kelrDistAttenuationSO_32f_M(light, blk.c.p, blk.mask.data, blk.out.data, kRays);
    });
    both("Mul_C1P3IM",
         [&](Block& blk) { kelrMul_32f_C1P3IM(blk.scalar.data, blk.mask.data, blk.a.p, kRays); });
    report("Mul_C1IM",
           nsPerRay(kRays,
                    [&] {
                        kelrMul_32f_C1IM(aligned.scalar.data, aligned.mask.data, aligned.u.data,
                                         kRays);
                    }),
           0);
    report("Div_C1IM",
           nsPerRay(kRays,
                    [&] {
                        kelrDiv_32f_C1IM(aligned.scalar.data, aligned.mask.data, aligned.v.data,
                                         kRays);
                    }),
           0);
    const float colour[3] = {0.9f, 0.7f, 0.4f};
    both("AddMulMul_AC1P3IM", [&](Block& blk) {
        kelrAddMulMul_32f_AC1P3IM(colour, blk.u.data, blk.b.p, blk.mask.data, blk.out3.p, kRays);
    });
    return 0;
}
