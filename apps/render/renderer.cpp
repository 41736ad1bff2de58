#include "renderer.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include "tile_buffers.h"

namespace render {

namespace {

// The state the workers share: the next tile to take, the counters the
// progress display reads, and the first error any of them met.
struct SharedWork {
    int tilesAcross = 0;
    int tilesTotal = 0;
    std::atomic<int> nextTile{0};
    std::atomic<int> tilesDone{0};
    std::atomic<int64_t> eyeRays{0}, shadowRays{0}, reflectionRays{0};
    std::atomic<bool> failed{false};
    std::mutex errorLock;
    std::exception_ptr error;
    // Wakes the progress loop as soon as the work ends, so that the measured
    // time does not include the rest of its sleep.
    std::mutex wakeLock;
    std::condition_variable wake;

    bool finished() const { return tilesDone == tilesTotal || failed; }
    void wakeProgress() {
        std::lock_guard<std::mutex> hold(wakeLock);
        wake.notify_all();
    }

    RayCounts rays() const { return {eyeRays.load(), shadowRays.load(), reflectionRays.load()}; }
};

void work(const Scene& scene, const SceneAccel& accel, const Camera& camera,
          const RenderSettings& settings, Image* image, SharedWork* shared) {
    try {
        TileRenderer renderer(scene, accel, camera, settings.bounces, settings.normals);
        for (;;) {
            const int tile = shared->nextTile.fetch_add(1);
            if (tile >= shared->tilesTotal || shared->failed) break;
            RayCounts rays;
            renderer.render(tile % shared->tilesAcross, tile / shared->tilesAcross, image, &rays);
            shared->eyeRays += rays.eye;
            shared->shadowRays += rays.shadow;
            shared->reflectionRays += rays.reflection;
            if (++shared->tilesDone == shared->tilesTotal) shared->wakeProgress();
        }
    } catch (...) {
        {
            std::lock_guard<std::mutex> hold(shared->errorLock);
            if (!shared->error) shared->error = std::current_exception();
            shared->failed = true;
        }
        shared->wakeProgress();
    }
}

}  // namespace

RenderResult renderImage(const Scene& scene, const SceneAccel& accel, const CameraSetup& setup,
                         const RenderSettings& settings, const ProgressCallback& progress) {
    Camera camera;
    if (!Camera::make(setup, settings.width, settings.height, &camera))
        throw std::runtime_error(
            "the camera has no direction: the eye is on the target, or looks straight along 'up'");

    RenderResult result;
    result.image = Image(settings.width, settings.height);
    SharedWork shared;
    shared.tilesAcross = (settings.width + kTileSide - 1) / kTileSide;
    shared.tilesTotal = shared.tilesAcross * ((settings.height + kTileSide - 1) / kTileSide);
    const int processors = int(std::max(1u, std::thread::hardware_concurrency()));
    result.threads = std::clamp(settings.threads > 0 ? settings.threads : processors, 1,
                                std::max(1, shared.tilesTotal));

    const auto start = std::chrono::steady_clock::now();
    auto elapsed = [&] {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    };
    std::vector<std::thread> workers;
    for (int i = 0; i < result.threads; ++i)
        workers.emplace_back(work, std::cref(scene), std::cref(accel), std::cref(camera),
                             std::cref(settings), &result.image, &shared);
    auto report = [&] {
        if (progress)
            progress({shared.tilesDone.load(), shared.tilesTotal, elapsed(), shared.rays()});
    };
    {
        std::unique_lock<std::mutex> lock(shared.wakeLock);
        while (!shared.finished()) {
            report();
            shared.wake.wait_for(lock, std::chrono::milliseconds(100),
                                 [&] { return shared.finished(); });
        }
    }
    for (std::thread& worker : workers) worker.join();
    if (shared.error) std::rethrow_exception(shared.error);
    result.seconds = elapsed();
    result.rays = shared.rays();
    report();
    return result;
}

}  // namespace render
