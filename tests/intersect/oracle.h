// Brute-force reference for the ray-scene queries: every triangle of the
// accelerator array is tested against the ray, with the arithmetic type and
// thresholds of each query, so a traversal result can be checked without
// trusting the kd-tree walk.
//
// Ties: a nearest-hit query replaces its current hit only by a triangle that
// is nearer by more than the query's margin, so two triangles within the
// margin of each other (typically the two sides of a shared edge) can be
// reported either way, depending on the order in which they are met. The
// oracle tests triangles in index order; agreesWithNearest() accepts another
// answer only when that triangle is hit at the reported distance and the two
// distances lie within the margin.
#ifndef KEL_TEST_INTERSECT_ORACLE_H
#define KEL_TEST_INTERSECT_ORACLE_H

#include <cmath>

#include "queries.h"

namespace oracle {

using kelt::Query;

struct Hit {
    int id = -1;
    float t = 0, u = 0, v = 0;
};

// The acceptance margin below the current distance (the any-hit query has
// none: it accepts 0 < t < 1).
inline double margin(Query q) {
    return q == Query::kEye ? 0x1p-23 : q == Query::kOwnOrigins ? double(1e-5f) : 0.0;
}

namespace detail {

template <typename Real>
struct Limits {
    Real parallelBelow;  // |denominator| below this: the ray runs along the plane
    Real zeroBelow;      // scaled barycentric weights below this count as 0
};

template <typename Real>
bool testRecord(const TriangleAccel& rec, const float o[3], const float r[3], Real tMax,
                const Limits<Real>& lim, Hit* hit) {
    if (rec.axes == 0) return false;
    const int k = (rec.axes >> 4) & 3, a = (rec.axes >> 2) & 3, b = rec.axes & 3;
    const Real nu = rec.nu, nv = rec.nv;
    const Real denom = Real(r[k]) + nu * Real(r[a]) + nv * Real(r[b]);
    if (std::fabs(denom) < lim.parallelBelow) return false;
    const Real du = Real(rec.cu) - Real(o[a]);
    const Real dv = Real(rec.cv) - Real(o[b]);
    const Real num = (Real(rec.ck) - Real(o[k])) + nu * du + nv * dv;
    const Real t = num / denom;
    const Real hu = Real(r[a]) * num - du * denom;
    const Real hv = Real(r[b]) * num - dv * denom;
    Real w[3];
    w[0] = Real(rec.e2v) * hu - Real(rec.e2u) * hv;
    w[1] = Real(rec.e1u) * hv - Real(rec.e1v) * hu;
    w[2] = denom - w[0] - w[1];
    int positive = 0, negative = 0;
    for (Real& x : w) {
        if (std::fabs(x) < lim.zeroBelow) x = 0;
        positive += x > 0;
        negative += x < 0;
    }
    if (positive + negative == 0 || (positive > 0 && negative > 0)) return false;
    if (!(t > 0 && t < tMax)) return false;
    hit->t = float(t);
    hit->u = float(w[0] / denom);
    hit->v = float(w[1] / denom);
    return true;
}

}  // namespace detail

// Runs query q's ray-triangle test on one record; `distance` is the ray's
// current distance (ignored by the any-hit query). On a hit, fills t, u, v.
inline bool testTriangle(Query q, const TriangleAccel& rec, const float o[3], const float r[3],
                         float distance, Hit* hit) {
    if (q == Query::kEye)
        return detail::testRecord<long double>(rec, o, r, (long double)distance - 0x1p-23L,
                                               {0x1p-23L, 0x1p-23L}, hit);
    if (q == Query::kOwnOrigins)
        return detail::testRecord<float>(rec, o, r, distance - 1e-5f, {1.1920929e-6f, 1e-5f}, hit);
    return detail::testRecord<float>(rec, o, r, 1.0f, {0.0f, 0x1p-23f}, hit);
}

// Nearest hit over all triangles, tested in index order, each accepted one
// lowering the distance. id -1: no hit.
inline Hit nearest(Query q, const TriangleAccel* accel, int count, const float o[3],
                   const float r[3], float distance) {
    Hit best;
    for (int n = 0; n < count; ++n) {
        Hit h;
        if (testTriangle(q, accel[n], o, r, distance, &h)) {
            best = h;
            best.id = n;
            distance = h.t;
        }
    }
    return best;
}

// True when triangle id occludes the segment origin + t r, 0 < t < 1.
inline bool occludes(const TriangleAccel* accel, int id, const float o[3], const float r[3]) {
    Hit h;
    return testTriangle(Query::kShadow, accel[id], o, r, 1.0f, &h);
}

// The first occluder in index order, or -1.
inline int anyOccluder(const TriangleAccel* accel, int count, const float o[3], const float r[3]) {
    for (int n = 0; n < count; ++n)
        if (occludes(accel, n, o, r)) return n;
    return -1;
}

// Whether a nearest-hit result (id, t, u, v) of a traversal agrees with the
// oracle's `expected`, found on the same ray with the same entry distance:
// the same triangle with bit-identical t, u and v, or a tie (see the top of
// this file). *tie is set when the answer differs only by a tie.
inline bool agreesWithNearest(Query q, const TriangleAccel* accel, const float o[3],
                              const float r[3], float entryDistance, const Hit& expected, int id,
                              float t, float u, float v, bool* tie) {
    *tie = false;
    if (id == expected.id)
        return id < 0 || (kelt::sameBits(t, expected.t) && kelt::sameBits(u, expected.u) &&
                          kelt::sameBits(v, expected.v));
    if (id < 0 || expected.id < 0) return false;
    Hit h;
    if (!testTriangle(q, accel[id], o, r, entryDistance, &h) || !kelt::sameBits(h.t, t) ||
        !kelt::sameBits(h.u, u) || !kelt::sameBits(h.v, v))
        return false;
    // float rounding of both distances may add an ulp each
    const double slack = margin(q) + 2.0 * std::ldexp(std::fabs(double(t)), -23);
    *tie = std::fabs(double(t) - double(expected.t)) <= slack;
    return *tie;
}

}  // namespace oracle

#endif
