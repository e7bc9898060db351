"""Checks and conversions between the caller's NumPy arrays and the library's 8-bit buffers.

Every check here runs before any library call: a bad shape, dtype or argument raises ValueError.
An array whose rows the library can read as they are (bytes of a pixel side by side, rows at a
positive stride that fits the C interface's 32-bit int) is handed over as it is, any other is
copied once into compact rows; the library never writes an input, and outputs are new arrays.
"""

import numpy as np

from . import _native as native

# Row strides, widths and heights go to the library as signed 32-bit ints, which ctypes cuts to
# 32 bits without a word. A side is held to a quarter of that: a row of 4 bytes a pixel (the
# GrabCut session's buffer) must fit.
INT_MAX = 2 ** 31 - 1
_MAX_SIDE = INT_MAX // 4
KEEP, CUT, UNPAINTED = 255, 0, 128


def _array(value, name):
    if isinstance(value, np.ndarray):
        return value
    try:
        return np.asarray(value)
    except Exception as e:  # anything NumPy can't take is a bad argument
        raise ValueError("%s: not an array (%s)" % (name, e)) from None


def _is_int(value, low, high):
    return isinstance(value, (int, np.integer)) and not isinstance(value, bool) \
        and low <= value <= high


def _to_8bit(values, name):
    """0..1 floats to bytes as OpenCV's convertTo(CV_8U, 255) does: scaled, rounded half to
    even, saturated."""
    if not np.all(np.isfinite(values)):
        raise ValueError("%s holds NaN or infinite values" % name)
    return np.rint(np.clip(values.astype(np.float64) * 255.0, 0.0, 255.0)).astype(np.uint8)


def _row_bytes(a):
    return a.shape[1] * a.itemsize * (a.shape[2] if a.ndim == 3 else 1)


def _fits(a):
    """Whether the library can read a's rows as they lie: a pixel's bytes side by side, rows at
    a positive stride of at least a row's bytes that its 32-bit int holds."""
    packed = a.strides[1:] == ((a.shape[2], 1) if a.ndim == 3 else (1,))
    return packed and _row_bytes(a) <= a.strides[0] <= INT_MAX


def _readable(a):
    """a as it is when the library can read its rows, else a C-contiguous copy: among others a
    view whose rows lie 2 GiB or more apart (every Nth row of a very large array), whose
    stride the library's 32-bit int can't hold."""
    return a if _fits(a) else np.ascontiguousarray(a)


def rows(a, name):
    """(address, row stride) of a 2-D or 3-D uint8 array for a library call, (None, 0) for
    None. The last check before any call: rows the library can't read as they lie, or a
    stride or side that its 32-bit ints don't hold (ctypes would cut it, and the library would
    read other rows), raise ValueError naming the array."""
    if a is None:
        return None, 0
    for what, side in (("height", a.shape[0]), ("width", a.shape[1])):
        if side > INT_MAX:
            raise ValueError("%s: its %s of %d pixels does not fit the library's 32-bit int "
                             "(at most %d)" % (name, what, side, INT_MAX))
    if not _fits(a):
        raise ValueError("%s: its rows are not laid out as the library reads them: a pixel's "
                         "bytes side by side and rows at a stride from one row's bytes (%d) "
                         "to %d, the most a 32-bit int holds; got strides %s"
                         % (name, _row_bytes(a), INT_MAX, a.strides))
    return a.ctypes.data, a.strides[0]


def image8(image, bgr, name="image"):
    """(H x W x 3 uint8 rows the library reads, QxwImage of them, whether the caller's array
    was floating-point: results then come back as float64)."""
    a = _array(image, name)
    if a.ndim != 3 or a.shape[2] != 3:
        raise ValueError("%s must be an H x W x 3 array (RGB%s), got shape %s"
                         % (name, "" if bgr else ", or BGR with bgr=True", a.shape))
    for what, side in (("height", a.shape[0]), ("width", a.shape[1])):
        if not 1 <= side <= _MAX_SIDE:
            raise ValueError("%s: its %s of %d pixels is %s (the library takes 1 to %d: a row "
                             "of 4 bytes a pixel must fit its 32-bit int)"
                             % (name, what, side, "empty" if side < 1 else "too large",
                                _MAX_SIDE))
    is_float = np.issubdtype(a.dtype, np.floating)
    if is_float:
        a = _to_8bit(a, name)
    elif a.dtype != np.uint8:
        raise ValueError("%s must be uint8 (0..255) or floating-point (0..1), got %s"
                         % (name, a.dtype))
    a = _readable(a)
    record = native.Image(*rows(a, name), 3, a.shape[1], a.shape[0],
                          native.QXW_BGR if bgr else native.QXW_RGB)
    return a, record, is_float


def plane(value, shape, name):
    """A 2-D plane (H x W, or H x W x 1) of the image's size, uint8 or float, as given."""
    a = _array(value, name)
    if a.ndim == 3 and a.shape[2] == 1:
        a = a[:, :, 0]
    if a.ndim != 2 or a.shape != tuple(shape):
        raise ValueError("%s must be H x W like the image (%d x %d), got shape %s"
                         % (name, shape[0], shape[1], a.shape))
    if a.dtype != np.uint8 and not np.issubdtype(a.dtype, np.floating):
        raise ValueError("%s must be uint8 or floating-point, got %s" % (name, a.dtype))
    return a


