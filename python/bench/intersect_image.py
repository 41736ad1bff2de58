"""Mrays/s of Scene.intersect_image beside the C library's four-ray path on
the same rays: the eye rays of a workload scene (default bunny-room), traced
as one 1024 x 1024 block both ways. The two are timed in turn in this one
process and the medians compared; the C figure is a single call through
ctypes on rays already in aligned planes, so the difference is what the
module adds (conversion, allocation, the pass over misses).

Usage: PYTHONPATH=build/x86_64/python /usr/bin/python3 python/bench/intersect_image.py [scene]
"""

import statistics
import sys
import threading
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "examples"))

import clib  # noqa: E402
import kelrt7  # noqa: E402
import numpy as np  # noqa: E402
import workload  # noqa: E402

RUNS = 7


def seconds(trace):
    start = time.perf_counter()
    trace()
    return time.perf_counter() - start


def in_threads(trace, parts, threads):
    """Runs trace(part) for each part, `threads` parts at a time."""
    workers = [threading.Thread(target=trace, args=(part,)) for part in parts[:threads]]
    for worker in workers:
        worker.start()
    for worker in workers:
        worker.join()


def main():
    name = sys.argv[1] if len(sys.argv) > 1 else "bunny-room"
    scene = workload.make_scene(name)
    if scene is None:
        print(f"{name}: skipped, the shared meshes are not available")
        return
    vertices, triangles, camera = scene["vertices"], scene["triangles"], scene["camera"]
    print(f"{name}: {len(triangles)} triangles; eye rays {camera['width']} x {camera['width']}, "
          f"median of {RUNS} runs after a warm-up")
    python_scene = kelrt7.Scene(vertices, triangles)
    c_scene = clib.Scene(vertices, triangles)
    eye, side = camera["eye"], camera["width"]
    directions = workload.eye_directions(camera)  # (H, W, 3), interleaved
    planes = clib.Planes(directions)  # aligned planes, as a C caller keeps them
    planar = np.moveaxis(planes.store.reshape(3, side, side), 0, -1)  # (H, W, 3) over the planes
    rows = np.array_split(np.arange(side), 2)
    candidates = {
        "C, four-ray path, one block": lambda: c_scene.intersect(eye, planes, side, side),
        "intersect_image, (H, W, 3) array": lambda: python_scene.intersect_image(eye, directions),
        "intersect_image, planes (no copy)":
            lambda: python_scene.intersect_image(eye, planar),
        "intersect_image, 2 threads of 512 rows": lambda: in_threads(
            lambda r: python_scene.intersect_image(eye, directions[r]), rows, 2),
    }
    times = {label: [] for label in candidates}
    for run in range(RUNS + 1):
        for label, trace in candidates.items():
            elapsed = seconds(trace)
            if run:
                times[label].append(elapsed)
    rays = side * side
    rates = {label: rays / statistics.median(t) / 1e6 for label, t in times.items()}
    reference = rates["C, four-ray path, one block"]
    for label, rate in rates.items():
        print(f"  {label:40s} {rate:7.2f} Mrays/s  {100 * rate / reference:5.1f} %")
    hits = python_scene.intersect_image(eye, directions)["triangle"]
    c_hits = c_scene.intersect(eye, planes, side, side)["triangle"]
    for label, ids in (("module", hits), ("C", c_hits)):
        print(f"  eye checksum, {label}: {np.count_nonzero(ids >= 0)} / "
              f"{int(ids[ids >= 0].sum(dtype=np.int64))}")


if __name__ == "__main__":
    main()
