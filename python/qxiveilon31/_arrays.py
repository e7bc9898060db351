"""Checks and conversions between the caller's NumPy arrays and the library's 8-bit buffers.

Every check here runs before any library call: a bad shape or dtype raises ValueError. The
library is handed BGR(A) bytes, the order of the command-line tool (which reads images with
OpenCV), whatever order the caller's array has.
"""

import numpy as np

# Row steps and sizes go to the library as 32-bit ints; a 4-byte-a-pixel row must fit.
_MAX_SIDE = (2 ** 31 - 1) // 4


def _array(value, name):
    if isinstance(value, np.ndarray):
        return value
    try:
        return np.asarray(value)
    except Exception as e:  # anything NumPy can't take is a bad argument
        raise ValueError("%s: not an array (%s)" % (name, e)) from None


def _check_size(height, width, name):
    if height < 1 or width < 1:
        raise ValueError("%s is empty (%d x %d)" % (name, height, width))
    if width > _MAX_SIDE or height > _MAX_SIDE:
        raise ValueError("%s is too large for the library (%d x %d)" % (name, height, width))


def _float_to_8bit(values, name):
    """0..1 floats to bytes as OpenCV's convertTo(CV_8U, 255) does: scaled, rounded half to
    even, saturated."""
    if not np.all(np.isfinite(values)):
        raise ValueError("%s holds NaN or infinite values" % name)
    return np.rint(np.clip(values.astype(np.float64) * 255.0, 0.0, 255.0)).astype(np.uint8)


def image_bgr8(image, bgr, name="image"):
    """The image as H x W x 3 uint8 in BGR order (a view where no conversion is needed), and
    whether the caller's array was floating-point (results then come back as float64)."""
    a = _array(image, name)
    if a.ndim != 3 or a.shape[2] != 3:
        raise ValueError("%s must be an H x W x 3 array (RGB%s), got shape %s"
                         % (name, ", or BGR with bgr=True" if not bgr else "", a.shape))
    _check_size(a.shape[0], a.shape[1], name)
    if a.dtype == np.uint8:
        is_float = False
    elif np.issubdtype(a.dtype, np.floating):
        a = _float_to_8bit(a, name)
        is_float = True
    else:
        raise ValueError("%s must be uint8 (0..255) or floating-point (0..1), got %s"
                         % (name, a.dtype))
    return (a if bgr else a[:, :, ::-1]), is_float


def plane8(plane, shape, name):
    """A 2-D plane (H x W, or H x W x 1) of the image's size, as given (uint8 or float)."""
    a = _array(plane, name)
    if a.ndim == 3 and a.shape[2] == 1:
        a = a[:, :, 0]
    if a.ndim != 2:
        raise ValueError("%s must be an H x W array, got shape %s" % (name, a.shape))
    if a.shape != tuple(shape):
        raise ValueError("%s is %d x %d, the image is %d x %d"
                         % (name, a.shape[0], a.shape[1], shape[0], shape[1]))
    if a.dtype != np.uint8 and not np.issubdtype(a.dtype, np.floating):
        raise ValueError("%s must be uint8 or floating-point, got %s" % (name, a.dtype))
    return a


def trimap8(trimap, shape, fg_code, bg_code):
    """The tri-map as a C-contiguous uint8 plane with its codes. A float tri-map (1 foreground,
    0 background, anything between undecided) becomes 255 / 0 / 128."""
    t = plane8(trimap, shape, "trimap")
    if t.dtype == np.uint8:
        return np.ascontiguousarray(t), fg_code, bg_code
    if (fg_code, bg_code) != (255, 0):
        raise ValueError("fg_code and bg_code apply to uint8 tri-maps; a float tri-map is "
                         "1 foreground, 0 background, other values undecided")
    if np.isnan(t).any():
        raise ValueError("trimap holds NaN values")
    out = np.full(t.shape, 128, np.uint8)
    out[t >= 1.0] = 255
    out[t <= 0.0] = 0
    return out, 255, 0


def codes(fg_code, bg_code):
    for value, name, lo, hi in ((fg_code, "fg_code", 1, 255), (bg_code, "bg_code", 0, 254)):
        if not isinstance(value, (int, np.integer)) or isinstance(value, bool) \
                or not lo <= value <= hi:
            raise ValueError("%s takes an int from %d to %d, got %r" % (name, lo, hi, value))
    if bg_code >= fg_code:
        raise ValueError("bg_code (%d) must be below fg_code (%d)" % (bg_code, fg_code))
    return int(fg_code), int(bg_code)


def alpha8(alpha, shape, name="alpha"):
    """An alpha plane (uint8 0..255 or float 0..1) as a new C-contiguous uint8 plane."""
    a = plane8(alpha, shape, name)
    if a.dtype == np.uint8:
        return np.array(a, dtype=np.uint8, order="C", copy=True)
    return _float_to_8bit(a, name)


