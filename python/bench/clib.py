"""The C library driven directly through ctypes, as a C program drives it: the
reference that the module's results and speed are measured against."""

import ctypes as C

import kelrt7  # noqa: F401  loads the build tree's libkelrt7, which the name below finds
import numpy as np

lib = C.CDLL("libkelrt7.so.5.2")
KDT_BUILD_PSAH = 0x2D07705B
NO_LIMIT = np.float32(3.4028235e38)


class BuildContext(C.Structure):
    _fields_ = [("algorithm", C.c_uint32), ("maxDepth", C.c_int32), ("psahWeight", C.c_float),
                ("memoryMiB", C.c_uint32), ("clipBox", C.c_void_p)]


class IntersectContext(C.Structure):
    _fields_ = [("sceneBox", C.c_void_p), ("triangleAccel", C.c_void_p), ("tree", C.c_void_p)]


def _address(array):
    return C.c_void_p(array.ctypes.data)


def _aligned(count, dtype):
    """An array of count elements whose data is 16-byte aligned."""
    store = np.empty(count + 4, dtype=dtype)
    skip = (-store.ctypes.data % 16) // store.itemsize
    return store[skip:skip + count]


class Planes:
    """Vectors (N, 3) (or any shape (..., 3)) copied into three aligned
    float32 planes, as a C caller keeps its rays."""

    def __init__(self, vectors):
        vectors = np.asarray(vectors, dtype=np.float32).reshape(-1, 3)
        step = -(-len(vectors) // 4) * 4
        self.store = _aligned(3 * step, np.float32)
        for k in range(3):
            self.store[k * step:k * step + len(vectors)] = vectors[:, k]
        self.pointers = (C.c_void_p * 3)(*(self.store.ctypes.data + 4 * k * step for k in range(3)))


def _check(status, function):
    if status != 0:
        raise RuntimeError(f"{function} returned {status}")


class Scene:
    """Box, accelerator records and a PSAH tree (depth 50, weight 0.5)."""

    def __init__(self, vertices, triangles, memory_mib=512):
        self.vertices = np.ascontiguousarray(vertices, dtype=np.float32)
        self.triangles = np.zeros((len(triangles), 4), dtype=np.int32)
        self.triangles[:, :3] = triangles
        vertex_count, triangle_count = len(self.vertices), len(self.triangles)
        self.box = np.zeros(6, dtype=np.float32)
        _check(lib.kelrSetBoundBox_32f(_address(self.vertices), vertex_count, _address(self.box)),
               "kelrSetBoundBox_32f")
        size = C.c_int()
        _check(lib.kelrTriangleAccelGetSize(C.byref(size)), "kelrTriangleAccelGetSize")
        self.accel = np.zeros(size.value * triangle_count, dtype=np.uint8)
        lib.kelrTriangleAccelInit(_address(self.accel), _address(self.vertices),
                                  _address(self.triangles), triangle_count)
        build = BuildContext(KDT_BUILD_PSAH, 50, 0.5, memory_mib, None)
        self.tree, tree_bytes = C.c_void_p(), C.c_int()
        _check(lib.kelrKDTreeBuildAlloc(C.byref(self.tree), _address(self.vertices),
                                        _address(self.triangles), vertex_count, triangle_count,
                                        C.byref(tree_bytes), C.byref(build)),
               "kelrKDTreeBuildAlloc")
        self.tree_bytes = tree_bytes.value
        self.context = IntersectContext(self.box.ctypes.data, self.accel.ctypes.data, self.tree)

    def __del__(self):
        lib.kelrKDTreeFree(self.tree)

    def intersect(self, origin, directions, width, height, limit=NO_LIMIT):
        """Nearest hits of a width x height block of rays (Planes) from one
        origin (3,), or from one each when origin is Planes too; limit: the
        entry distance, one for all or one per ray. Returns the arrays t, u,
        v and triangle as the library leaves them."""
        count = width * height
        t = _aligned(count, np.float32)
        t[:] = limit
        u, v = _aligned(count, np.float32), _aligned(count, np.float32)
        u[:], v[:] = 0, 0
        triangle = _aligned(count, np.int32)
        hit = (C.c_void_p * 2)(u.ctypes.data, v.ctypes.data)
        context = C.byref(self.context)
        if isinstance(origin, Planes):
            status = lib.kelrIntersectMO_32f(origin.pointers, directions.pointers, _address(t), hit,
                                             _address(triangle), context, width, height)
        else:
            eye = np.asarray(origin, dtype=np.float32)
            status = lib.kelrIntersectEyeSO_32f(_address(eye), directions.pointers, _address(t),
                                                hit, _address(triangle), context, width, height)
        _check(status, "intersect")
        return {"t": t, "u": u, "v": v, "triangle": triangle}

    def occluded(self, light, directions, width, height, mask):
        """Shadow rays of a width x height block (Planes) from light (3,):
        the mask (active when >= 0, -1 once occluded) after the query."""
        out = _aligned(width * height, np.int32)
        out[:] = mask
        triangle = _aligned(width * height, np.int32)
        origin = np.asarray(light, dtype=np.float32)
        _check(lib.kelrIntersectAnySO_32f(_address(origin), directions.pointers, _address(triangle),
                                          _address(out), width, height, C.byref(self.context)),
               "occluded")
        return out
