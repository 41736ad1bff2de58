"""The standard benchmark workload: the shared meshes, the bunny-room scene,
and the camera and light framed on a scene box. Everything is computed as the
C benchmark programs compute it (in double, rounded to float32 once), so both
trace the very same rays."""

import math
import os
from pathlib import Path

import numpy as np


def load_obj(path):
    """Vertices (V, 3) float32 and triangles (T, 3) int32 of a Wavefront OBJ
    file. Reads "v" and "f" lines (v, v/vt, v//vn or v/vt/vn; negative
    indices count back from the last vertex) and fans polygons out into
    triangles."""
    vertices, triangles = [], []
    with open(path) as lines:
        for line in lines:
            fields = line.split()
            if fields and fields[0] == "v":
                vertices.append(fields[1:4])
            elif fields and fields[0] == "f":
                corners = [int(corner.split("/")[0]) for corner in fields[1:]]
                corners = [c - 1 if c > 0 else len(vertices) + c for c in corners]
                triangles += [(corners[0], b, c) for b, c in zip(corners[1:], corners[2:])]
    return (np.array(vertices, dtype=np.float32).reshape(-1, 3),
            np.array(triangles, dtype=np.int32).reshape(-1, 3))


def vertex_normals(vertices, triangles):
    """Unit normals (V, 3) float32 at the vertices: the sum of the normals of
    the triangles around each, weighted by their areas."""
    corners = vertices[triangles].astype(np.float64)
    area_weighted = np.cross(corners[:, 1] - corners[:, 0], corners[:, 2] - corners[:, 0])
    normals = np.zeros((len(vertices), 3))
    for k in range(3):
        np.add.at(normals, triangles[:, k], area_weighted)
    length = np.linalg.norm(normals, axis=1, keepdims=True)
    return (normals / np.maximum(length, 1e-300)).astype(np.float32)  # lone vertices stay zero


def shared_mesh_dir():
    """The folder of shared meshes ($KEL_MESH_DIR, or ../shared/data/meshes
    beside the project), or None when there is none."""
    project = Path(__file__).resolve().parents[2]
    for folder in (os.environ.get("KEL_MESH_DIR"), project / ".." / "shared" / "data" / "meshes"):
        if folder and Path(folder).is_dir():
            return Path(folder)
    return None


def _normalise(a):
    s = 1.0 / math.sqrt(a[0] * a[0] + a[1] * a[1] + a[2] * a[2])
    return (s * a[0], s * a[1], s * a[2])


def _cross(a, b):
    return (a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0])


def frame_box(box, width=1024):
    """The camera and light of the workload for a box (min x, y, z, max x,
    y, z): a dict of float32 (3,) arrays eye, corner (direction of pixel
    (0, 0)), column_step, row_step and light, and the image width."""
    lo, hi = box[:3], box[3:]
    c = [0.5 * (lo[a] + hi[a]) for a in range(3)]
    e = [hi[a] - lo[a] for a in range(3)]
    d = math.sqrt(e[0] * e[0] + e[1] * e[1] + e[2] * e[2])
    back = _normalise((0.3, 0.4, 1.0))
    forward = [-1.0 * b for b in back]
    right = _normalise(_cross(forward, (0.0, 1.0, 0.0)))
    down = _cross(forward, right)
    t = math.tan(math.pi / 6.0)
    step = 2.0 * t / width
    first = -t + step / 2.0
    frame = {
        "eye": [c[a] + (1.6 * d) * back[a] for a in range(3)],
        "corner": [forward[a] + first * right[a] + first * down[a] for a in range(3)],
        "column_step": [step * r for r in right],
        "row_step": [step * w for w in down],
        "light": [c[a] + f * d for a, f in enumerate((0.5, 1.0, 0.3))],
    }
    camera = {name: np.array(value, dtype=np.float32) for name, value in frame.items()}
    camera["width"] = width
    return camera


def eye_directions(camera):
    """The eye-ray directions of the camera's image, (W, W, 3) float32:
    corner + column * column_step + row * row_step, in float32."""
    pixels = np.arange(camera["width"], dtype=np.float32)
    along_row = camera["corner"] + pixels[None, :, None] * camera["column_step"]
    return along_row + pixels[:, None, None] * camera["row_step"]


def _room(lo, hi):
    """A closed box of 12 triangles facing inwards, in the order (floor and
    ceiling, then the x and the z walls) that the id checksums depend on."""
    p = [(hi[0] if k & 1 else lo[0], hi[1] if k & 2 else lo[1], hi[2] if k & 4 else lo[2])
         for k in range(8)]
    quads = [(0, 4, 5, 1), (2, 3, 7, 6), (0, 2, 6, 4), (1, 5, 7, 3), (0, 1, 3, 2), (4, 6, 7, 5)]
    vertices = np.array([p[k] for quad in quads for k in quad], dtype=np.float32)
    triangles = [(4 * q + a, 4 * q + b, 4 * q + c) for q in range(6) for a, b, c in ((0, 1, 2), (0, 2, 3))]
    return vertices, np.array(triangles, dtype=np.int32)


def make_scene(name):
    """A workload scene, "bunny" or "bunny-room", with the camera of the
    bunny's box: a dict with vertices, triangles and camera; None when the
    shared meshes are absent."""
    folder = shared_mesh_dir()
    if folder is None:
        return None
    vertices, triangles = load_obj(folder / "stanford-bunny.obj")
    box = [float(x) for x in np.concatenate([vertices.min(axis=0), vertices.max(axis=0)])]
    if name == "bunny-room":
        lo, hi = box[:3], box[3:]
        c = [0.5 * (lo[a] + hi[a]) for a in range(3)]
        e = [hi[a] - lo[a] for a in range(3)]
        d = math.sqrt(e[0] * e[0] + e[1] * e[1] + e[2] * e[2])
        floor = lo[1] - 0.01 * e[1]
        room, walls = _room((c[0] - 2 * d, floor, c[2] - 2 * d), (c[0] + 2 * d, floor + 3 * d, c[2] + 2 * d))
        triangles = np.concatenate([triangles, walls + len(vertices)])
        vertices = np.concatenate([vertices, room])
    elif name != "bunny":
        raise ValueError(f"unknown scene {name!r}")
    return {"vertices": vertices, "triangles": triangles, "camera": frame_box(box)}
