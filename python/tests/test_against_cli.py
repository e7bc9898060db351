"""The package's results are the command-line tool's, byte for byte, on the same input.

The inputs go to qxmatte as PPM/PGM files (it reads them with OpenCV, which turns the PPM's RGB
into BGR, the order the package hands the library too). The scene has an odd size, so that rows
have no round length.
"""

import numpy as np
import pytest

import qxiveilon31 as qx
from imagefiles import read_png, read_pnm, write_pnm
from scenes import scribbles


@pytest.fixture
def files(tmp_path, odd_disc):
    write_pnm(tmp_path / "image.ppm", odd_disc.image)
    write_pnm(tmp_path / "trimap.pgm", odd_disc.trimap)
    write_pnm(tmp_path / "strokes.pgm", odd_disc.strokes)
    write_pnm(tmp_path / "scribbles.pgm", scribbles(odd_disc))
    return tmp_path


def test_trimap_and_its_cutout(qxmatte, files, odd_disc):
    qxmatte("trimap", files / "image.ppm", files / "trimap.pgm", "-o", files / "alpha.pgm",
            "--cutout", files / "cutout.png")
    alpha = qx.matte_trimap(odd_disc.image, odd_disc.trimap)
    assert np.array_equal(alpha, read_pnm(files / "alpha.pgm"))
    assert np.array_equal(qx.cutout(odd_disc.image, trimap=odd_disc.trimap),
                          read_png(files / "cutout.png"))


def test_trimap_with_other_codes_and_levels(qxmatte, files, odd_disc):
    # Codes 200 and 50: the tri-map's 255 and 0 stay definite, 128 undecided; levels stretch.
    tri = odd_disc.trimap.copy()
    tri[tri == 255] = 220
    tri[tri == 0] = 30
    write_pnm(files / "coded.pgm", tri)
    qxmatte("trimap", files / "image.ppm", files / "coded.pgm", "-o", files / "alpha.pgm",
            "--fg-code", 200, "--bg-code", 50, "--levels", 240, 20)
    alpha = qx.matte_trimap(odd_disc.image, tri, fg_code=200, bg_code=50, levels=(240, 20))
    assert np.array_equal(alpha, read_pnm(files / "alpha.pgm"))


def test_keepcut_with_foreground_and_cutout(qxmatte, files, odd_disc):
    qxmatte("keepcut", files / "image.ppm", files / "strokes.pgm", "-o", files / "alpha.pgm",
            "--foreground", files / "fg.ppm", "--cutout", files / "cutout.png")
    alpha, fg = qx.matte_strokes(odd_disc.image, odd_disc.strokes, with_foreground=True)
    assert np.array_equal(alpha, read_pnm(files / "alpha.pgm"))
    assert np.array_equal(fg, read_pnm(files / "fg.ppm"))
    assert np.array_equal(qx.cutout(odd_disc.image, strokes=odd_disc.strokes),
                          read_png(files / "cutout.png"))


def test_keepcut_pyramid_from_scribbles(qxmatte, files, odd_disc):
    qxmatte("keepcut", files / "image.ppm", files / "scribbles.pgm", "--pyramid",
            "-o", files / "alpha.pgm")
    alpha = qx.matte_strokes(odd_disc.image, scribbles(odd_disc), pyramid=True)
    assert np.array_equal(alpha, read_pnm(files / "alpha.pgm"))


def test_foreground(qxmatte, files, odd_disc):
    truth = np.rint(odd_disc.alpha * 255).astype(np.uint8)
    write_pnm(files / "truth.pgm", truth)
    qxmatte("foreground", files / "image.ppm", files / "truth.pgm", "-o", files / "fg.ppm")
    assert np.array_equal(qx.foreground(odd_disc.image, truth), read_pnm(files / "fg.ppm"))


def test_grabcut_with_strokes_and_trimap(qxmatte, files, square_scene):
    image, subject, square = square_scene
    strokes = np.full(subject.shape, 128, np.uint8)
    strokes[18:38, 138:158] = 0  # cut the square
    strokes[68:72, 60:100] = 255  # keep through the subject
    write_pnm(files / "gc.ppm", image)
    write_pnm(files / "gcstrokes.pgm", strokes)
    qxmatte("grabcut", files / "gc.ppm", "--rect", "20,10,150,120", "--strokes",
            files / "gcstrokes.pgm", "-o", files / "sel.pgm", "--trimap", files / "tri.pgm",
            "--band", 7)
    selection, trimap = qx.grabcut(image, (20, 10, 150, 120), strokes, with_trimap=True, band=7)
    assert np.array_equal(selection, read_pnm(files / "sel.pgm"))
    assert np.array_equal(trimap, read_pnm(files / "tri.pgm"))


def test_grabcut_with_the_rectangle_on_the_border(qxmatte, files, square_scene):
    image = np.ascontiguousarray(square_scene[0][:, 45:])  # the subject cut by the border
    write_pnm(files / "gc.ppm", image)
    qxmatte("grabcut", files / "gc.ppm", "--rect", "0,10,120,120", "-o", files / "sel.pgm")
    assert np.array_equal(qx.grabcut(image, (0, 10, 120, 120)), read_pnm(files / "sel.pgm"))


def test_cutout_from_rect(qxmatte, files, odd_disc):
    qxmatte("cutout", files / "image.ppm", "--rect", "25,12,105,88", "-o", files / "cut.png",
            "--alpha", files / "alpha.pgm")
    rgba = qx.cutout(odd_disc.image, rect=(25, 12, 105, 88))
    assert np.array_equal(rgba[:, :, 3], read_pnm(files / "alpha.pgm"))
    assert np.array_equal(rgba, read_png(files / "cut.png"))