# Stroke images, as the command-line tool takes them: 255 keep, 0 cut, anything else unpainted.
KEEP, CUT, UNPAINTED = 255, 0, 128


def strokes8(strokes, shape, name="strokes"):
    """Strokes as a stroke image (255 keep, 0 cut, 128 unpainted). Accepted forms:
    a uint8 plane (255 keep, 0 cut, any other value unpainted); a float plane (1 keep, 0 cut,
    anything else, NaN included, unpainted); or a pair (keep, cut) of boolean planes."""
    if isinstance(strokes, tuple):
        if len(strokes) != 2:
            raise ValueError("%s as a tuple must be a pair (keep, cut) of boolean planes" % name)
        keep = plane_bool(strokes[0], shape, name + "[0] (keep)")
        cut = plane_bool(strokes[1], shape, name + "[1] (cut)")
        if np.any(keep & cut):
            raise ValueError("%s: some pixels are painted both keep and cut" % name)
        out = np.full(tuple(shape), UNPAINTED, np.uint8)
        out[keep] = KEEP
        out[cut] = CUT
        return out
    a = _array(strokes, name)
    if a.dtype == np.bool_:
        raise ValueError("%s: a boolean plane can't mark three states; give a pair (keep, cut) "
                         "of boolean planes, or uint8 with 255 keep, 0 cut, others unpainted"
                         % name)
    a = plane8(a, shape, name)
    if a.dtype == np.uint8:
        return a
    out = np.full(a.shape, UNPAINTED, np.uint8)
    with np.errstate(invalid="ignore"):
        out[a >= 1.0] = KEEP
        out[a <= 0.0] = CUT
    return out


def plane_bool(plane, shape, name):
    a = _array(plane, name)
    if a.dtype != np.bool_:
        raise ValueError("%s must be a boolean array, got %s" % (name, a.dtype))
    if a.shape != tuple(shape):
        raise ValueError("%s has shape %s, the image is %d x %d"
                         % (name, a.shape, shape[0], shape[1]))
    return a


def encode_strokes(stroke_image):
    """The library's stroke coding for a stroke image: keep 255, cut 1, unpainted 128 (even:
    to be computed). A new C-contiguous plane."""
    out = np.full(stroke_image.shape, 128, np.uint8)
    out[stroke_image == KEEP] = 255
    out[stroke_image == CUT] = 1
    return out


def bgra(image_bgr):
    """The library's 4-byte pixels: B, G, R and 255, C-contiguous (the one copy of the image)."""
    h, w = image_bgr.shape[:2]
    out = np.empty((h, w, 4), np.uint8)
    out[:, :, :3] = image_bgr
    out[:, :, 3] = 255
    return out


def rect4(rect, shape):
    """(x, y, width, height) of ints, width and height at least 1, inside the image."""
    try:
        values = [v for v in rect]
    except TypeError:
        raise ValueError("rect must be (x, y, width, height), got %r" % (rect,)) from None
    if len(values) != 4 or not all(isinstance(v, (int, np.integer)) and not isinstance(v, bool)
                                   for v in values):
        raise ValueError("rect must be four ints (x, y, width, height), got %r" % (rect,))
    x, y, w, h = (int(v) for v in values)
    if w < 1 or h < 1:
        raise ValueError("rect %r: width and height must be at least 1" % (tuple(values),))
    if x < 0 or y < 0 or x + w > shape[1] or y + h > shape[0]:
        raise ValueError("rect %r is not inside the %d x %d image (width x height)"
                         % (tuple(values), shape[1], shape[0]))
    return x, y, w, h


def band_width(band, shape):
    """The edge band's width: the given one, or about 1% of the longer side, at least 10."""
    if band is None:
        return max(10, max(shape[0], shape[1]) // 100)
    if not isinstance(band, (int, np.integer)) or isinstance(band, bool) \
            or not 1 <= band <= 32767:
        raise ValueError("band takes an int from 1 to 32767, got %r" % (band,))
    return int(band)


# ---- Results back to the caller -----------------------------------------------------------


def mask_out(plane, is_float):
    """An 8-bit plane in the caller's kind: uint8, or float64 on 0..1."""
    if is_float:
        return plane.astype(np.float64) / 255.0
    return plane


def colour_out(pixels_bgr, bgr, is_float, alpha=None):
    """BGR pixels (H x W x 3 or 4, uint8) as RGB (or BGR) in the caller's kind, with alpha as a
    fourth channel when given."""
    h, w = pixels_bgr.shape[:2]
    channels = 3 if alpha is None else 4
    out = np.empty((h, w, channels), np.uint8)
    out[:, :, :3] = pixels_bgr[:, :, :3] if bgr else pixels_bgr[:, :, 2::-1]
    if alpha is not None:
        out[:, :, 3] = alpha
    return mask_out(out, is_float)