def _three_states(a, high, low):
    """A float plane as 255 (>= high), 0 (<= low), 128 (anything else, NaN included)."""
    out = np.full(a.shape, UNPAINTED, np.uint8)
    with np.errstate(invalid="ignore"):
        out[a >= high] = KEEP
        out[a <= low] = CUT
    return out


def trimap8(trimap, shape, fg_code, bg_code):
    """(the tri-map as readable uint8 rows, its codes). A float tri-map (1 foreground,
    0 background, anything between undecided) becomes 255 / 0 / 128."""
    t = plane(trimap, shape, "trimap")
    if t.dtype == np.uint8:
        return _readable(t), fg_code, bg_code
    if (fg_code, bg_code) != (255, 0):
        raise ValueError("fg_code and bg_code apply to uint8 tri-maps; a float tri-map is "
                         "1 foreground, 0 background, other values undecided")
    if np.isnan(t).any():
        raise ValueError("trimap holds NaN values")
    return _three_states(t, 1.0, 0.0), 255, 0


def codes(fg_code, bg_code):
    if not _is_int(fg_code, 1, 255) or not _is_int(bg_code, 0, 254):
        raise ValueError("fg_code takes an int from 1 to 255 and bg_code from 0 to 254, got "
                         "%r and %r" % (fg_code, bg_code))
    if bg_code >= fg_code:
        raise ValueError("bg_code (%d) must be below fg_code (%d)" % (bg_code, fg_code))
    return int(fg_code), int(bg_code)


def levels(value):
    try:
        high, low = value
    except (TypeError, ValueError):
        raise ValueError("levels must be a pair (high, low), got %r" % (value,)) from None
    if not (_is_int(high, 0, 255) and _is_int(low, 0, 255)):
        raise ValueError("levels take ints from 0 to 255, got %r" % (value,))
    return int(high), int(low)


def alpha8(alpha, shape):
    """An alpha plane (uint8 0..255 or float 0..1) as readable uint8 rows."""
    a = plane(alpha, shape, "alpha")
    return _readable(a) if a.dtype == np.uint8 else _to_8bit(a, "alpha")


def strokes8(strokes, shape, name="strokes"):
    """Strokes as readable uint8 rows, 255 keep, 0 cut, anything else unpainted. Accepted
    forms: such a uint8 plane; a float plane (1 keep, 0 cut, anything else, NaN included,
    unpainted); or a pair (keep, cut) of boolean planes."""
    if isinstance(strokes, tuple):
        if len(strokes) != 2:
            raise ValueError("%s as a tuple must be a pair (keep, cut) of boolean planes" % name)
        keep, cut = (_array(s, name) for s in strokes)
        for s in (keep, cut):
            if s.dtype != np.bool_ or s.shape != tuple(shape):
                raise ValueError("%s: keep and cut must be boolean planes of the image's size "
                                 "%s, got %s %s" % (name, tuple(shape), s.dtype, s.shape))
        if np.any(keep & cut):
            raise ValueError("%s: some pixels are painted both keep and cut" % name)
        out = np.full(tuple(shape), UNPAINTED, np.uint8)
        out[keep], out[cut] = KEEP, CUT
        return out
    a = _array(strokes, name)
    if a.dtype == np.bool_:
        raise ValueError("%s: a boolean plane can't mark three states; give a pair (keep, cut) "
                         "of boolean planes, or uint8 with 255 keep, 0 cut, others unpainted"
                         % name)
    a = plane(a, shape, name)
    return _readable(a) if a.dtype == np.uint8 else _three_states(a, 1.0, 0.0)


def rect4(rect, shape):
    """(x, y, width, height) of ints, width and height at least 1, inside the image."""
    try:
        values = tuple(rect)
    except TypeError:
        raise ValueError("rect must be (x, y, width, height), got %r" % (rect,)) from None
    if len(values) != 4 or not all(_is_int(v, -2 ** 31, 2 ** 31 - 1) for v in values):
        raise ValueError("rect must be four ints (x, y, width, height), got %r" % (rect,))
    x, y, w, h = (int(v) for v in values)
    if w < 1 or h < 1:
        raise ValueError("rect %r: width and height must be at least 1" % (values,))
    if x < 0 or y < 0 or x + w > shape[1] or y + h > shape[0]:
        raise ValueError("rect %r is not inside the %d x %d image (width x height)"
                         % (values, shape[1], shape[0]))
    return x, y, w, h


def band_width(band):
    """The edge band's width as the workflows take it: 0 for the default."""
    if band is None:
        return 0
    if not _is_int(band, 1, 32767):
        raise ValueError("band takes an int from 1 to 32767, got %r" % (band,))
    return int(band)


# ---- Results back to the caller -----------------------------------------------------------


def mask_out(plane8, is_float):
    """An 8-bit result in the caller's kind: uint8, or float64 on 0..1."""
    return plane8.astype(np.float64) / 255.0 if is_float else plane8


def trimap_out(tri, is_float):
    """A 0 / 128 / 255 tri-map, or 0 / 0.5 / 1 for a float image (matte_trimap takes either)."""
    if not is_float:
        return tri
    return np.where(tri == 255, 1.0, np.where(tri == 0, 0.0, 0.5))
