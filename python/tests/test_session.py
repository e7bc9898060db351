"""A GrabCut session over several cuts, as an editor runs one: cut, paint, cut again, settle."""

import numpy as np
import pytest

import qxiveilon31 as qx

RECT = (20, 10, 150, 120)


def _counts(selection, subject, square):
    sel = selection == 255
    return sel[subject].mean(), int(sel[square].sum())


def test_strokes_between_cuts_change_the_selection(square_scene):
    image, subject, square = square_scene
    with qx.GrabCutSession(image, RECT) as session:
        first = session.cut()
        control = session._req.control
        assert control  # the library keeps its models between cuts
        subject_share, square_pixels = _counts(first, subject, square)
        # The square has the subject's colour: the first cut takes it too.
        assert subject_share > 0.95 and square_pixels > 200

        cut = np.full(subject.shape, 128, np.uint8)
        cut[18:38, 138:158] = 0  # a cut stroke over the square
        session.add_strokes(cut)
        second = session.cut()
        assert session._req.control == control  # the same session went on
        subject_share, square_pixels = _counts(second, subject, square)
        assert subject_share > 0.95 and square_pixels == 0

        # A keep stroke over the square's middle brings that part back (painted pixels are
        # fixed: they come back as painted, whatever the models say).
        keep = np.zeros(subject.shape, bool)
        keep[24:32, 144:152] = True
        session.add_strokes((keep, np.zeros_like(keep)))
        third = session.cut()
        assert np.all(third[keep] == 255)
        assert _counts(third, subject, square)[0] > 0.95
        assert np.array_equal(session.selection, third)

        trimap = session.trimap(6)
        assert trimap[70, 80] == 255 and trimap[5, 5] == 0 and (trimap == 128).any()
    assert session.closed and not session._req.control  # freed


def test_the_first_cut_is_the_one_call_grabcut(square_scene):
    image, _, _ = square_scene
    with qx.GrabCutSession(image, RECT) as session:
        assert np.array_equal(session.cut(), qx.grabcut(image, RECT))


def test_a_closed_session_refuses_work(square_scene):
    image, subject, _ = square_scene
    session = qx.GrabCutSession(image, RECT)
    with pytest.raises(RuntimeError, match="cut"):
        session.trimap()  # nothing cut yet
    session.cut()
    session.close()
    session.close()  # twice is fine
    for use in (session.cut, session.trimap,
                lambda: session.add_strokes(np.full(subject.shape, 128, np.uint8))):
        with pytest.raises(RuntimeError, match="closed"):
            use()


def test_float_images_give_float_selections(square_scene):
    image, subject, _ = square_scene
    with qx.GrabCutSession(image / 255.0, RECT) as session:
        selection = session.cut()
        trimap = session.trimap(6)
    assert selection.dtype == np.float64 and set(np.unique(selection)) == {0.0, 1.0}
    assert set(np.unique(trimap)) == {0.0, 0.5, 1.0}
    assert np.array_equal(selection * 255, qx.grabcut(image, RECT))
    # The float tri-map goes straight into matte_trimap.
    alpha = qx.matte_trimap(image / 255.0, trimap)
    assert alpha.dtype == np.float64 and alpha[subject].mean() > 0.95
