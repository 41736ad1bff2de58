// Throughput of the ray-scene queries on the standard workload: eye rays,
// shadow rays from the light to the eye-ray hits, and mirror rays from those
// hits. Rays are traced in 16 x 16 tiles with 16-byte-aligned planes, once
// through the scalar workers and once through the entry points (which pick
// the packet path for such tiles), on one thread and on all cores. When the
// benchmarks found Embree 3, its single-ray queries trace the same rays in
// the same run, on its SSE2 device and on its native one, and the table
// gives our packets' speed relative to each.
//
// Usage: intersect [scene ...]   (default: every workload scene)
#include <omp.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "embree_scene.h"
#include "intersect/printersect.h"
#include "kelr.h"
#include "trees.h"
#include "workload.h"

namespace {

constexpr int kTileSide = 16;
constexpr int kTileRays = kTileSide * kTileSide;
constexpr float kNoLimit = 3.4028235e38f;
// Tracers 0 and 1 are always the library's scalar workers and its packets.
constexpr size_t kScalar = 0, kPackets = 1;

double seconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
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
    const KDTreeNode* tree = nullptr;
    IntersectContext context() const { return {box, accel.data(), tree}; }
    ~Scene() { kelrKDTreeFree(built); }
};

// The scene's PSAH tree, built five times for its median build time; false
// when the build fails.
bool buildTree(Scene* s) {
    const kelt::Mesh& m = s->workload.mesh;
    const KDTreeBuildContext ctx{KDT_BUILD_PSAH, 50, 0.5f,
                                 kelt::psahBudgetMiB(m.vertexCount(), m.triangleCount()), nullptr};
    std::vector<double> times;
    KelStatus status = KEL_STS_OK;
    while (times.size() < 5) {
        KDTreeNode* tree = nullptr;
        int size = 0;
        const double t0 = seconds();
        status = kelrKDTreeBuildAlloc(&tree, m.vertices.data(), m.triangles.data(), m.vertexCount(),
                                      m.triangleCount(), &size, &ctx);
        const double t1 = seconds();
        if (status != KEL_STS_OK) break;
        times.push_back(t1 - t0);
        kelrKDTreeFree(s->built);
        s->built = tree;
    }
    if (status != KEL_STS_OK) {
        std::printf("  skipped: the PSAH build failed with status %d\n", int(status));
        return false;
    }
    s->tree = s->built;
    std::printf("  tree: PSAH (depth 50, weight 0.5, %u MiB), build %.1f ms (median of 5)\n",
                ctx.memoryMiB, 1e3 * kelb::median(times));
    return true;
}

enum class Kind { Eye, Shadow, Mirror };

// Traces one tile of a block with one query; false when the call failed.
using TileTracer = std::function<bool(const Scene&, Kind, RayBlock&, int tile)>;

// Rays of tile `tile` as the library's queries take them.
struct TileRays {
    TileRays(RayBlock& r, int tile)
        : at(size_t(tile) * kTileRays),
          dir{r.dir[0].get(at), r.dir[1].get(at), r.dir[2].get(at)},
          origin{r.origin[0].get(at), r.origin[1].get(at), r.origin[2].get(at)},
          hit{r.u.get(at), r.v.get(at)} {}
    size_t at;
    const float* dir[3];
    const float* origin[3];
    float* hit[2];
};

// Rays that come back into a block on every run start from the entry values.
void resetTile(Kind kind, RayBlock& r, size_t at) {
    if (kind == Kind::Shadow)
        std::copy(r.maskIn.get(at), r.maskIn.get(at + kTileRays), r.mask.get(at));
    else
        std::copy(r.limit.get(at), r.limit.get(at + kTileRays), r.distance.get(at));
}

