"""Each function on synthetic scenes against their known alpha and foreground.

The soft disc is a composite I = a F + (1 - a) B whose F and B are linear colour gradients: in
every small window both lie on a line in colour space, which is the model closed-form matting
solves exactly, up to the 8-bit rounding of I and the solver's regularisation. So the alpha must
come out far better than any answer that knows only where the edge is: the bar is the error of
the hard cut at the true edge (alpha 1 inside the half-alpha circle, 0 outside), and a result
must stay under 40% of it. The undecided band holds 16 pixels across an edge ramp of 6, so the
hard cut's error is about 0.09 and constant 0.5 would be about 0.4.
"""

import numpy as np
import pytest

import qxiveilon31 as qx
from scenes import foreground_error, hard_cut_error, mean_error, scribbles


def _definite_error(alpha, trimap):
    """The largest distance in levels of a definite pixel from its code. The cleaning along
    colour edges may move a definite pixel beside the band by a level (255 -> 254: only pixels
    given as undecided are kept off 0 and 255); a wrong side would be 255 levels off."""
    a = alpha.astype(int)
    return max(np.abs(a[trimap == 255] - 255).max(), a[trimap == 0].max())


def test_matte_trimap_recovers_the_soft_edge(disc):
    alpha = qx.matte_trimap(disc.image, disc.trimap)
    band = disc.trimap == 128
    assert alpha.dtype == np.uint8 and alpha.shape == disc.trimap.shape
    assert _definite_error(alpha, disc.trimap) <= 2
    assert mean_error(alpha, disc.alpha, band) < 0.4 * hard_cut_error(disc, band)
    # Along any ray from the centre the true alpha falls monotonically: ring means must too.
    d = np.hypot(*np.mgrid[0:alpha.shape[0], 0:alpha.shape[1]][::-1]
                 - np.array(disc.center)[:, None, None])
    rings = [alpha[band & (np.abs(d - r) < 0.5)].mean() for r in range(27, 42)]
    assert all(a >= b - 2 for a, b in zip(rings, rings[1:])), rings


@pytest.mark.parametrize("pyramid", [False, True])
def test_matte_strokes_from_edge_band_strokes(disc, pyramid):
    alpha = qx.matte_strokes(disc.image, disc.strokes, pyramid=pyramid)
    band = disc.strokes == 128
    assert _definite_error(alpha, disc.strokes) <= 2
    assert mean_error(alpha, disc.alpha, band) < 0.4 * hard_cut_error(disc, band)


def test_matte_strokes_from_scribbles_finds_the_subject(disc):
    # A keep stroke through the middle and cut strokes on the border only: the solve has to
    # carry the strokes out to the edge. Inside the disc (true alpha 1, away from the strokes)
    # and well outside it (alpha 0) it must get the side right.
    alpha = qx.matte_strokes(disc.image, scribbles(disc))
    inner = disc.alpha == 1.0
    outer = disc.alpha == 0.0
    assert mean_error(alpha, disc.alpha, inner) < 0.1
    assert mean_error(alpha, disc.alpha, outer) < 0.1


def test_foreground_solve_removes_the_background_share(disc):
    truth8 = np.rint(disc.alpha * 255).astype(np.uint8)
    fg = qx.foreground(disc.image, truth8)
    assert fg.dtype == np.uint8 and fg.shape == disc.image.shape
    naive = foreground_error(disc.image, disc)  # F' = I: the background left in
    # F and B are smooth: the solve must take out most of B's share (under a quarter left).
    assert foreground_error(fg, disc) < naive / 4
    # Where the subject is opaque the colours are the image's.
    opaque = disc.alpha == 1.0
    assert np.array_equal(fg[opaque], disc.image[opaque])


def test_keep_cut_foreground_keeps_painted_pixels_and_improves(disc):
    alpha, fg = qx.matte_strokes(disc.image, disc.strokes, with_foreground=True)
    # At painted pixels the colours are the image's, up to the rounding of the window that lays
    # the recovered colours over them (one level).
    painted = disc.strokes != 128
    assert np.abs(fg[painted].astype(int) - disc.image[painted]).max() <= 1
    assert foreground_error(fg, disc) < foreground_error(disc.image, disc)


