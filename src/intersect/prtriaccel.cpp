// Per-triangle accelerator records: the triangle's plane and edges projected
// onto the two axes in which it is largest and pre-divided, so that a
// ray-triangle test costs a single division.
#include "intersect/printersect.h"

namespace {

struct Vec3d {
    double c[3];
};

Vec3d vertex(const float* vertices, int index) {
    const float* p = vertices + 3 * ptrdiff_t(index);
    return {{double(p[0]), double(p[1]), double(p[2])}};
}

Vec3d minus(const Vec3d& a, const Vec3d& b) {
    return {{a.c[0] - b.c[0], a.c[1] - b.c[1], a.c[2] - b.c[2]}};
}

Vec3d cross(const Vec3d& a, const Vec3d& b) {
    return {{a.c[1] * b.c[2] - a.c[2] * b.c[1], a.c[2] * b.c[0] - a.c[0] * b.c[2],
             a.c[0] * b.c[1] - a.c[1] * b.c[0]}};
}

// The dominant normal axis; ties go to x before y and to x or y before z.
int dominantAxis(const Vec3d& n) {
    int k = __builtin_fabs(n.c[1]) > __builtin_fabs(n.c[0]) ? 1 : 0;
    if (__builtin_fabs(n.c[k]) < __builtin_fabs(n.c[2])) k = 2;
    return k;
}

// The sign of the projected area determinant for each dominant axis k.
constexpr double kDeterminantSign[3] = {1.0, -1.0, 1.0};

// Normal components below this are zero for all practical purposes: the
// plane is perpendicular to the dominant axis.
constexpr double kFlatBelow = 0x1p-52;
constexpr uint32_t kFlatBit = 0x80000000u;

void writeDegenerate(TriangleAccel* rec, int number) {
    rec->axes = 0;
    rec->nu = rec->ck = rec->nv = rec->cu = rec->cv = 0.0f;
    rec->e2u = rec->e2v = rec->e1u = rec->e1v = 0.0f;
    rec->triangle = number;
}

void fillRecord(TriangleAccel* rec, const float* vertices, const int* corners, int number) {
    const Vec3d a = vertex(vertices, corners[0]);
    const Vec3d b = vertex(vertices, corners[1]);
    const Vec3d c = vertex(vertices, corners[2]);
    const Vec3d e1 = minus(a, c), e2 = minus(b, c);
    const Vec3d n = cross(e1, e2);
    const kel::ProjectionAxes axes = kel::kProjections[dominantAxis(n)];
    const int k = axes.k, u = axes.u, v = axes.v;
    const double nk = n.c[k];
    if (nk == 0.0 || nk != nk) {
        writeDegenerate(rec, number);
        return;
    }
    const double inv = 1.0 / nk;
    uint32_t flat = 0;
    if (__builtin_fabs(n.c[v]) >= kFlatBelow || __builtin_fabs(n.c[u]) >= kFlatBelow) {
        rec->nu = float(n.c[u] * inv);
        rec->nv = float(n.c[v] * inv);
    } else {
        rec->nu = rec->nv = 0.0f;
        flat = kFlatBit;
    }
    rec->ck = float(c.c[k]);
    rec->cu = float(c.c[u]);
    rec->cv = float(c.c[v]);
    const double d = kDeterminantSign[k] * inv;
    rec->e2u = float(e2.c[u] * d);
    rec->e2v = float(e2.c[v] * d);
    rec->e1u = float(e1.c[u] * d);
    rec->e1v = float(e1.c[v] * d);
    rec->axes = kel::axisCode(axes) | flat;
    rec->triangle = number;
}

}  // namespace

extern "C" {

KEL_API KelStatus kelrTriangleAccelGetSize(int* pSize) {
    if (!pSize) return KEL_STS_NULL_PTR;
    *pSize = int(sizeof(TriangleAccel));
    return KEL_STS_OK;
}

// Word 3 of each triangle and word 11 of each record are neither read nor
// written: callers keep their own data there.
KEL_API KelStatus kelrTriangleAccelInit(TriangleAccel* pAccel, const float* pVertices,
                                        const int* pTriangles, int count) {
    for (int i = 0; i < count; ++i)
        fillRecord(pAccel + i, pVertices, pTriangles + 4 * ptrdiff_t(i), i);
    return KEL_STS_OK;
}

}  // extern "C"