// The scalar workers.
bool scalarTile(const Scene& s, Kind kind, RayBlock& r, int tile) {
    TileRays t(r, tile);
    resetTile(kind, r, t.at);
    const float* eye = s.workload.camera.eye;
    switch (kind) {
        case Kind::Eye:
            return ownIntersectEyeBlock(eye, t.dir, s.box, s.accel.data(), s.tree,
                                        r.distance.get(t.at), t.hit, r.id.get(t.at), kTileSide,
                                        kTileSide) == KEL_STS_OK;
        case Kind::Shadow:
            return ownIntersectAnyBlock(s.workload.light, t.dir, s.accel.data(), s.tree,
                                        r.id.get(t.at), r.mask.get(t.at), kTileSide,
                                        kTileSide) == KEL_STS_OK;
        case Kind::Mirror:
            return ownIntersectBlock(t.origin, t.dir, s.box, s.accel.data(), s.tree,
                                     r.distance.get(t.at), t.hit, r.id.get(t.at), kTileSide,
                                     kTileSide) == KEL_STS_OK;
    }
    return false;
}

// The entry points, which take the packet path for these tiles.
bool packetTile(const Scene& s, Kind kind, RayBlock& r, int tile) {
    TileRays t(r, tile);
    resetTile(kind, r, t.at);
    const IntersectContext ctx = s.context();
    switch (kind) {
        case Kind::Eye:
            return kelrIntersectEyeSO_32f(s.workload.camera.eye, t.dir, r.distance.get(t.at), t.hit,
                                          r.id.get(t.at), &ctx, kTileSide, kTileSide) == KEL_STS_OK;
        case Kind::Shadow:
            return kelrIntersectAnySO_32f(s.workload.light, t.dir, r.id.get(t.at), r.mask.get(t.at),
                                          kTileSide, kTileSide, &ctx) == KEL_STS_OK;
        case Kind::Mirror:
            return kelrIntersectMO_32f(t.origin, t.dir, r.distance.get(t.at), t.hit, r.id.get(t.at),
                                       &ctx, kTileSide, kTileSide) == KEL_STS_OK;
    }
    return false;
}

#ifdef KELB_HAVE_EMBREE
// Embree's single-ray queries on the same rays: eye and mirror rays find the
// nearest hit from t = 0 up to the ray's entry distance; shadow rays are the
// same segments, t in [0, 1) (just below 1, as close as a float gets to the
// open end), and an occluded one gets mask -1 as in ours.
TileTracer embreeTracer(RTCScene scene) {
    return [scene](const Scene& s, Kind kind, RayBlock& r, int tile) {
        const size_t at = size_t(tile) * kTileRays;
        resetTile(kind, r, at);
        RTCIntersectContext context;
        rtcInitIntersectContext(&context);
        const float* shared = kind == Kind::Shadow ? s.workload.light : s.workload.camera.eye;
        for (size_t i = at; i < at + kTileRays; ++i) {
            if (kind == Kind::Shadow && r.maskIn[i] < 0) continue;
            RTCRayHit q;
            const float o[3] = {kind == Kind::Mirror ? r.origin[0][i] : shared[0],
                                kind == Kind::Mirror ? r.origin[1][i] : shared[1],
                                kind == Kind::Mirror ? r.origin[2][i] : shared[2]};
            q.ray.org_x = o[0], q.ray.org_y = o[1], q.ray.org_z = o[2];
            q.ray.dir_x = r.dir[0][i], q.ray.dir_y = r.dir[1][i], q.ray.dir_z = r.dir[2][i];
            q.ray.tnear = 0.0f;
            q.ray.tfar = kind == Kind::Shadow ? std::nextafter(1.0f, 0.0f) : r.limit[i];
            q.ray.time = 0.0f;
            q.ray.mask = ~0u;
            q.ray.id = 0;
            q.ray.flags = 0;
            if (kind == Kind::Shadow) {
                rtcOccluded1(scene, &context, &q.ray);
                if (q.ray.tfar < 0.0f) r.mask[i] = -1;
                continue;
            }
            q.hit.geomID = RTC_INVALID_GEOMETRY_ID;
            rtcIntersect1(scene, &context, &q);
            const bool hit = q.hit.geomID != RTC_INVALID_GEOMETRY_ID;
            r.id[i] = hit ? int(q.hit.primID) : -1;
            if (hit) r.distance[i] = q.ray.tfar;
        }
        return true;
    };
}
#endif

