"""The README's example runs as printed, on the demo scene, and its cut-out carries the alpha
that the tool gives for the same files."""

import os
import re
import subprocess
import sys

import numpy as np
import pytest

import qxiveilon31 as qx
from imagefiles import read_png

README = os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "README.md")


def test_the_readme_example_runs_on_the_demo_scene(qxmatte, tmp_path):
    pytest.importorskip("PIL", reason="Pillow (python3-pil) reads the example's files")
    with open(README, encoding="utf-8") as f:
        example = re.search(r"```python\n(.*?)```", f.read(), re.S).group(1)
    qxmatte("demo", "-o", tmp_path, "--megapixels", "0.1")
    qxmatte("trimap", tmp_path / "image.png", tmp_path / "trimap.png",
            "-o", tmp_path / "tool_alpha.png")
    # The example's process imports the copy under test and loads the library this one loaded.
    env = dict(os.environ, PYTHONPATH=os.pathsep.join(p for p in sys.path if p),
               QXIVEILON31_LIBRARY=qx.library_path())
    done = subprocess.run([sys.executable, "-c", example], cwd=tmp_path, env=env,
                          capture_output=True, text=True)
    assert done.returncode == 0, done.stderr
    cutout = read_png(tmp_path / "cutout.png")
    assert cutout.ndim == 3 and cutout.shape[2] == 4
    assert np.array_equal(cutout[:, :, 3], read_png(tmp_path / "tool_alpha.png"))
