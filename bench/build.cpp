// PSAH build benchmark: for each mesh scene of the workload and the
// million-triangle bunny grid, and for every pairing of maxDepth 20, 30, 50
// with weights 0, 0.5, 1, prints the build time (median of repeated builds),
// the peak of the memory the library holds during a build, and the shape and
// surface-area cost of the tree.
//
//   build [scene...]    default: bunny teapot fandisk spot bunny-grid4
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "../tests/kdtree/alloc_count.h"
#include "../tests/kdtree/psah_support.h"
#include "../tests/kdtree/tree_check.h"
#include "kelr.h"
#include "workload.h"

namespace {

struct Figures {
    KelStatus status = KEL_STS_OK;
    std::string error;  // from the tree check
    double seconds = 0;
    double peakMiB = 0;
    kelt::TreeSummary summary;
};

Figures measure(const kelt::Mesh& mesh, int maxDepth, float weight, int repetitions) {
    const KDTreeBuildContext context = {
        KDT_BUILD_PSAH, maxDepth, weight,
        kelt::psahBudgetMiB(mesh.vertexCount(), mesh.triangleCount()), nullptr};
    float box[6];
    kelt::vertexBounds(mesh, box);
    Figures f;
    std::vector<double> times;
    for (int r = 0; r < repetitions; ++r) {
        kelt::AllocationCount count;
        KDTreeNode* tree = nullptr;
        int size = 0;
        const auto start = std::chrono::steady_clock::now();
        f.status = kelrKDTreeBuildAlloc(&tree, mesh.vertices.data(), mesh.triangles.data(),
                                        mesh.vertexCount(), mesh.triangleCount(), &size, &context);
        times.push_back(
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
        f.peakMiB = double(count.peakBytes()) / (1 << 20);
        if (f.status != KEL_STS_OK) return f;
        if (r == 0) f.error = kelt::checkTree(tree, size, mesh.triangleCount(), &f.summary, box);
        kelrKDTreeFree(tree);
    }
    std::sort(times.begin(), times.end());
    f.seconds = times[times.size() / 2];
    return f;
}

void report(const kelb::Scene& scene, int repetitions) {
    const kelt::Mesh& mesh = scene.mesh;
    std::printf("\n%s: %d triangles, %d vertices, median of %d build%s\n", scene.name.c_str(),
                mesh.triangleCount(), mesh.vertexCount(), repetitions,
                repetitions == 1 ? " (a single build: this scene is large)" : "s");
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

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> names(argv + 1, argv + argc);
    if (names.empty()) names = {"bunny", "teapot", "fandisk", "spot", "bunny-grid4"};
    std::printf(
        "PSAH build; time: median wall-clock seconds; peak: bytes held through the\n"
        "allocation hooks; depths of leaves; SAH cost with traversal and triangle\n"
        "cost 1, relative to the root box's surface area.\n");
    for (const std::string& name : names) {
        kelb::Scene scene;
        if (!kelb::makeScene(name, &scene)) {
            std::printf("\n%s: skipped, the shared meshes are absent\n", name.c_str());
            continue;
        }
        report(scene, scene.mesh.triangleCount() > 500000 ? 1 : 5);
    }
    return 0;
}
