"""Input handling: every layout and dtype gives the results of plain float32
arrays, bad shapes and dtypes raise with a clear message, failed library
calls raise kelrt7.Error, nothing leaks, and threads trace one scene at once."""

import ctypes
import sys
import threading

import kelrt7
import numpy as np
import pytest

# A tetrahedron, and rays from above towards its box: hits and misses. 48
# rays need no padding, so aligned planes are used as they are.
VERTICES = np.array([[0, 0, 0], [1, 0, 0], [0, 1, 0], [0, 0, 1]], np.float32)
TRIANGLES = np.array([[0, 2, 1], [0, 1, 3], [0, 3, 2], [1, 2, 3]], np.int32)
ORIGIN = np.array([0.2, 0.3, 2.0], np.float32)
DIRECTIONS = (np.random.default_rng(7).random((48, 3)) * 1.2 - 0.1 - ORIGIN).astype(np.float32)
SCENE = kelrt7.Scene(VERTICES, TRIANGLES)
HITS = SCENE.intersect(ORIGIN, DIRECTIONS)


def unaligned(array):
    """The same values 4 bytes past a 16-byte boundary."""
    store = np.empty(array.size + 8, array.dtype)
    skip = (-store.ctypes.data % 16) // store.itemsize + 1
    view = store[skip:skip + array.size].reshape(array.shape)
    view[...] = array
    return view


def integers(convert):
    """A layout for the triangles only."""
    return lambda a: convert(a) if a.dtype.kind == "i" else a


# Each row gives every input array (rays, points, vertices, triangles)
# another layout or dtype; the results must not change.
LAYOUTS = {
    "wider types": lambda a: a.astype(np.float64 if a.dtype.kind == "f" else np.int64),
    "uint16 triangles": integers(lambda a: a.astype(np.uint16)),
    "triangles of four words": integers(lambda a: np.c_[a, np.full(len(a), -77)]),
    "Fortran order": np.asfortranarray,
    "every other row": lambda a: np.repeat(a, 2, axis=0)[::2],
    "planes": lambda a: np.ascontiguousarray(a.T).T,
    "unaligned": unaligned,
    "lists": lambda a: a.tolist(),
}


@pytest.mark.parametrize("layout", LAYOUTS.values(), ids=LAYOUTS.keys())
def test_layouts_and_dtypes(layout):
    def same(a, b):
        for key in a:
            np.testing.assert_array_equal(a[key], b[key], err_msg=key)

    origins = np.tile(ORIGIN, (len(DIRECTIONS), 1))
    points = SCENE.hit_points(ORIGIN, DIRECTIONS, HITS, scale=0.999)
    same(SCENE.intersect(layout(ORIGIN), layout(DIRECTIONS)), HITS)
    same(SCENE.intersect(layout(origins), layout(DIRECTIONS)), SCENE.intersect(origins, DIRECTIONS))
    np.testing.assert_array_equal(SCENE.hit_points(ORIGIN, layout(DIRECTIONS), HITS, 0.999), points)
    np.testing.assert_array_equal(SCENE.occluded(layout(ORIGIN), layout(points)),
                                  SCENE.occluded(ORIGIN, points))
    same(kelrt7.Scene(layout(VERTICES), layout(TRIANGLES)).intersect(ORIGIN, DIRECTIONS), HITS)


def scene(vertices=VERTICES, triangles=TRIANGLES, **options):
    return lambda: kelrt7.Scene(vertices, triangles, **options)


def on_scene(method, *args):
    return lambda: getattr(SCENE, method)(*args)


