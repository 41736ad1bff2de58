// PSAH build benchmark. Per scene: the build time at depth 50, weight 0.5
// (median of repeated builds) on one thread and on all threads, beside
// Embree 3's HIGH-quality build of the same mesh in the same run when Embree
// is installed, on its SSE2 and its native instruction set, with the ratios;
// and the peak of the memory the library holds during a build. With
// --shapes it also prints, for every pairing of maxDepth 20, 30, 50 with
// weights 0, 0.5, 1, the time, peak and the shape and surface-area cost of
// the tree.
//
//   build [--shapes] [scene...]    default: bunny teapot fandisk spot bunny-grid4
#include <omp.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "alloc_count.h"
#include "kelr.h"
#include "trees.h"
#include "workload.h"
#ifdef KELB_HAVE_EMBREE
#include "embree_scene.h"
#endif

namespace {

double secondsOf(const std::function<void()>& work) {
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

struct Figures {
    KelStatus status = KEL_STS_OK;
    std::string error;  // from the tree check
    double seconds = 0;
    double peakMiB = 0;
    kelt::TreeSummary summary;
};

// One PSAH build; the tree is checked when a summary is asked for.
Figures buildOnce(const kelt::Mesh& mesh, int maxDepth, float weight, bool summarise) {
    const KDTreeBuildContext context = {
        KDT_BUILD_PSAH, maxDepth, weight,
        kelt::psahBudgetMiB(mesh.vertexCount(), mesh.triangleCount()), nullptr};
    Figures f;
    kelt::AllocationCount count;
    KDTreeNode* tree = nullptr;
    int size = 0;
    f.seconds = secondsOf([&] {
        f.status = kelrKDTreeBuildAlloc(&tree, mesh.vertices.data(), mesh.triangles.data(),
                                        mesh.vertexCount(), mesh.triangleCount(), &size, &context);
    });
    f.peakMiB = double(count.peakBytes()) / (1 << 20);
    if (f.status == KEL_STS_OK && summarise) {
        float box[6];
        kelt::vertexBounds(mesh, box);
        f.error = kelt::checkTree(tree, size, mesh.triangleCount(), &f.summary, box);
    }
    kelrKDTreeFree(tree);
    return f;
}

Figures measure(const kelt::Mesh& mesh, int maxDepth, float weight, int repetitions) {
    Figures f = buildOnce(mesh, maxDepth, weight, true);
    std::vector<double> times = {f.seconds};
    for (int r = 1; r < repetitions && f.status == KEL_STS_OK; ++r)
        times.push_back(buildOnce(mesh, maxDepth, weight, false).seconds);
    f.seconds = kelb::median(times);
    return f;
}

// The library's build and each yardstick's, timed in turns so that a busy
// machine slows them alike.
struct Contender {
    std::string name;
    std::function<double()> build;  // seconds of one build
    std::vector<double> times;
};

void printComparison(const kelt::Mesh& mesh, int repetitions) {
    const int all = std::min(omp_get_max_threads(), omp_get_num_procs());
    std::vector<Contender> contenders;
    for (int threads : {1, all}) {
        contenders.push_back(
            {"PSAH, " + std::to_string(threads) + " thread(s)", [&mesh, threads, all] {
                 omp_set_num_threads(threads);
                 const Figures f = buildOnce(mesh, 50, 0.5f, false);
                 omp_set_num_threads(all);
                 return f.status == KEL_STS_OK ? f.seconds : -1.0;
             }});
        if (all == 1) break;
    }
#ifdef KELB_HAVE_EMBREE
    // Each device lives only for its own builds: Embree's thread count is a
    // setting of the whole process while a device exists.
    for (const char* isa : {"sse2", (const char*)nullptr}) {
        for (int threads : {1, all}) {
            contenders.push_back({std::string("Embree HIGH, ") + (isa ? isa : "native") + ", " +
                                      std::to_string(threads) + " thread(s)",
                                  [&mesh, isa, threads] {
                                      const kelb::EmbreeDevice device(isa, threads);
                                      return secondsOf(
                                          [&] { kelb::EmbreeScene scene(device, mesh); });
                                  }});
            if (all == 1) break;
        }
    }
#endif
    for (Contender& c : contenders) c.build();  // warm-up
    for (int r = 0; r < repetitions; ++r)
        for (Contender& c : contenders) c.times.push_back(c.build());
    const double psahOne = kelb::median(contenders[0].times);
    const double psahAll = kelb::median(contenders[all == 1 ? 0 : 1].times);
    std::printf("%-34s %9s %14s\n", "build (depth 50, weight 0.5)", "time s", "PSAH / this");
    for (const Contender& c : contenders) {
        const double t = kelb::median(c.times);
        const bool one = c.name.find(", 1 thread") != std::string::npos;
        if (t < 0) {
            std::printf("%-34s   failed\n", c.name.c_str());
            continue;
        }
        std::printf("%-34s %9.3f %14.2f\n", c.name.c_str(), t, (one ? psahOne : psahAll) / t);
    }
    if (all > 1) std::printf("PSAH speed-up from 1 to %d threads: %.2f\n", all, psahOne / psahAll);
}

void printShapes(const kelt::Mesh& mesh, int repetitions) {
    std::printf("%5s %6s %9s %9s %8s %8s %6s %8s %8s %9s\n", "depth", "weight", "time s",
                "peak MiB", "inner", "leaves", "max d", "avg d", "tri/leaf", "SAH cost");
    for (int maxDepth : {20, 30, 50}) {
        for (float weight : {0.0f, 0.5f, 1.0f}) {
            const Figures f = measure(mesh, maxDepth, weight, repetitions);
            if (f.status != KEL_STS_OK) {
                std::printf("%5d %6.1f   build failed with status %d\n", maxDepth, weight,
                            f.status);
                continue;
            }
            if (!f.error.empty())
                std::printf("%5d %6.1f   malformed tree: %s\n", maxDepth, weight, f.error.c_str());
            const kelt::TreeSummary& s = f.summary;
            std::printf("%5d %6.1f %9.3f %9.1f %8d %8zu %6d %8.2f %8.2f %9.2f\n", maxDepth, weight,
                        f.seconds, f.peakMiB, s.innerNodes, s.leaves.size(), s.maxDepth,
                        s.averageLeafDepth(), s.averageLeafCount(), s.sahCost);
            std::fflush(stdout);
        }
    }
}

void report(const kelb::Scene& scene, bool shapes) {
    const kelt::Mesh& mesh = scene.mesh;
    const int repetitions = mesh.triangleCount() > 500000 ? 3 : 7;
    std::printf("\n%s: %d triangles, %d vertices, medians of %d builds\n", scene.name.c_str(),
                mesh.triangleCount(), mesh.vertexCount(), repetitions);
    const Figures f = buildOnce(mesh, 50, 0.5f, true);
    if (f.status != KEL_STS_OK) {
        std::printf("PSAH build failed with status %d\n", f.status);
        return;
    }
    if (!f.error.empty()) std::printf("malformed tree: %s\n", f.error.c_str());
    std::printf("PSAH peak memory: %.1f MiB\n", f.peakMiB);
    printComparison(mesh, repetitions);
    if (shapes) printShapes(mesh, repetitions);
    std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> names;
    bool shapes = false;
    for (int i = 1; i < argc; ++i) {
        if (std::string(argv[i]) == "--shapes")
            shapes = true;
        else
            names.push_back(argv[i]);
    }
    if (names.empty()) names = {"bunny", "teapot", "fandisk", "spot", "bunny-grid4"};
    std::printf(
        "PSAH build; times: median wall-clock seconds, contenders timed in turns;\n"
        "peak: bytes held through the allocation hooks.%s\n",
        shapes ? " Shapes: depths of leaves; SAH cost\nwith traversal and triangle cost 1, "
                 "relative to the root box's surface area."
               : "");
    for (const std::string& name : names) {
        kelb::Scene scene;
        if (!kelb::makeScene(name, &scene)) {
            std::printf("\n%s: skipped, the shared meshes are absent\n", name.c_str());
            continue;
        }
        report(scene, shapes);
    }
    return 0;
}
