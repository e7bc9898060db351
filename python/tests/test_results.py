"""Each public function on synthetic scenes against their known alpha and foreground."""
# The soft disc's colours are linear gradients, the model closed-form matting solves exactly up
# to rounding: its alpha must beat the hard cut at the true edge by far (under 40% of its error).
# A wrong side is 255 levels off, so definite pixels are held to a level or two.

import numpy as np
import pytest

import qxiveilon31 as qx
from scenes import foreground_error, hard_cut_error, mean_error


def _definite_error(alpha, trimap):
    a = alpha.astype(int)
    return max(np.abs(a[trimap == 255] - 255).max(), a[trimap == 0].max())


def _check_alpha(alpha, scene):
    assert alpha.dtype == np.uint8 and alpha.shape == scene.trimap.shape
    assert _definite_error(alpha, scene.trimap) <= 2
    assert mean_error(alpha, scene.alpha, scene.band) < 0.4 * hard_cut_error(scene)


def test_matte_trimap_recovers_the_soft_edge(disc):
    alpha = qx.matte_trimap(disc.image, disc.trimap)
    _check_alpha(alpha, disc)
    # Along any ray from the centre the true alpha falls: so must the ring means.
    rings = [alpha[disc.band & (np.abs(disc.d - r) < 0.5)].mean() for r in range(27, 42)]
    assert all(a >= b - 2 for a, b in zip(rings, rings[1:])), rings
    # Other codes (220 and 30 definite) and levels (240, 20): the stretch moves the band's
    # values away from the middle, up above it and down below it.
    coded = np.where(disc.trimap == 255, 220, np.where(disc.trimap == 0, 30, 128))
    stretched = qx.matte_trimap(disc.image, coded.astype(np.uint8), fg_code=200, bg_code=50,
                                levels=(240, 20)).astype(int)
    assert _definite_error(stretched, disc.trimap) <= 2
    a = alpha.astype(int)
    high, low = disc.band & (a > 140) & (a < 240), disc.band & (a > 20) & (a < 120)
    assert (stretched - a)[high].mean() > 5 and (a - stretched)[low].mean() > 5


def test_matte_strokes_from_scribbles_finds_the_subject(disc):
    # A keep stroke across the middle, cut strokes on the border only: the solve must carry
    # them out to the edge and get each side right.
    scribbles = np.full(disc.trimap.shape, 128, np.uint8)
    scribbles[58:63, 63:97] = 255
    scribbles[:3], scribbles[-3:], scribbles[:, :3], scribbles[:, -3:] = 0, 0, 0, 0
    alpha = qx.matte_strokes(disc.image, scribbles)
    assert mean_error(alpha, disc.alpha, disc.alpha == 1.0) < 0.1
    assert mean_error(alpha, disc.alpha, disc.alpha == 0.0) < 0.1


def test_cutouts_carry_the_matte_and_the_subjects_colours(disc):
    by_trimap = qx.cutout(disc.image, trimap=disc.trimap)
    assert np.array_equal(by_trimap[:, :, 3], qx.matte_trimap(disc.image, disc.trimap))
    alpha, fg = qx.matte_strokes(disc.image, disc.strokes, with_foreground=True)
    assert np.array_equal(qx.cutout(disc.image, strokes=disc.strokes), np.dstack([fg, alpha]))
    by_rect = qx.cutout(disc.image, rect=(30, 15, 100, 90))
    _check_alpha(np.ascontiguousarray(by_rect[:, :, 3]), disc)
    for rgba in (by_trimap, by_rect):
        assert rgba.shape == disc.image.shape[:2] + (4,)
        assert foreground_error(rgba[:, :, :3], disc) < foreground_error(disc.image, disc) / 3


def test_grabcut_selects_the_subject_and_bands_its_edge(square_scene):
    image, subject, _ = square_scene
    selection, trimap = qx.grabcut(image, (20, 10, 150, 120), with_trimap=True, band=8)
    assert set(np.unique(selection)) == {0, 255} and set(np.unique(trimap)) == {0, 128, 255}
    assert (selection[subject] == 255).mean() > 0.95
    assert np.all(selection[:10] == 0) and np.all(selection[:, 170:] == 0)  # outside the rect
    # The band (8 wide) lies along the selection's edge: every band pixel has a selected and an
    # unselected pixel within 5; the rest of the tri-map is the selection.
    sel = selection == 255
    near = lambda m: np.lib.stride_tricks.sliding_window_view(  # noqa: E731
        np.pad(m, 5), (11, 11)).any(axis=(2, 3))
    assert np.all((trimap == 128) <= (near(sel) & near(~sel)))
    assert np.array_equal(trimap[trimap != 128] == 255, sel[trimap != 128])
    # The subject cut by the image's border, the rectangle reaching it: selected up to it.
    cut_image, cut_subject = np.ascontiguousarray(image[:, 45:]), subject[:, 45:]
    selection = qx.grabcut(cut_image, (0, 10, 120, 120))
    assert (selection[cut_subject] == 255).mean() > 0.99


def test_a_session_goes_on_from_its_models_across_strokes(square_scene):
    image, subject, square = square_scene
    rect = (20, 10, 150, 120)
    with qx.GrabCutSession(image, rect) as session:
        first = session.cut()
        assert np.array_equal(first, qx.grabcut(image, rect))  # framed as the workflow is
        assert (first[square] == 255).sum() > 200  # same colour as the subject: taken too
        cut = np.full(subject.shape, 128, np.uint8)
        cut[18:38, 138:158] = 0
        session.add_strokes(cut)
        second = session.cut()
        assert not second[square].any() and (second[subject] == 255).mean() > 0.95
        keep = np.zeros(subject.shape, bool)
        keep[24:32, 144:152] = True
        session.add_strokes((keep, np.zeros_like(keep)))
        assert np.all(session.cut()[keep] == 255)
        trimap = session.trimap(6)
        assert trimap[70, 80] == 255 and trimap[5, 5] == 0 and (trimap == 128).any()
    for use in (session.cut, session.trimap):
        with pytest.raises(RuntimeError, match="closed"):
            use()
    session.close()  # twice is fine
