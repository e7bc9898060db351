"""What the package accepts and gives back: channel order, dtypes, strides, stroke forms, the
bytes it hands the library, and the refusals before any library call."""

import ctypes

import numpy as np
import pytest

import qxiveilon31 as qx
from qxiveilon31 import _native


# ---- Channel order, kinds and strides ------------------------------------------------------


def test_rgb_and_bgr_give_the_same_results(disc):
    bgr = np.ascontiguousarray(disc.image[:, :, ::-1])
    assert np.array_equal(qx.matte_trimap(disc.image, disc.trimap),
                          qx.matte_trimap(bgr, disc.trimap, bgr=True))
    truth8 = np.rint(disc.alpha * 255).astype(np.uint8)
    rgb_fg = qx.foreground(disc.image, truth8)
    # The subject is warm: in RGB order its red channel is the high one.
    assert rgb_fg[disc.alpha == 1.0][:, 0].mean() > rgb_fg[disc.alpha == 1.0][:, 2].mean() + 100
    assert np.array_equal(qx.foreground(bgr, truth8, bgr=True), rgb_fg[:, :, ::-1])
    rgba = qx.cutout(disc.image, trimap=disc.trimap)
    bgra = qx.cutout(bgr, trimap=disc.trimap, bgr=True)
    assert np.array_equal(bgra[:, :, [2, 1, 0, 3]], rgba)