# Each row: a call with bad input, the exception it raises and a piece of its message.
V, T, D = VERTICES, TRIANGLES, DIRECTIONS
BAD_INPUT = {
    "vertices of two coordinates": (scene(V[:, :2]), ValueError,
                                    r"vertices must have shape \(V, 3\), not \(4, 2\)"),
    "vertices as text": (scene(V.astype(str)), TypeError, "vertices must hold real numbers, not <"),
    "float triangles": (scene(V, T.astype(float)), TypeError, "must hold integers, not float64"),
    "triangles of two corners": (scene(V, T[:, :2]), ValueError, r"\(T, 3\) or \(T, 4\), not \(4"),
    "vertex past the last": (scene(V, T + 1), ValueError,
                             "triangle 1 names vertex 4, but there are 4 vertices"),
    "negative vertex": (scene(V, -T), ValueError, "names vertex -2"),
    "index beyond int32": (scene(V, T + 2**32), ValueError, "names vertex 4294967296"),
    "no triangles": (scene(V, T[:0]), ValueError, "has none"),
    "unknown builder": (scene(builder="fast"), ValueError, "'psah' or 'simple', not 'fast'"),
    "budget beyond 32 bits": (scene(memory_mib=4096), ValueError, "between 1 and 4095"),
    "depth out of range": (scene(max_depth=51), kelrt7.Error,
                           r"kelrKDTreeBuildAlloc failed: KEL_STS_OUT_OF_RANGE \(-11\)"),
    "budget too small": (scene(memory_mib=31), kelrt7.Error, "KEL_STS_NO_MEM .*raise memory_mib"),
    "clip box of four": (scene(clip_box=[0, 0, 1, 1]), ValueError, r"clip_box must have shape"),
    "rays of two coordinates": (on_scene("intersect", ORIGIN, D[:, :2]), ValueError,
                                r"directions must have shape \(N, 3\)"),
    "more origins than rays": (on_scene("intersect", np.tile(ORIGIN, (49, 1)), D), ValueError,
                               r"origins must have shape \(3,\) or \(48, 3\)"),
    "complex rays": (on_scene("intersect", ORIGIN, D.astype(complex)), TypeError,
                     "real numbers, not complex128"),
    "ragged rays": (on_scene("intersect", ORIGIN, [[1, 2, 3], [4, 5]]), TypeError,
                    "directions must be an array of numbers, not list"),
    "no rays at all": (on_scene("intersect", ORIGIN, None), TypeError, "not object"),
    "a list of rays as an image": (on_scene("intersect_image", ORIGIN, D), ValueError,
                                   r"\(H, W, 3\), not \(48, 3\)"),
    "light of two coordinates": (on_scene("occluded", ORIGIN[:2], D), ValueError,
                                 r"light must have shape \(3,\)"),
    "smooth without normals": (on_scene("normals", HITS, True), ValueError, "need vertex_normals"),
    "normals of other vertices": (on_scene("normals", HITS, True, np.ones((5, 3))), ValueError,
                                  r"vertex_normals must have shape \(4, 3\)"),
    "triangle past the last": (on_scene("normals", dict(HITS, triangle=HITS["triangle"] + 4)),
                               ValueError, "holds triangle 7, but the scene has 4"),
    "hits of other rays": (on_scene("hit_points", ORIGIN, D[:5], HITS), ValueError,
                           r"hits\['t'\] must have shape \(5,\), not \(48,\)"),
    "hits without t": (on_scene("hit_points", ORIGIN, D, {"triangle": HITS["triangle"]}), KeyError,
                       "t"),
}


@pytest.mark.parametrize("call, error, message", BAD_INPUT.values(), ids=BAD_INPUT.keys())
def test_bad_input(call, error, message):
    with pytest.raises(error, match=message) as raised:
        call()
    if error is kelrt7.Error:
        assert raised.value.function == "kelrKDTreeBuildAlloc" and raised.value.status < 0


class MallocInfo(ctypes.Structure):
    _fields_ = [(name, ctypes.c_size_t) for name in (
        "arena", "ordblks", "smblks", "hblks", "hblkhd", "usmblks", "fsmblks", "uordblks",
        "fordblks", "keepcost")]


def memory_in_use():
    """Bytes handed out by the C heap (glibc's count, exact to the byte) and
    Python's count of allocated blocks."""
    libc = ctypes.CDLL(None)
    libc.mallinfo2.restype = MallocInfo
    heap = libc.mallinfo2()
    return heap.uordblks + heap.hblkhd, sys.getallocatedblocks()


def test_nothing_leaks_across_scene_builds():
    def build_and_trace(i):
        scene = kelrt7.Scene(VERTICES, TRIANGLES, builder="psah" if i % 2 else "simple")
        hits = scene.intersect(ORIGIN, DIRECTIONS)
        scene.normals(hits, True, VERTICES)
        scene.occluded(ORIGIN, scene.hit_points(ORIGIN, DIRECTIONS, hits))
        for failing in (dict(memory_mib=31), dict(clip_box=[0, 1])):
            with pytest.raises((kelrt7.Error, ValueError)):
                kelrt7.Scene(VERTICES, TRIANGLES, **failing)

    for i in range(20):  # caches fill up
        build_and_trace(i)
    heap, blocks = memory_in_use()
    for i in range(1000):
        build_and_trace(i)
    heap_after, blocks_after = memory_in_use()
    assert heap_after - heap < 16 * 1024 and blocks_after - blocks < 100


def test_threads_trace_one_scene_at_once(bunny):
    # With forced switches off, the main thread runs again while the other
    # one traces only if the trace gave the GIL up.
    scene, eye, directions = bunny["module"], bunny["camera"]["eye"], bunny["directions"]
    halves = directions[:512], directions[512:]
    results, started = {}, threading.Event()

    def trace():
        started.set()
        results["thread"] = scene.intersect_image(eye, halves[0])

    interval = sys.getswitchinterval()
    sys.setswitchinterval(1000)
    try:
        thread = threading.Thread(target=trace)
        thread.start()
        started.wait()
        released = thread.is_alive()
        results["main"] = scene.intersect_image(eye, halves[1])
        thread.join()
    finally:
        sys.setswitchinterval(interval)
    assert released, "the GIL was held while tracing"
    for name, half in zip(("thread", "main"), halves):
        for key, value in scene.intersect_image(eye, half).items():
            np.testing.assert_array_equal(results[name][key], value, err_msg=key)
