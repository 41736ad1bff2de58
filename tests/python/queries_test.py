"""The module's queries on the bunny workload against the C library driven
through ctypes on the same rays in the same blocks (so the same code paths),
and its hit points and normals against NumPy geometry."""

import clib
import kelrt7
import numpy as np
import pytest
import workload

# The C library's eye-ray checksum of the bunny workload (hits, sum of the
# hit triangles' numbers) and its count of occluded shadow rays, as the
# intersect benchmark prints them for both code paths.
BUNNY_EYE_CHECKSUM = (81774, 1435063007)
BUNNY_OCCLUDED = 15559


def assert_same_hits(hits, c_hits, count):
    """Module hits equal the library's for the first count rays; the module
    reports a miss with t = inf, the library leaves the entry distance."""
    miss = c_hits["triangle"][:count] < 0
    expected = dict(c_hits, t=np.where(miss, np.inf, c_hits["t"][:count]))
    for key in ("t", "u", "v", "triangle"):
        np.testing.assert_array_equal(hits[key].ravel(), expected[key][:count], err_msg=key)


def checksum(ids):
    return np.count_nonzero(ids >= 0), int(ids[ids >= 0].sum(dtype=np.int64))


def test_scene_and_version(bunny):
    scene, c_scene = bunny["module"], bunny["c"]
    assert (scene.triangle_count, scene.vertex_count) == (69451, 35947)
    assert scene.box == tuple(c_scene.box.tolist()) and scene.tree_bytes == c_scene.tree_bytes
    # Clipped to the middle three fifths of the mesh's box, the tree has the
    # size that the PSAH build tests pin for it.
    lo, hi = bunny["vertices"].min(axis=0), bunny["vertices"].max(axis=0)
    margin = np.float32(0.2) * (hi - lo)
    clipped = kelrt7.Scene(bunny["vertices"], bunny["triangles"],
                           clip_box=np.stack([lo + margin, hi - margin]))
    assert clipped.tree_bytes == 367256
    assert kelrt7.version() == {"major": 5, "minor": 2, "name": "libkelrt7.so.5.2", "text": "5.2"}


@pytest.fixture(scope="module")
def image_hits(bunny):
    return bunny["module"].intersect_image(bunny["camera"]["eye"], bunny["directions"])


# Rows and columns: the whole image (four-ray path), and a crop of it whose
# sides are not multiples of 4 (scalar path) and whose rows are strided.
@pytest.mark.parametrize("height, width", [(1024, 1024), (1022, 1021)])
def test_images_of_eye_rays(bunny, image_hits, height, width):
    eye, directions = bunny["camera"]["eye"], bunny["directions"][:height, :width]
    hits = image_hits if height == 1024 else bunny["module"].intersect_image(eye, directions)
    assert hits["t"].shape == (height, width)
    if height == 1024:
        assert checksum(hits["triangle"]) == BUNNY_EYE_CHECKSUM
    assert_same_hits(hits, bunny["c"].intersect(eye, clib.Planes(directions), width, height),
                     height * width)


# A list of rays is one block 4 rays wide, padded to whole 4 x 4 tiles with
# copies of the last ray that may find nothing (limit 0).
@pytest.mark.parametrize("count", [1 << 20, 1000])
@pytest.mark.parametrize("one_origin", [True, False])
def test_lists_of_rays(bunny, count, one_origin):
    eye = bunny["camera"]["eye"]
    directions = bunny["directions"].reshape(-1, 3)[-count:]
    origins = eye if one_origin else np.broadcast_to(eye, directions.shape)
    hits = bunny["module"].intersect(origins, directions)
    padded = -(-count // 16) * 16

    def pad(rays):
        return clib.Planes(np.concatenate([rays, np.repeat(rays[-1:], padded - count, axis=0)]))

    limit = np.where(np.arange(padded) < count, clib.NO_LIMIT, np.float32(0))
    c_hits = bunny["c"].intersect(eye if one_origin else pad(origins), pad(directions), 4,
                                  padded // 4, limit)
    assert_same_hits(hits, c_hits, count)


def test_shadow_rays(bunny, image_hits):
    eye, light = bunny["camera"]["eye"], bunny["camera"]["light"]
    found = image_hits["triangle"] >= 0
    # The workload's shadow rays end just before the eye-ray hits (in double).
    t = image_hits["t"][found].astype(np.float64)[:, None]
    ends = (eye + 0.999 * t * bunny["directions"][found]).astype(np.float32)
    occluded = bunny["module"].occluded(light, ends)
    assert np.count_nonzero(occluded) == BUNNY_OCCLUDED
    count, padded = len(ends), -(-len(ends) // 16) * 16
    mask = np.where(np.arange(padded) < count, 0, -1)
    directions = np.concatenate([ends - light, np.zeros((padded - count, 3), np.float32)])
    c_mask = bunny["c"].occluded(light, clib.Planes(directions), 4, padded // 4, mask)
    np.testing.assert_array_equal(occluded, c_mask[:count] < 0)


def unit(vectors):
    return vectors / np.linalg.norm(vectors, axis=-1, keepdims=True)


def test_hit_points_and_normals(bunny, image_hits):
    scene, eye, directions = bunny["module"], bunny["camera"]["eye"], bunny["directions"]
    hits = image_hits
    found = hits["triangle"] >= 0
    t = hits["t"][..., None].astype(np.float64)
    points = scene.hit_points(eye, directions, hits, scale=0.999)
    np.testing.assert_allclose(points[found], (eye + 0.999 * t * directions)[found], atol=1e-6)
    assert not points[~found].any()
    per_ray = scene.hit_points(np.broadcast_to(eye, directions.shape), directions, hits, 0.999)
    np.testing.assert_array_equal(per_ray, points)

    # u and v weigh the triangle's first and second corner.
    corners = bunny["vertices"][bunny["triangles"][hits["triangle"][found]]].astype(np.float64)
    u, v = hits["u"][found, None], hits["v"][found, None]
    on_triangle = u * corners[:, 0] + v * corners[:, 1] + (1 - u - v) * corners[:, 2]
    np.testing.assert_allclose(on_triangle, (eye + t * directions)[found], atol=2e-6)

    flat = unit(np.cross(corners[:, 0] - corners[:, 2], corners[:, 1] - corners[:, 2]))
    np.testing.assert_allclose(scene.normals(hits)[found], flat, atol=1e-6)
    assert not scene.normals(hits)[~found].any()

    vertex_normals = workload.vertex_normals(bunny["vertices"], bunny["triangles"])
    at = vertex_normals[bunny["triangles"][hits["triangle"][found]]].astype(np.float64)
    smooth = unit(u * at[:, 0] + v * at[:, 1] + (1 - u - v) * at[:, 2])
    normals = scene.normals(hits, smooth=True, vertex_normals=vertex_normals)
    np.testing.assert_allclose(normals[found], smooth, atol=1e-5)