class _Spy:
    """Forwards to the library, but records the bytes of each job's colour input instead of
    running the job (the job itself answers done)."""

    def __init__(self, real):
        self.real = real
        self.seen = {}

    def __getattr__(self, name):
        return getattr(self.real, name)

    def qxMaskAlpha(self, req, *args):
        r = req._obj
        w, h = r.width, r.height
        pointers = ctypes.cast(r.planes, ctypes.POINTER(ctypes.c_void_p * 3)).contents
        self.seen["planes"] = [np.frombuffer(ctypes.string_at(p, r.planeStep * h), np.uint8)
                               .reshape(h, r.planeStep)[:, :w] for p in pointers]
        return 1

    def qxKeepCutToAlpha(self, req, hi_res):
        r = req._obj
        self.seen["pixels"] = np.frombuffer(
            ctypes.string_at(r.srcImage, r.srcStep * r.fullHeight), np.uint8
        ).reshape(r.fullHeight, r.srcStep // 4, 4)[:, :r.fullWidth]
        return 1


def test_the_library_gets_bgr_bytes_as_the_tool_gives_them(monkeypatch, disc):
    # The library's colour planes come B, G, R (the tool reads with OpenCV); its 4-byte pixels
    # are B, G, R, 255. The matting results don't show the order (the solve treats the channels
    # alike), so the bytes are looked at where they are handed over.
    spy = _Spy(_native.LIB)
    monkeypatch.setattr(_native, "LIB", spy)
    qx.matte_trimap(disc.image, disc.trimap)
    planes = spy.seen["planes"]
    h, w = planes[0].shape
    rows, cols = np.nonzero(disc.trimap == 128)
    top, left = max(0, rows.min() - 12), max(0, cols.min() - 12)  # the box: 12 of margin
    crop = disc.image[top:top + h, left:left + w]
    for plane, channel in zip(planes, (2, 1, 0)):
        assert np.array_equal(plane, crop[:, :, channel])
    qx.matte_strokes(disc.image, disc.strokes)
    pixels = spy.seen["pixels"]
    assert np.array_equal(pixels[:, :, :3], disc.image[:, :, ::-1])
    assert np.all(pixels[:, :, 3] == 255)


def test_float_images_give_float_results_equal_to_the_byte_ones(disc):
    alpha8 = qx.matte_trimap(disc.image, disc.trimap)
    for dtype in (np.float64, np.float32):
        image = disc.image.astype(dtype) / dtype(255)
        trimap = np.where(disc.trimap == 255, 1.0, np.where(disc.trimap == 0, 0.0, 0.5))
        alpha = qx.matte_trimap(image, trimap.astype(dtype))
        assert alpha.dtype == np.float64
        assert np.array_equal(np.rint(alpha * 255), alpha8)
    # A uint8 image with a float tri-map: the image decides the kind.
    assert np.array_equal(qx.matte_trimap(disc.image, disc.trimap / 255.0), alpha8)
    truth = disc.alpha
    fg_float = qx.foreground(disc.image / 255.0, truth)
    fg8 = qx.foreground(disc.image, np.rint(truth * 255).astype(np.uint8))
    assert fg_float.dtype == np.float64 and np.array_equal(np.rint(fg_float * 255), fg8)
    rgba = qx.cutout(disc.image / 255.0, trimap=disc.trimap)
    assert rgba.dtype == np.float64 and rgba.max() <= 1.0 and rgba.min() >= 0.0


def test_floats_are_rounded_and_clipped_as_opencv_converts_them(disc):
    # 0.5/255 rounds half to even (to 0), values beyond 0..1 saturate: the same bytes.
    image = disc.image.astype(np.float64) / 255.0
    shifted = image.copy()
    shifted[disc.image == 0] = -0.25
    shifted[disc.image == 255] = 1.5
    shifted += 0.49 / 255.0 * (shifted > 0) * (shifted < 1)
    assert np.array_equal(qx.matte_trimap(shifted, disc.trimap),
                          qx.matte_trimap(image, disc.trimap))


def test_any_strides_give_the_same_result(disc):
    expected = qx.matte_trimap(disc.image, disc.trimap)
    # A window of a larger array (rows with a pad), a Fortran-ordered copy, and a reversed view
    # flipped back.
    big = np.zeros((disc.image.shape[0] + 9, disc.image.shape[1] + 13, 3), np.uint8)
    big[4:-5, 6:-7] = disc.image
    big_t = np.zeros((disc.trimap.shape[0] + 9, disc.trimap.shape[1] + 13), np.uint8)
    big_t[4:-5, 6:-7] = disc.trimap
    fortran = np.asfortranarray(disc.image)
    flipped = disc.image[::-1, ::-1][::-1, ::-1]
    for image, trimap in ((big[4:-5, 6:-7], big_t[4:-5, 6:-7]),
                          (fortran, np.asfortranarray(disc.trimap)), (flipped, disc.trimap)):
        assert not image.flags.c_contiguous or image is flipped
        assert np.array_equal(qx.matte_trimap(image, trimap), expected)
    # Every other pixel: a strided view against its own copy.
    view, tview = disc.image[::2, ::2], disc.trimap[::2, ::2]
    assert np.array_equal(qx.matte_trimap(view, tview),
                          qx.matte_trimap(view.copy(), tview.copy()))
    strokes = qx.matte_strokes(big[4:-5, 6:-7], big_t[4:-5, 6:-7])
    assert np.array_equal(strokes, qx.matte_strokes(disc.image, disc.trimap))


def test_definite_pixels_outside_the_box_are_pasted_from_the_trimap(disc):
    # The job only sees the box around the undecided pixels (12 of margin); outside it the
    # alpha comes from the tri-map: the foreground code as 255, the background code as 0.
    for fg_code, bg_code in ((255, 0), (200, 50)):
        trimap = np.where(disc.trimap == 255, fg_code,
                          np.where(disc.trimap == 0, bg_code, 128)).astype(np.uint8)
        inside = qx.matte_trimap(disc.image, trimap, fg_code=fg_code, bg_code=bg_code)
        trimap[:, -6:] = fg_code  # right of the disc's box
        alpha = qx.matte_trimap(disc.image, trimap, fg_code=fg_code, bg_code=bg_code)
        assert np.all(alpha[:, -6:] == 255) and np.all(alpha[:, :20] == 0)
        assert np.array_equal(alpha[:, :-6], inside[:, :-6])


def test_stroke_forms_agree(disc):
    expected = qx.matte_strokes(disc.image, disc.strokes)
    keep, cut = disc.strokes == 255, disc.strokes == 0
    as_float = np.where(keep, 1.0, np.where(cut, 0.0, np.nan))
    odd_codes = np.where(disc.strokes == 128, 77, disc.strokes).astype(np.uint8)
    for strokes in ((keep, cut), as_float, odd_codes, disc.strokes[:, :, None]):
        assert np.array_equal(qx.matte_strokes(disc.image, strokes), expected)


def test_inputs_are_left_as_they_were(disc, square_scene):
    image, trimap, strokes = disc.image.copy(), disc.trimap.copy(), disc.strokes.copy()
    qx.matte_trimap(image, trimap)
    qx.matte_strokes(image, strokes, with_foreground=True)
    qx.foreground(image, trimap)
    qx.cutout(image, rect=(30, 15, 100, 90), strokes=strokes)
    assert np.array_equal(image, disc.image) and np.array_equal(trimap, disc.trimap)
    assert np.array_equal(strokes, disc.strokes)
    # A refused job leaves them too (keep strokes only: the library refuses, status -5).
    only_keep = np.where(disc.strokes == 0, 128, disc.strokes).astype(np.uint8)
    kept = only_keep.copy()
    with pytest.raises(qx.QxError):
        qx.matte_strokes(image, only_keep)
    assert np.array_equal(only_keep, kept) and np.array_equal(image, disc.image)


# ---- Refusals ------------------------------------------------------------------------------

IMAGE = np.zeros((40, 50, 3), np.uint8)
PLANE = np.full((40, 50), 128, np.uint8)


@pytest.mark.parametrize("call, message", [
    (lambda: qx.matte_trimap(IMAGE[:, :, 0], PLANE), "H x W x 3"),
    (lambda: qx.matte_trimap(np.zeros((40, 50, 4), np.uint8), PLANE), "H x W x 3"),
    (lambda: qx.matte_trimap(IMAGE.astype(np.int32), PLANE), "uint8"),
    (lambda: qx.matte_trimap(np.zeros((0, 50, 3), np.uint8), PLANE[:0]), "empty"),
    (lambda: qx.matte_trimap(IMAGE, PLANE[:, :49]), "40 x 49"),
    (lambda: qx.matte_trimap(IMAGE, PLANE.astype(bool)), "uint8 or floating"),
    (lambda: qx.matte_trimap(IMAGE, PLANE, fg_code=100, bg_code=100), "below"),
    (lambda: qx.matte_trimap(IMAGE, PLANE, fg_code=256), "fg_code"),
    (lambda: qx.matte_trimap(IMAGE, PLANE / 255.0, fg_code=200), "float tri-map"),
    (lambda: qx.matte_trimap(np.full((40, 50, 3), np.nan), PLANE), "NaN"),
    (lambda: qx.matte_trimap(IMAGE, PLANE, levels=(300, 0)), "levels"),
    (lambda: qx.matte_strokes(IMAGE, PLANE == 255), "pair"),
    (lambda: qx.matte_strokes(IMAGE, (PLANE == 128, PLANE == 128)), "both"),
    (lambda: qx.matte_strokes(IMAGE, (PLANE == 128,)), "pair"),
    (lambda: qx.foreground(IMAGE, PLANE, method="sampling"), "sampling"),
    (lambda: qx.foreground(IMAGE, PLANE.T), "50 x 40"),
    (lambda: qx.grabcut(IMAGE, (0, 0, 51, 10)), "not inside"),
    (lambda: qx.grabcut(IMAGE, (-1, 0, 10, 10)), "not inside"),
    (lambda: qx.grabcut(IMAGE, (0, 0, 0, 10)), "at least 1"),
    (lambda: qx.grabcut(IMAGE, (0, 0, 10)), "four ints"),
    (lambda: qx.grabcut(IMAGE, (0, 0, 10, 10), band=5), "with_trimap"),
    (lambda: qx.grabcut(IMAGE, (0, 0, 10, 10), with_trimap=True, band=0), "band"),
    (lambda: qx.GrabCutSession(IMAGE, (0, 0, 10.0, 10)), "four ints"),
    (lambda: qx.cutout(IMAGE), "needs rect, trimap or strokes"),
    (lambda: qx.cutout(IMAGE, rect=(0, 0, 5, 5), trimap=PLANE), "not both"),
    (lambda: qx.cutout(IMAGE, trimap=PLANE, strokes=PLANE), "not with a trimap"),
])
def test_bad_arguments_are_refused_before_the_library_is_called(no_library, call, message):
    with pytest.raises(ValueError, match=message):
        call()


def test_a_trimap_the_job_cannot_use_says_why(disc):
    flat = np.full(disc.trimap.shape, 255, np.uint8)
    with pytest.raises(ValueError, match="no undecided pixel"):
        qx.matte_trimap(disc.image, flat)
    low = np.full((20, 30), 0, np.uint8)
    low[10, 5:9] = 128
    with pytest.raises(ValueError, match="image is 20 rows high"):
        qx.matte_trimap(np.zeros((20, 30, 3), np.uint8), low)


def test_a_failing_job_raises_qxerror_with_its_status(disc):
    no_cut = np.where(disc.strokes == 0, 128, disc.strokes).astype(np.uint8)
    with pytest.raises(qx.QxError) as caught:
        qx.matte_strokes(disc.image, no_cut)
    e = caught.value
    assert (e.function, e.status) == ("qxKeepCutToAlpha", -5)
    assert "too few strokes" in e.meaning and "status -5" in str(e)
