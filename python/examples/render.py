"""Renders an OBJ mesh standing on a floor with kelrt7: eye rays, a shadow
ray from the light to every hit, Lambert shading. Needs only NumPy and the
standard library; the PNG is written with zlib.

Usage: PYTHONPATH=build/x86_64/python /usr/bin/python3 python/examples/render.py
           [MESH.obj] [--size N] [--out FILE.png]
Without a mesh it renders the shared Stanford bunny, when that is there."""

import argparse
import struct
import sys
import time
import zlib
from pathlib import Path

import kelrt7
import numpy as np
import workload

ALBEDO = {"mesh": np.array([0.85, 0.55, 0.35]), "floor": np.array([0.75, 0.75, 0.72])}
AMBIENT = 0.15
SKY = np.array([0.55, 0.70, 0.95])


def with_floor(vertices, triangles):
    """The mesh and, below it, a square floor of two triangles that reaches
    well beyond it, so that its shadow shows."""
    lo, hi = vertices.min(axis=0), vertices.max(axis=0)
    reach = 2.0 * np.linalg.norm(hi - lo)
    centre = (lo + hi) / 2
    y = lo[1] - 0.01 * (hi[1] - lo[1])
    floor = [[centre[0] + sx * reach, y, centre[2] + sz * reach]
             for sx, sz in ((-1, -1), (-1, 1), (1, 1), (1, -1))]
    n = len(vertices)
    return (np.concatenate([vertices, np.array(floor, dtype=np.float32)]),
            np.concatenate([triangles, [[n, n + 1, n + 2], [n, n + 2, n + 3]]]))


def shade(scene, camera, vertex_normals, mesh_triangles):
    """Linear RGB (W, W, 3) of the camera's image."""
    eye, light = camera["eye"], camera["light"]
    directions = workload.eye_directions(camera)
    hits = scene.intersect_image(eye, directions)
    found = hits["triangle"] >= 0
    # Hit points a little in front of the surface, so that their own
    # surface does not shadow them.
    points = scene.hit_points(eye, directions, hits, scale=0.999)
    normals = scene.normals(hits, smooth=True, vertex_normals=vertex_normals)
    # Surfaces are two-sided: turn each normal towards the viewer.
    facing = np.einsum("ijk,ijk->ij", normals, directions)
    normals = normals * np.where(facing > 0, -1.0, 1.0)[..., None]
    to_light = light - points
    cosine = np.einsum("ijk,ijk->ij", normals, to_light) / np.linalg.norm(to_light, axis=-1)
    lit = np.zeros(found.shape, dtype=bool)
    lit[found] = ~scene.occluded(light, points[found])
    diffuse = np.where(lit, np.clip(cosine, 0.0, 1.0), 0.0)
    on_mesh = hits["triangle"] < mesh_triangles
    albedo = np.where(on_mesh[..., None], ALBEDO["mesh"], ALBEDO["floor"])
    colour = albedo * (AMBIENT + (1.0 - AMBIENT) * diffuse)[..., None]
    return np.where(found[..., None], colour, SKY), int(found.sum())


def write_png(path, rgb):
    """An 8-bit RGB PNG of rgb (H, W, 3) uint8: each row behind a zero
    filter byte, deflated into one IDAT chunk."""
    height, width, _ = rgb.shape
    rows = np.concatenate([np.zeros((height, 1), np.uint8), rgb.reshape(height, -1)], axis=1)

    def chunk(kind, data):
        return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data))

    header = struct.pack(">IIBBBBB", width, height, 8, 2, 0, 0, 0)
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_bytes(b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", header) +
                     chunk(b"IDAT", zlib.compress(rows.tobytes(), 6)) + chunk(b"IEND", b""))


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("mesh", nargs="?", type=Path, help="a Wavefront OBJ file")
    parser.add_argument("--size", type=int, default=512, help="image width and height")
    parser.add_argument("--out", type=Path, default=Path("out/render.png"))
    args = parser.parse_args()
    mesh = args.mesh
    if mesh is None:
        shared = workload.shared_mesh_dir()
        if shared is None:
            sys.exit("render.py: give an OBJ mesh (the shared meshes are not there)")
        mesh = shared / "stanford-bunny.obj"

    start = time.perf_counter()
    vertices, triangles = workload.load_obj(mesh)
    box = np.concatenate([vertices.min(axis=0), vertices.max(axis=0)]).tolist()
    camera = workload.frame_box(box, args.size)
    all_vertices, all_triangles = with_floor(vertices, triangles)
    loaded = time.perf_counter()
    scene = kelrt7.Scene(all_vertices, all_triangles)
    built = time.perf_counter()
    vertex_normals = workload.vertex_normals(all_vertices, all_triangles)
    linear, hits = shade(scene, camera, vertex_normals, len(triangles))
    write_png(args.out, (255 * np.clip(linear, 0, 1) ** (1 / 2.2) + 0.5).astype(np.uint8))
    done = time.perf_counter()
    print(f"{mesh.name}: {len(triangles):,} triangles; load {loaded - start:.2f} s, "
          f"build {built - loaded:.2f} s, {args.size}x{args.size} with {hits:,} shadow rays "
          f"{done - built:.2f} s; wrote {args.out}")


if __name__ == "__main__":
    main()
