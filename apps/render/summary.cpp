#include "summary.h"

#include <cstdio>

namespace render {

std::string withThousands(int64_t value) {
    std::string digits = std::to_string(value < 0 ? -value : value);
    for (int at = int(digits.size()) - 3; at > 0; at -= 3) digits.insert(size_t(at), ",");
    return value < 0 ? "-" + digits : digits;
}

namespace {

std::string format(const char* pattern, double a, double b = 0.0, double c = 0.0) {
    char text[128];
    std::snprintf(text, sizeof text, pattern, a, b, c);
    return text;
}

}  // namespace

std::string summaryText(const Scene& scene, const SceneAccel& accel, const Options& options,
                        const RenderResult& result) {
    const TreeStats& tree = accel.stats();
    const bool psah = options.build.builder == TreeBuilder::kPsah;
    const int filledLeaves = tree.leaves - tree.emptyLeaves;
    const RayCounts& rays = result.rays;
    std::string text;
    text += "Scene    " + withThousands(scene.mesh.triangleCount()) + " triangles, " +
            withThousands(scene.mesh.vertexCount()) + " vertices, " +
            std::to_string(scene.lights.size()) + " point lights\n";
    text +=
        "Tree     " +
        (psah ? "PSAH, budget " + std::to_string(accel.budgetMiB()) + " MiB"
              : std::string("simple (one leaf)")) +
        format(": built in %.2f s, %.1f MiB\n", accel.buildSeconds(), accel.treeSize() / 1048576.0);
    text += "         " + withThousands(tree.innerNodes) + " inner nodes, " +
            withThousands(tree.leaves) + " leaves (" + withThousands(tree.emptyLeaves) +
            " empty), depth " + std::to_string(tree.maxDepth) + "\n";
    text +=
        "         " +
        format("%.2f", filledLeaves > 0 ? double(tree.triangleReferences) / filledLeaves : 0.0) +
        " triangles per non-empty leaf (largest " + withThousands(tree.largestLeaf) + "), " +
        format("%.2f", double(tree.triangleReferences) / scene.mesh.triangleCount()) +
        " references per triangle\n";
    text += "Rays     " + withThousands(rays.eye) + " eye, " + withThousands(rays.shadow) +
            " shadow, " + withThousands(rays.reflection) +
            " reflection: " + withThousands(rays.total()) + " in all\n";
    text += "Render   " + std::to_string(result.image.width) + "x" +
            std::to_string(result.image.height) + ", " + std::to_string(options.render.bounces) +
            " bounces, " + std::to_string(result.threads) +
            (result.threads == 1 ? " thread: " : " threads: ") +
            format("%.2f s, %.2f Mrays/s\n", result.seconds,
                   result.seconds > 0.0 ? rays.total() / result.seconds * 1e-6 : 0.0);
    return text;
}

}  // namespace render
