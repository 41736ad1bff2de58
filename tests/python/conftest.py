import sys
from pathlib import Path

import pytest

python = Path(__file__).resolve().parents[2] / "python"
sys.path[:0] = [str(python / "examples"), str(python / "bench")]

import clib  # noqa: E402
import kelrt7  # noqa: E402
import workload  # noqa: E402


@pytest.fixture(scope="session")
def bunny():
    """The bunny of the benchmark workload, built by the module and by the C
    library through ctypes, with its eye rays (1024, 1024, 3)."""
    scene = workload.make_scene("bunny")
    if scene is None:
        pytest.skip("the shared meshes (../shared/data/meshes) are not available")
    scene["module"] = kelrt7.Scene(scene["vertices"], scene["triangles"])
    scene["c"] = clib.Scene(scene["vertices"], scene["triangles"])
    scene["directions"] = workload.eye_directions(scene["camera"])
    return scene
