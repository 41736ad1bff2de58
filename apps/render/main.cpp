// kelr-render: a Whitted-style ray tracer built on libkelrt7. It renders the
// built-in scene, or an OBJ mesh standing in it, to a PNG.
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <exception>
#include <future>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "camera.h"
#include "default_scene.h"
#include "image.h"
#include "obj_loader.h"
#include "options.h"
#include "progress.h"
#include "renderer.h"
#include "scene_accel.h"
#include "status.h"
#include "summary.h"

using namespace render;

namespace {

int fail(const std::string& message) {
    std::fprintf(stderr, "kelr-render: %s\n", message.c_str());
    return 1;
}

bool makeScene(const Options& options, Scene* scene, std::string* error) {
    if (options.meshPath.empty()) {
        *scene = makeDefaultScene();
    } else {
        Mesh mesh;
        if (!loadObjFile(options.meshPath, &mesh, error)) return false;
        *scene = makeSceneAroundMesh(mesh);
    }
    if (options.eye) scene->camera.eye = *options.eye;
    if (options.lookAt) scene->camera.lookAt = *options.lookAt;
    if (options.fov) scene->camera.verticalFovDegrees = *options.fov;
    return true;
}

// The simple tree tests every triangle for every ray; say so before the
// user waits for hours.
void warnIfSlow(const Options& options, const Scene& scene) {
    const double work =
        double(options.render.width) * options.render.height * scene.mesh.triangleCount();
    if (options.build.builder == TreeBuilder::kSimple && work > 5e9)
        std::fprintf(stderr,
                     "kelr-render: note: the simple tree tests all %d triangles for every ray; "
                     "this will be slow (try a smaller --size)\n",
                     scene.mesh.triangleCount());
}

// Builds the tree on a helper thread while this one keeps one line on stderr
// up to date: the build is most of the wall time. On a terminal the line
// counts the seconds; elsewhere it is written once, when the build ends.
std::unique_ptr<SceneAccel> buildWithClock(const Scene& scene, const Options& options) {
    const KelLibraryVersion* version = kelrGetLibVersion();
    const std::string line =
        std::string("kelr-render: ") + version->libraryName + " " + version->versionText + ", " +
        withThousands(scene.mesh.triangleCount()) + " triangles: building the " +
        (options.build.builder == TreeBuilder::kPsah ? "PSAH" : "simple") + " tree...";
    const bool ticking = !options.quiet && isatty(fileno(stderr));
    std::fprintf(stderr, "%s", line.c_str());
    std::fflush(stderr);
    const auto start = std::chrono::steady_clock::now();
    std::future<std::unique_ptr<SceneAccel>> build = std::async(std::launch::async, [&] {
        return std::make_unique<SceneAccel>(scene.mesh, options.build);
    });
    if (!ticking) build.wait();
    while (build.wait_for(std::chrono::milliseconds(100)) != std::future_status::ready) {
        const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
        std::fprintf(stderr, "\r%s %.1f s", line.c_str(), elapsed.count());
        std::fflush(stderr);
    }
    try {
        std::unique_ptr<SceneAccel> accel = build.get();
        if (ticking) std::fprintf(stderr, "\r%s", line.c_str());
        std::fprintf(stderr, " done in %.2f s\n", accel->buildSeconds());
        return accel;
    } catch (...) {
        std::fprintf(stderr, " failed\n");
        throw;
    }
}

int run(const Options& options) {
    Scene scene;
    std::string error;
    if (!makeScene(options, &scene, &error)) return fail(error);

    // Settle what can fail cheaply before the tree build and the render.
    Camera camera;
    if (!Camera::make(scene.camera, options.render.width, options.render.height, &camera))
        return fail(
            "the camera has no direction: the eye is on the target, or looks straight "
            "along 'up'");
    if (!outputWritable(options.out, &error)) return fail(error);

    const std::unique_ptr<SceneAccel> built = buildWithClock(scene, options);
    const SceneAccel& accel = *built;
    warnIfSlow(options, scene);

    ProgressBar bar(stderr);
    const RenderResult result = renderImage(
        scene, accel, scene.camera, options.render,
        options.quiet ? ProgressCallback() : [&](const RenderProgress& p) { bar.update(p); });
    if (!options.quiet) bar.finish();

    if (!writePng(result.image, options.out, &error)) return fail(error);
    std::printf("%s", summaryText(scene, accel, options, result).c_str());
    std::printf("Image    %s\n", options.out.c_str());
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    std::string error;
    if (!parseOptions(std::vector<std::string>(argv + 1, argv + argc), &options, &error)) {
        std::fprintf(stderr, "kelr-render: %s\n", error.c_str());
        return 2;
    }
    if (options.help) {
        std::printf("%s", usage().c_str());
        return 0;
    }
    if (options.version) {
        std::printf("%s", versionText().c_str());
        return 0;
    }
    try {
        return run(options);
    } catch (const std::bad_alloc&) {
        return fail("out of memory");
    } catch (const std::exception& e) {
        return fail(e.what());
    }
}
