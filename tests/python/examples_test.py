"""The example renderer runs on a mesh of its user's and writes a PNG that
decodes to a shaded picture of the asked size."""

import struct
import subprocess
import sys
import zlib
from pathlib import Path

import numpy as np

RENDER = Path(__file__).resolve().parents[2] / "python" / "examples" / "render.py"
TETRAHEDRON = "v 0 0 0\nv 1 0 0\nv 0 1 0\nv 0 0 1\nf 1 3 2\nf 1 2 4\nf 1 4 3\nf 2 3 4\n"


def test_render_example(tmp_path):
    mesh, picture = tmp_path / "tetrahedron.obj", tmp_path / "picture.png"
    mesh.write_text(TETRAHEDRON)
    subprocess.run([sys.executable, str(RENDER), str(mesh), "--size", "48", "--out", str(picture)],
                   check=True, capture_output=True)
    png = picture.read_bytes()
    assert png[:8] == b"\x89PNG\r\n\x1a\n"
    assert struct.unpack(">IIBB", png[16:26]) == (48, 48, 8, 2)  # 8-bit RGB
    at = png.index(b"IDAT")
    (length,) = struct.unpack(">I", png[at - 4:at])
    rows = np.frombuffer(zlib.decompress(png[at + 4:at + 4 + length]), np.uint8).reshape(48, -1)
    assert not rows[:, 0].any()  # no row filters
    colours = np.unique(rows[:, 1:].reshape(-1, 3), axis=0)
    assert len(colours) > 10  # sky, and floor and mesh in light and shade
