// Throughput of the ray-scene queries on the standard workload: eye rays,
// shadow rays from the light to the eye-ray hits, and mirror rays from those
// hits. Rays are traced in 16 x 16 tiles with 16-byte-aligned planes, once
// through the scalar workers and once through the entry points (which pick
// the four-ray path for such tiles), on one thread and on all cores.
//
// Usage: intersect [scene ...]   (default: every workload scene)
#include <omp.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "../tests/intersect/packed_tree.h"
#include "intersect/printersect.h"
#include "kelr.h"
#include "workload.h"

namespace {

constexpr int kTileSide = 16;
constexpr int kTileRays = kTileSide * kTileSide;
constexpr float kNoLimit = 3.4028235e38f;
constexpr int kTimedRuns = 3;

double seconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

// A 16-byte-aligned array.
template <typename T>
class Aligned {
  public:
    explicit Aligned(size_t n = 0, T fill = T()) : store_(n + 4, fill) {
        data_ = reinterpret_cast<T*>((reinterpret_cast<uintptr_t>(store_.data()) + 15) &
                                     ~uintptr_t(15));
    }
    Aligned(const Aligned&) = delete;
    Aligned& operator=(const Aligned&) = delete;
    T* get(size_t offset = 0) { return data_ + offset; }
    T& operator[](size_t i) { return data_[i]; }