struct Tracer {
    std::string name;
    TileTracer trace;
};

// Seconds for tracing the whole block, tiles spread over the threads.
double traceAll(const Scene& s, Kind kind, const Tracer& tracer, RayBlock& r, int threads) {
    int failures = 0;
    const double t0 = seconds();
#pragma omp parallel for schedule(dynamic, 4) num_threads(threads) reduction(+ : failures)
    for (int tile = 0; tile < r.tiles; ++tile) failures += !tracer.trace(s, kind, r, tile);
    const double elapsed = seconds() - t0;
    if (failures)
        std::printf("  warning: %s: %d tiles ended with an error status\n", tracer.name.c_str(),
                    failures);
    return elapsed;
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

// A round of shadow rays lasts under 20 ms on two threads, where a stray
// delay moves a median of five rounds by several per cent.
constexpr int kRounds = 15;

// What one thread count gives on one ray kind, per tracer: the rate and the
// packets' speed relative to it.
struct Figures {
    std::vector<double> rate;     // Mrays/s, median of the rounds
    std::vector<double> packets;  // packets' rate / this tracer's, median of the rounds' ratios
};

// Every tracer on one thread count, timed in rounds that run the tracers in
// turn, so that the machine's changing load moves all of them alike and the
// ratios are taken within a round. After a warm-up round; `sums` gets each
// tracer's checksum.
Figures measure(const Scene& s, Kind kind, const std::vector<Tracer>& tracers, RayBlock& r,
                int threads, std::vector<Checksum>* sums) {
    const size_t n = tracers.size();
    std::vector<std::vector<double>> times(n);
    for (int round = -1; round < kRounds; ++round) {
        for (size_t t = 0; t < n; ++t) {
            const double elapsed = traceAll(s, kind, tracers[t], r, threads);
            if (round >= 0) times[t].push_back(elapsed);
            if (round == kRounds - 1 && sums) (*sums)[t] = checksum(kind, r);
        }
    }
    Figures f;
    for (size_t t = 0; t < n; ++t) {
        f.rate.push_back(r.count / kelb::median(times[t]) / 1e6);
        std::vector<double> ratio;
        for (int round = 0; round < kRounds; ++round)
            ratio.push_back(times[t][round] / times[kPackets][round]);
        f.packets.push_back(kelb::median(ratio));
    }
    return f;
}

void printRow(const char* label, const std::vector<double>& values) {
    std::printf("    %-26s", label);
    for (double v : values) std::printf(" %14.2f", v);
    std::printf("\n");
}

void printChecksums(Kind kind, const std::vector<Tracer>& tracers,
                    const std::vector<Checksum>& sums) {
    std::printf("    %-26s", kind == Kind::Shadow ? "occluded rays" : "hits / id sum");
    for (size_t t = 0; t < tracers.size(); ++t) {
        const Checksum& c = sums[t];
        if (kind == Kind::Shadow)
            std::printf(" %s %lld", tracers[t].name.c_str(), (long long)c.hits);
        else
            std::printf(" %s %lld / %lld", tracers[t].name.c_str(), (long long)c.hits,
                        (long long)c.idSum);
        std::printf(t + 1 < tracers.size() ? "," : "\n");
    }
}

// One ray kind on one thread and on all: rates, the packets' speed relative
// to each tracer, the gain from the other threads, and the checksums.
Checksum benchKind(const Scene& s, const char* name, Kind kind, const std::vector<Tracer>& tracers,
                   RayBlock& r, int threads) {
    char title[64];
    std::snprintf(title, sizeof title, "%s, %d rays", name, r.count);
    std::printf("  %-28s", title);
    for (const Tracer& t : tracers) std::printf(" %14s", t.name.c_str());
    std::printf("\n");
    std::vector<Checksum> sums(tracers.size());
    const Figures one = measure(s, kind, tracers, r, 1, &sums);
    const Figures all = measure(s, kind, tracers, r, threads, nullptr);
    char label[64];
    printRow("Mrays/s, 1 thread", one.rate);
    std::snprintf(label, sizeof label, "Mrays/s, %d threads", threads);
    printRow(label, all.rate);
    printRow("packets / this, 1 thread", one.packets);
    std::snprintf(label, sizeof label, "packets / this, %d threads", threads);
    printRow(label, all.packets);
    std::vector<double> gain;
    for (size_t t = 0; t < tracers.size(); ++t) gain.push_back(all.rate[t] / one.rate[t]);
    std::snprintf(label, sizeof label, "%d threads / 1 thread", threads);
    printRow(label, gain);
    printChecksums(kind, tracers, sums);
    return sums[kScalar];
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
    if (!buildTree(&s)) return;

    std::vector<Tracer> tracers = {{"scalar", scalarTile}, {"packets", packetTile}};
#ifdef KELB_HAVE_EMBREE
    // Embree's builds use every processor; its queries run on the caller's
    // threads like ours.
    const kelb::EmbreeDevice sse2("sse2", 0), native(nullptr, 0);
    double t0 = seconds();
    const kelb::EmbreeScene sse2Scene(sse2, m);
    double t1 = seconds();
    const kelb::EmbreeScene nativeScene(native, m);
    std::printf("  Embree HIGH builds: sse2 device %.1f ms, native device %.1f ms\n",
                1e3 * (t1 - t0), 1e3 * (seconds() - t1));
    tracers.push_back({"Embree sse2", embreeTracer(sse2Scene.get())});
    tracers.push_back({"Embree native", embreeTracer(nativeScene.get())});
#endif

    const int side = s.workload.camera.width;
    RayBlock eye(side * side);
    eyeRays(s.workload.camera, &eye);
    const Checksum eyeSum = benchKind(s, "eye", Kind::Eye, tracers, eye, threads);
    // Secondary rays come from the scalar eye hits, so every tracer traces
    // the same rays.
    traceAll(s, Kind::Eye, tracers[kScalar], eye, threads);
    const int hits = int(checksum(Kind::Eye, eye).hits);
    RayBlock shadow(hits), mirror(hits);
    secondaryRays(s, eye, &shadow, &mirror);
    benchKind(s, "shadow", Kind::Shadow, tracers, shadow, threads);
    benchKind(s, "mirror", Kind::Mirror, tracers, mirror, threads);
    printReference(name, eyeSum);
    if (name == "bunny-room") printRoomHits(s, eye);
}

// The packet kernels the library runs, by its rule: AVX2 where the
// processor has it, unless KELRT7_ISA=sse2 forces the baseline.
const char* packetKernels() {
    const char* setting = std::getenv("KELRT7_ISA");
    if (setting && std::strcmp(setting, "sse2") == 0) return "SSE2 (KELRT7_ISA=sse2)";
    return __builtin_cpu_supports("avx2") ? "AVX2" : "SSE2";
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> names(argv + 1, argv + argc);
    if (names.empty()) names = kelb::sceneNames();
    const int threads = omp_get_max_threads();
    std::printf(
        "ray-scene queries, 16 x 16 tiles; Mrays/s, median of %d rounds after a warm-up, "
        "each round running every tracer in turn; all cores = %d threads; packet kernels: %s\n",
        kRounds, threads, packetKernels());
    for (const std::string& name : names) {
        benchScene(name, threads);
        std::fflush(stdout);
    }
    return 0;
}
