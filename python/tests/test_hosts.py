"""The package against the command-line tool on one input, and the README's example."""

import os
import re
import subprocess
import sys

import numpy as np
import pytest

import qxiveilon31 as qx

Image = pytest.importorskip("PIL.Image", reason="Pillow (python3-pil) reads and writes PNG")
README = os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "README.md")


def test_the_cutout_equals_the_tools(qxmatte, tmp_path, square_scene):
    # The whole rectangle workflow (GrabCut, band, matting, recovery) with strokes, on an odd
    # size: the tool reads the same bytes from PNG files and must give the same RGBA.
    image, _, _ = square_scene
    image = np.ascontiguousarray(image[:, 3:])
    strokes = np.full(image.shape[:2], 128, np.uint8)
    strokes[18:38, 135:155] = 0
    Image.fromarray(image).save(tmp_path / "image.png")
    Image.fromarray(strokes).save(tmp_path / "strokes.png")
    qxmatte("cutout", tmp_path / "image.png", "--rect", "17,10,150,120", "--strokes",
            tmp_path / "strokes.png", "--band", 7, "-o", tmp_path / "cut.png")
    rgba = qx.cutout(image, rect=(17, 10, 150, 120), strokes=strokes, band=7)
    tool = np.asarray(Image.open(tmp_path / "cut.png"))
    assert np.array_equal(rgba, tool)
    assert (rgba[:, :, 3] == 0).any() and (rgba[:, :, 3] == 255).any()


def test_the_readme_example_runs_on_the_demo_scene(qxmatte, tmp_path):
    with open(README, encoding="utf-8") as f:
        example = re.search(r"```python\n(.*?)```", f.read(), re.S).group(1)
    qxmatte("demo", "-o", tmp_path, "--megapixels", "0.1")
    env = dict(os.environ, PYTHONPATH=os.pathsep.join(p for p in sys.path if p),
               QXIVEILON31_LIBRARY=qx.library_path())
    done = subprocess.run([sys.executable, "-c", example], cwd=tmp_path, env=env,
                          capture_output=True, text=True)
    assert done.returncode == 0, done.stderr
    cutout, truth, trimap = (np.asarray(Image.open(tmp_path / name)).astype(int)
                             for name in ("cutout.png", "truth.png", "trimap.png"))
    assert cutout.shape == truth.shape + (4,)
    # Against the demo's known alpha: far closer than the tri-map's own guess (undecided: 128).
    error = lambda alpha: np.abs(alpha - truth).mean()  # noqa: E731
    assert error(cutout[:, :, 3]) < 0.4 * error(trimap), (error(cutout[:, :, 3]), error(trimap))