  private:
    std::vector<T> store_;
    T* data_;
};

// Rays in whole tiles: ray k of tile b is element b * kTileRays + k of every
// plane. Rays beyond `count` pad the last tile and are switched off.
struct RayBlock {
    explicit RayBlock(int count)
        : count(count),
          tiles((count + kTileRays - 1) / kTileRays),
          size(size_t(tiles) * kTileRays),
          origin{Aligned<float>(size), Aligned<float>(size), Aligned<float>(size)},
          dir{Aligned<float>(size), Aligned<float>(size), Aligned<float>(size)},
          limit(size, 0.0f),
          distance(size),
          u(size),
          v(size),
          mask(size, -1),
          maskIn(size, -1),
          id(size) {}
    int count, tiles;
    size_t size;
    Aligned<float> origin[3], dir[3];
    Aligned<float> limit, distance, u, v;  // limit: entry distance per ray
    Aligned<int> mask, maskIn, id;
};

// The tree, the accelerator and everything a query call needs.
struct Scene {
    kelb::Scene workload;
    std::vector<TriangleAccel> accel;
    float box[6];
    KDTreeNode* built = nullptr;  // from kelrKDTreeBuildAlloc
    std::unique_ptr<kelt::PackedTree> handBuilt;
    const KDTreeNode* tree = nullptr;
    IntersectContext context() const { return {box, accel.data(), tree}; }
    ~Scene() { kelrKDTreeFree(built); }
};

// Budget for the PSAH build: its fixed part and about 400 bytes a triangle
// of chunk space; raised if the build runs out.
uint32_t psahBudgetMiB(int triangles) {
    return 96 + uint32_t((400.0 * triangles) / (1 << 20));
}

void buildTree(Scene* s) {
    const kelt::Mesh& m = s->workload.mesh;
    KDTreeBuildContext ctx{KDT_BUILD_PSAH, 50, 0.5f, psahBudgetMiB(m.triangleCount()), nullptr};
    std::vector<double> times;
    KelStatus status = KEL_STS_OK;
    while (times.size() < 5) {
        KDTreeNode* tree = nullptr;
        int size = 0;
        const double t0 = seconds();
        status = kelrKDTreeBuildAlloc(&tree, m.vertices.data(), m.triangles.data(), m.vertexCount(),
                                      m.triangleCount(), &size, &ctx);
        const double t1 = seconds();
        if (status == KEL_STS_OVERFLOW && ctx.memoryMiB < 2048) {
            ctx.memoryMiB *= 2;
            continue;
        }
        if (status != KEL_STS_OK) break;
        times.push_back(t1 - t0);
        kelrKDTreeFree(s->built);
        s->built = tree;
    }
    if (status == KEL_STS_OK) {
        s->tree = s->built;
        std::printf("  tree: PSAH (depth 50, weight 0.5, %u MiB), build %.1f ms (median of 5)\n",
                    ctx.memoryMiB, 1e3 * median(times));
        return;
    }
    const double t0 = seconds();
    kelt::MedianSplitBuilder builder(m.vertices.data(), m.triangles.data(), m.triangleCount(), 8,
                                     40);
    s->handBuilt = std::make_unique<kelt::PackedTree>(*builder.build(s->box));
    s->tree = s->handBuilt->root();
    std::printf(
        "  tree: PSAH build unavailable (status %d); median-split tree instead, "
        "built in %.1f ms\n",
        int(status), 1e3 * (seconds() - t0));
}

enum class Path { Scalar, Dispatch };
enum class Kind { Eye, Shadow, Mirror };

// Traces one tile of a block with one query.
KelStatus traceTile(const Scene& s, Kind kind, Path path, RayBlock& r, int tile) {
    const size_t at = size_t(tile) * kTileRays;
    const float* dir[3] = {r.dir[0].get(at), r.dir[1].get(at), r.dir[2].get(at)};
    float* hit[2] = {r.u.get(at), r.v.get(at)};
    const IntersectContext ctx = s.context();
    const float* eye = s.workload.camera.eye;
    const float* light = s.workload.light;
    if (kind == Kind::Shadow) {
        std::copy(r.maskIn.get(at), r.maskIn.get(at + kTileRays), r.mask.get(at));
        return path == Path::Scalar
                   ? ownIntersectAnyBlock(light, dir, s.accel.data(), s.tree, r.id.get(at),
                                          r.mask.get(at), kTileSide, kTileSide)
                   : kelrIntersectAnySO_32f(light, dir, r.id.get(at), r.mask.get(at), kTileSide,
                                            kTileSide, &ctx);
    }
    std::copy(r.limit.get(at), r.limit.get(at + kTileRays), r.distance.get(at));
    if (kind == Kind::Eye)
        return path == Path::Scalar
                   ? ownIntersectEyeBlock(eye, dir, s.box, s.accel.data(), s.tree,
                                          r.distance.get(at), hit, r.id.get(at), kTileSide,
                                          kTileSide)
                   : kelrIntersectEyeSO_32f(eye, dir, r.distance.get(at), hit, r.id.get(at), &ctx,
                                            kTileSide, kTileSide);
    const float* origin[3] = {r.origin[0].get(at), r.origin[1].get(at), r.origin[2].get(at)};
    return path == Path::Scalar
               ? ownIntersectBlock(origin, dir, s.box, s.accel.data(), s.tree, r.distance.get(at),
                                   hit, r.id.get(at), kTileSide, kTileSide)
               : kelrIntersectMO_32f(origin, dir, r.distance.get(at), hit, r.id.get(at), &ctx,
                                     kTileSide, kTileSide);
}

// Seconds for tracing the whole block, tiles spread over the threads.
double traceAll(const Scene& s, Kind kind, Path path, RayBlock& r, int threads) {
    int failures = 0;
    const double t0 = seconds();
#pragma omp parallel for schedule(dynamic, 4) num_threads(threads) reduction(+ : failures)
    for (int tile = 0; tile < r.tiles; ++tile)
        failures += traceTile(s, kind, path, r, tile) != KEL_STS_OK;
    const double elapsed = seconds() - t0;
    if (failures) std::printf("  warning: %d tiles ended with an error status\n", failures);
    return elapsed;
}

double mraysPerSecond(const Scene& s, Kind kind, Path path, RayBlock& r, int threads) {
    traceAll(s, kind, path, r, threads);  // warm-up
    std::vector<double> times;
    for (int run = 0; run < kTimedRuns; ++run) times.push_back(traceAll(s, kind, path, r, threads));
    return r.count / median(times) / 1e6;
}

struct Checksum {
    int64_t hits = 0, idSum = 0;
};

Checksum checksum(Kind kind, RayBlock& r) {
    Checksum c;
    for (size_t i = 0; i < r.size; ++i) {
        if (kind == Kind::Shadow) {
            c.hits += r.maskIn[i] >= 0 && r.mask[i] < 0;
        } else if (r.id[i] >= 0) {
            ++c.hits;
            c.idSum += r.id[i];
        }
    }
    return c;
}

// Pixel (column, row) of the image is ray (tile, k) in tile order.
void eyeRays(const kelb::Camera& cam, RayBlock* r) {
    const int tilesPerRow = cam.width / kTileSide;
    for (int tile = 0; tile < r->tiles; ++tile)
        for (int k = 0; k < kTileRays; ++k) {
            const int column = (tile % tilesPerRow) * kTileSide + k % kTileSide;
            const int row = (tile / tilesPerRow) * kTileSide + k / kTileSide;
            const size_t i = size_t(tile) * kTileRays + k;
            for (int a = 0; a < 3; ++a)
                r->dir[a][i] =
                    cam.corner[a] + float(column) * cam.columnStep[a] + float(row) * cam.rowStep[a];
            r->limit[i] = kNoLimit;
        }
}

// Shadow and mirror rays for every eye-ray hit, in the order of the eye rays.
void secondaryRays(const Scene& s, RayBlock& eye, RayBlock* shadow, RayBlock* mirror) {
    const kelt::Mesh& m = s.workload.mesh;
    const float* e = s.workload.camera.eye;
    int n = 0;
    for (size_t i = 0; i < eye.size; ++i) {
        const int t = eye.id[i];
        if (t < 0) continue;
        double d[3], p[3], corner[3][3];
        for (int a = 0; a < 3; ++a) {
            d[a] = eye.dir[a][i];
            p[a] = e[a] + 0.999 * eye.distance[i] * d[a];
            for (int c = 0; c < 3; ++c) corner[c][a] = m.vertices[3 * m.triangles[4 * t + c] + a];
        }
        double ab[3], ac[3];
        for (int a = 0; a < 3; ++a) {
            ab[a] = corner[1][a] - corner[0][a];
            ac[a] = corner[2][a] - corner[0][a];
        }
        const double nrm[3] = {ab[1] * ac[2] - ab[2] * ac[1], ab[2] * ac[0] - ab[0] * ac[2],
                               ab[0] * ac[1] - ab[1] * ac[0]};
        const double dn = d[0] * nrm[0] + d[1] * nrm[1] + d[2] * nrm[2];
        const double nn = nrm[0] * nrm[0] + nrm[1] * nrm[1] + nrm[2] * nrm[2];
        for (int a = 0; a < 3; ++a) {
            shadow->dir[a][n] = float(float(p[a]) - double(s.workload.light[a]));
            mirror->origin[a][n] = float(p[a]);
            mirror->dir[a][n] = float(d[a] - 2.0 * (dn / nn) * nrm[a]);
        }
        shadow->maskIn[n] = 0;
        mirror->limit[n] = kNoLimit;
        ++n;
    }
}

struct Figures {
    double rate[2][2];  // [path][one thread, all threads]
    Checksum sum[2];    // [path]
};

Figures measure(const Scene& s, Kind kind, RayBlock& r, int threads) {
    Figures f;
    for (Path path : {Path::Scalar, Path::Dispatch}) {
        const int p = path == Path::Scalar ? 0 : 1;
        f.rate[p][0] = mraysPerSecond(s, kind, path, r, 1);
        f.rate[p][1] = mraysPerSecond(s, kind, path, r, threads);
        f.sum[p] = checksum(kind, r);
    }
    return f;
}

void printFigures(const char* kind, int count, const Figures& f, bool shadow) {
    std::printf("  %-7s %8d   %8.2f %8.2f   %8.2f %8.2f", kind, count, f.rate[0][0], f.rate[0][1],
                f.rate[1][0], f.rate[1][1]);
    for (const Checksum& c : f.sum) {
        if (shadow)
            std::printf("   %lld occluded", (long long)c.hits);
        else
            std::printf("   %lld / %lld", (long long)c.hits, (long long)c.idSum);
    }
    std::printf("\n");
}

// Other tracers' eye-ray checksums on the same rays (hits, id sum).
void printReference(const std::string& name, const Checksum& scalar) {
    struct Reference {
        const char* name;
        int64_t hits, idSum;
    };
    static const Reference refs[] = {{"bunny", 81774, 1435068801LL},
                                     {"bunny-room", 1048576, 68583763461LL},
                                     {"teapot", 56458, 129618950LL}};
    for (const Reference& ref : refs)
        if (name == ref.name)
            std::printf(
                "  reference eye checksum %lld / %lld: scalar differs by %lld hits, "
                "%lld in the id sum\n",
                (long long)ref.hits, (long long)ref.idSum, (long long)(scalar.hits - ref.hits),
                (long long)(scalar.idSum - ref.idSum));
}

// Which of the room's triangles (the last 12) the eye rays hit, and how often.
void printRoomHits(const Scene& s, RayBlock& eye) {
    const int first = s.workload.mesh.triangleCount() - 12;
    int64_t hits[12] = {};
    for (size_t i = 0; i < eye.size; ++i)
        if (eye.id[i] >= first) ++hits[eye.id[i] - first];
    std::printf("  room triangle hits:");
    for (int64_t h : hits) std::printf(" %lld", (long long)h);
    std::printf("\n");
}

void benchScene(const std::string& name, int threads) {
    Scene s;
    if (!kelb::makeScene(name, &s.workload)) {
        std::printf("%s: skipped, the shared meshes are not available\n", name.c_str());
        return;
    }
    const kelt::Mesh& m = s.workload.mesh;
    std::printf("%s: %d triangles\n", name.c_str(), m.triangleCount());
    s.accel.resize(size_t(m.triangleCount()));
    kelrTriangleAccelInit(s.accel.data(), m.vertices.data(), m.triangles.data(), m.triangleCount());
    kelrSetBoundBox_32f(m.vertices.data(), m.vertexCount(), s.box);
    buildTree(&s);

    const int side = s.workload.camera.width;
    RayBlock eye(side * side);
    eyeRays(s.workload.camera, &eye);
    std::printf("  %-7s %8s   %-17s   %-17s   checksums scalar, dispatch\n", "Mrays/s", "rays",
                "scalar 1T / all", "dispatch 1T / all");
    const Figures eyeFigures = measure(s, Kind::Eye, eye, threads);
    // Secondary rays come from the scalar eye hits, so both paths trace the
    // same rays.
    traceAll(s, Kind::Eye, Path::Scalar, eye, threads);
    const int hits = int(checksum(Kind::Eye, eye).hits);
    RayBlock shadow(hits), mirror(hits);
    secondaryRays(s, eye, &shadow, &mirror);
    printFigures("eye", eye.count, eyeFigures, false);
    printFigures("shadow", hits, measure(s, Kind::Shadow, shadow, threads), true);
    printFigures("mirror", hits, measure(s, Kind::Mirror, mirror, threads), false);
    printReference(name, eyeFigures.sum[0]);
    if (name == "bunny-room") printRoomHits(s, eye);
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> names(argv + 1, argv + argc);
    if (names.empty()) names = kelb::sceneNames();
    const int threads = omp_get_max_threads();
    std::printf(
        "ray-scene queries, 16 x 16 tiles; Mrays/s, median of %d runs after a warm-up; "
        "all cores = %d threads\n",
        kTimedRuns, threads);
    for (const std::string& name : names) {
        benchScene(name, threads);
        std::fflush(stdout);
    }
    return 0;
}