def test_cutout_from_a_rectangle(disc):
    rgba = qx.cutout(disc.image, rect=(30, 15, 100, 90))
    assert rgba.shape == disc.image.shape[:2] + (4,) and rgba.dtype == np.uint8
    alpha = rgba[:, :, 3]
    band = disc.trimap == 128
    assert mean_error(alpha, disc.alpha, band) < 0.4 * hard_cut_error(disc, band)
    # Away from the edge GrabCut's selection must be on the right side (a wrong side is 255
    # levels off; the matting on the selection's band may move a pixel by a level or two).
    assert _definite_error(alpha, disc.trimap) <= 2
    # The colours where the subject mostly shows are the subject's (8-bit: within a few levels
    # on average, against a background at least 60 levels away in some channel).
    shows = disc.alpha >= 0.5
    assert mean_error(rgba[:, :, :3], disc.fg, shows) < 4 / 255


def test_cutout_from_a_trimap_and_from_strokes(disc):
    by_trimap = qx.cutout(disc.image, trimap=disc.trimap)
    assert np.array_equal(by_trimap[:, :, 3], qx.matte_trimap(disc.image, disc.trimap))
    assert foreground_error(by_trimap[:, :, :3], disc) < foreground_error(disc.image, disc) / 4
    by_strokes = qx.cutout(disc.image, strokes=disc.strokes)
    alpha, fg = qx.matte_strokes(disc.image, disc.strokes, with_foreground=True)
    assert np.array_equal(by_strokes[:, :, 3], alpha)
    assert np.array_equal(by_strokes[:, :, :3], fg)


def test_grabcut_selects_the_subject(square_scene):
    image, subject, square = square_scene
    selection = qx.grabcut(image, (20, 10, 150, 120))
    assert set(np.unique(selection)) <= {0, 255}
    assert (selection[subject] == 255).mean() > 0.95
    assert np.all(selection[:10, :] == 0) and np.all(selection[:, 170:] == 0)  # outside rect


def test_grabcut_trimap_band_lies_on_the_edge(square_scene):
    image, subject, square = square_scene
    selection, trimap = qx.grabcut(image, (20, 10, 150, 120), with_trimap=True, band=8)
    # The band (8 wide: 4 on each side) follows the selection's edge.
    sel = selection == 255
    assert set(np.unique(trimap)) == {0, 128, 255}
    grown = _dilate(sel, 5)
    shrunk = ~_dilate(~sel, 5)
    assert np.all(trimap[~grown] == 0) and np.all(trimap[shrunk] == 255)
    assert np.all((trimap == 128) <= (grown & ~shrunk))


def _dilate(mask, r):
    """Square dilation by r pixels (for the band's bounds)."""
    out = mask.copy()
    h, w = mask.shape
    for dy in range(-r, r + 1):
        for dx in range(-r, r + 1):
            shifted = np.zeros_like(mask)
            shifted[max(0, dy):h + min(0, dy), max(0, dx):w + min(0, dx)] = \
                mask[max(0, -dy):h - max(0, dy), max(0, -dx):w - max(0, dx)]
            out |= shifted
    return out


def test_grabcut_takes_a_subject_cut_by_the_image_border(square_scene):
    # The disc cut by the left border, the rectangle reaching that border: the rectangle means
    # what it means to cv::grabCut (outside background, inside for the cut to decide), so the
    # subject is selected up to the border, its pixels in the first column included.
    image, subject, _ = square_scene
    image, subject = np.ascontiguousarray(image[:, 45:]), subject[:, 45:]
    selection = qx.grabcut(image, (0, 10, 120, 120))
    assert np.all(selection[:, 0][subject[:, 0]] == 255)
    assert (selection[subject] == 255).mean() > 0.99
