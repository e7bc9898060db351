"""The host workflows over NumPy arrays, step by step as the command-line tool ``qxmatte`` runs
them through the C interface, so that both give the same result on the same input."""

import ctypes
import threading

import numpy as np

from . import _arrays as arrays
from . import _native as native
from . import _progress
from ._native import QxError


class _Handler:
    """A call's progress handler, closed when the call ends."""

    def __init__(self, progress, desc):
        self.fn = _progress.handler(progress, desc)

    def __enter__(self):
        return self.fn

    def __exit__(self, *exc):
        if self.fn is not None:
            self.fn.close()
        return False


def _addr(a):
    return a.ctypes.data


def _step(a):
    return a.strides[0]


# ---- Tri-map matting -----------------------------------------------------------------------


def _empty_box_reason(trimap, fg_code, bg_code):
    """Why qxMaskBBox gave no box: no undecided pixel, or too few rows (the box is the rows
    from the first to the last undecided pixel with 12 rows of margin, clipped to the image;
    the job needs 24)."""
    margin, least = 12, 24
    rows = np.flatnonzero(((trimap > bg_code) & (trimap < fg_code)).any(axis=1))
    if rows.size == 0:
        return "the tri-map has no undecided pixel"
    height = trimap.shape[0]
    if height < least:
        return ("too few rows for the tri-map job: the image is %d rows high, the job needs at "
                "least %d" % (height, least))
    first, last = int(rows[0]), int(rows[-1])
    top, bottom = max(0, first - margin), min(height - 1, last + margin)
    where = "row %d" % first if first == last else "rows %d to %d" % (first, last)
    return ("too few undecided rows for the tri-map job: the undecided pixels lie on %s, %d "
            "rows with 12 rows of margin, the job needs at least %d (widen the undecided band)"
            % (where, bottom - top + 1, least))


def _matte(image_bgr, trimap, fg_code, bg_code, levels, handler):
    """Box, crop, job, paste back: the 8-bit alpha of the whole image."""
    lib = native.lib()
    height, width = trimap.shape
    box = [ctypes.c_int() for _ in range(6)]  # left, width, top, height, fg count, bg count
    lib.qxMaskBBox(0, _addr(trimap), _step(trimap), width, height,
                   *[ctypes.byref(v) for v in box], 0, fg_code, bg_code)
    left, box_w, top, box_h, fg_count, bg_count = (v.value for v in box)
    if box_w <= 0 or box_h <= 0:
        raise ValueError(_empty_box_reason(trimap, fg_code, bg_code))
    unknown = box_w * box_h - fg_count - bg_count

    # Cut to the box: three separate colour planes (B, G, R) and a copy of the tri-map.
    rows, cols = slice(top, top + box_h), slice(left, left + box_w)
    planes = [np.ascontiguousarray(image_bgr[rows, cols, c]) for c in range(3)]
    mask = np.array(trimap[rows, cols], dtype=np.uint8, order="C", copy=True)
    pointers = (ctypes.c_void_p * 3)(*[_addr(p) for p in planes])

    req = native.MaskRequest()
    req.planes = ctypes.cast(pointers, ctypes.c_void_p)
    req.planeStep = _step(planes[0])
    req.mask = _addr(mask)
    req.maskStep = _step(mask)
    req.width = box_w
    req.height = box_h
    with native.job(handler) as (proc, param):
        if proc is not None:
            req.progProc, req.progParam = proc, param
        status = lib.qxMaskAlpha(ctypes.byref(req), 0, float(unknown), fg_code, bg_code,
                                 levels[0], levels[1])
    if status != 1:
        raise QxError("qxMaskAlpha", status)

    # Outside the box every pixel is definite: codes at or above fg_code 255, at or below
    # bg_code 0 (a table over the byte values).
    table = np.arange(256, dtype=np.uint8)
    table[fg_code:] = 255
    table[:bg_code + 1] = 0
    alpha = np.take(table, trimap)
    alpha[rows, cols] = mask
    return alpha


def _levels(levels):
    try:
        high, low = levels
    except (TypeError, ValueError):
        raise ValueError("levels must be a pair (high, low), got %r" % (levels,)) from None
    for v in (high, low):
        if not isinstance(v, (int, np.integer)) or isinstance(v, bool) or not 0 <= v <= 255:
            raise ValueError("levels take ints from 0 to 255, got %r" % (levels,))
    return int(high), int(low)


def matte_trimap(image, trimap, *, fg_code=255, bg_code=0, levels=(255, 0), bgr=False,
                 progress=None):
    """Alpha from an image and a tri-map (closed-form matting).

    image: H x W x 3, uint8 RGB (BGR with ``bgr=True``) or float on 0..1.
    trimap: H x W, uint8 (codes <= bg_code background, >= fg_code foreground, others
    undecided) or float (1 foreground, 0 background, other values undecided).
    levels: (high, low), the final levels stretch [low, high] to [0, 255].
    Returns the alpha, H x W: uint8 for a uint8 image, float64 on 0..1 for a float image.
    The undecided pixels with 12 rows of margin must span at least 24 rows (ValueError).
    """
    fg_code, bg_code = arrays.codes(fg_code, bg_code)
    levels = _levels(levels)
    img, is_float = arrays.image_bgr8(image, bgr)
    tri, fg_code, bg_code = arrays.trimap8(trimap, img.shape[:2], fg_code, bg_code)
    with _Handler(progress, "matte_trimap") as handler:
        alpha = _matte(img, tri, fg_code, bg_code, levels, handler)
    return arrays.mask_out(alpha, is_float)


# ---- Keep-cut matting ----------------------------------------------------------------------


def _whole_image_request(src, alpha, dst, aux):
    req = native.KeepCutRequest()
    req.srcImage, req.srcStep = _addr(src), _step(src)
    req.alphaPlane, req.alphaStep = _addr(alpha), _step(alpha)
    req.dstImage, req.dstStep = _addr(dst), _step(dst)
    req.auxPlane, req.auxStep = _addr(aux), _step(aux)
    req.fullWidth = req.roiWidth = alpha.shape[1]
    req.fullHeight = req.roiHeight = alpha.shape[0]
    return req


def _keep_cut(image_bgr, stroke_image, pyramid, recover, handler):
    """The 8-bit alpha, and the recovered colours (BGRA) when asked for."""
    src = arrays.bgra(image_bgr)
    dst = src.copy()  # what shows through where the recovered colours fade out
    plane = arrays.encode_strokes(stroke_image)
    aux = plane.copy()  # the host's record of its strokes
    req = _whole_image_request(src, plane, dst, aux)
    req.recoverFlag = 1 if recover else 0
    with native.job(handler) as (proc, param):
        if proc is not None:
            req.progProc, req.progParam = proc, param
        status = native.lib().qxKeepCutToAlpha(ctypes.byref(req), 0 if pyramid else 1)
    if status != 1:
        raise QxError("qxKeepCutToAlpha", status)
    # Back from the stroke coding: keep strokes 255, cut strokes 0, computed alpha as it is.
    alpha = (plane & 0xFE) + ((plane >> 1) & 1)
    return alpha, (dst if recover else None)


def matte_strokes(image, strokes, *, pyramid=False, with_foreground=False, bgr=False,
                  progress=None):
    """Alpha from keep and cut strokes (the KD-tree engine over the whole image).

    strokes: a uint8 plane (255 keep, 0 cut, any other value unpainted), a float plane
    (1 keep, 0 cut, other values and NaN unpainted), or a pair (keep, cut) of boolean planes.
    pyramid: solve at half size and double back (faster; a 1-pixel stroke may go unseen).
    with_foreground: also recover the subject's colours; returns (alpha, foreground).
    Returns the alpha in the image's kind (uint8, or float64 on 0..1). Too few strokes (no keep,
    no cut, or fewer than 3 unpainted pixels) raise QxError with status -5.
    """
    img, is_float = arrays.image_bgr8(image, bgr)
    stroke_image = arrays.strokes8(strokes, img.shape[:2])
    with _Handler(progress, "matte_strokes") as handler:
        alpha, dst = _keep_cut(img, stroke_image, bool(pyramid), bool(with_foreground), handler)
    out = arrays.mask_out(alpha, is_float)
    if with_foreground:
        return out, arrays.colour_out(dst, bgr, is_float)
    return out


# ---- Foreground colours --------------------------------------------------------------------


def _install_progress(proc, param):
    """qxRecoverForeground reports through the callback that stands installed. It is installed
    by a job; qxRecoverForegroundCell installs it and returns at once on a few opaque pixels."""
    size = 4
    src = np.full((size, size, 4), 255, np.uint8)
    dst = src.copy()
    alpha = np.full((size, size), 255, np.uint8)
    req = _whole_image_request(src, alpha, dst, alpha)
    req.progProc, req.progParam = proc, param
    native.lib().qxRecoverForegroundCell(ctypes.byref(req), 0)


def _recover(image_bgr, alpha, handler):
    """The subject's colours (BGRA) under an 8-bit alpha, by the library's least-squares
    recovery; rows the recovery leaves alone keep the image's colours."""
    src = arrays.bgra(image_bgr)
    dst = src.copy()
    plain = np.array(alpha, dtype=np.uint8, order="C", copy=True)
    aux = np.zeros(alpha.shape, np.uint8)
    req = _whole_image_request(src, plain, dst, aux)
    with native.job(handler) as (proc, param):
        if proc is not None:
            # The report of the installing call comes before the handler is wanted.
            native.RELAY.handler = None
            _install_progress(proc, param)
            native.RELAY.handler = handler
        status = native.lib().qxRecoverForeground(ctypes.byref(req), 0)
    if status != 0:
        raise QxError("qxRecoverForeground", status)
    return dst


_METHODS = ("solve", "least-squares")


def foreground(image, alpha, *, method="solve", bgr=False, progress=None):
    """The subject's own colours under an alpha from any source: where alpha is partial the
    background's share is taken out; elsewhere the image's colours stand.

    alpha: H x W, uint8 or float on 0..1. method: "solve" (the library's least-squares
    recovery; "least-squares" is the same). Returns H x W x 3 in the image's kind and order.
    """
    if method not in _METHODS:
        raise ValueError("method must be one of %s, got %r (the sampling method of qxmatte is "
                         "not part of the library's C interface)" % (", ".join(_METHODS), method))
    img, is_float = arrays.image_bgr8(image, bgr)
    a = arrays.alpha8(alpha, img.shape[:2])
    with _Handler(progress, "foreground") as handler:
        dst = _recover(img, a, handler)
    return arrays.colour_out(dst, bgr, is_float)


# ---- GrabCut -------------------------------------------------------------------------------


def _prepare_frame(codes, rect):
    """The library starts a session with a frame of sure background just inside its rectangle,
    a few pixels of its working level wide. The caller's rectangle means what it means to
    cv::grabCut: everything outside is background, everything inside is for the cut to decide.
    So the library is given the rectangle grown by a margin wider than that frame, the margin
    fixed to background; where the image's border stops the growth, the frame falls inside the
    caller's rectangle, and its pixels are marked probable foreground (250). When the rectangle
    reaches the border on all four sides the library's frame is the only background the cut
    starts from. Painted strokes stay. Returns the region handed to the library."""
    height, width = codes.shape
    x, y, w, h = rect
    # The working level's longer side is at most 400 and above 200 unless no level is made,
    # so it is reduced by at most longSide / 200.
    margin = 5 * (1 + max(width, height) // 200)
    left, top = max(0, x - margin), max(0, y - margin)
    right, bottom = min(width, x + w + margin), min(height, y + h + margin)
    outside = left < x or top < y or right > x + w or bottom > y + h
    region = codes[top:bottom, left:right]
    painted = (region == 255) | (region == 1)
    yy, xx = np.mgrid[top:bottom, left:right]
    inside = (xx >= x) & (xx < x + w) & (yy >= y) & (yy < y + h)
    region[~painted & ~inside] = 1
    if outside:
        edge = np.minimum(np.minimum(xx - left, right - 1 - xx),
                          np.minimum(yy - top, bottom - 1 - yy))
        region[~painted & inside & (edge < margin)] = 250
    return left, top, right - left, bottom - top


def _band_to_trimap(band):
    """The tri-map codes for an edge-band plane: the subject (254, or a fixed 255) 255,
    background (0, or a fixed 1) 0, the band and any other code undecided (128)."""
    out = np.full(band.shape, 128, np.uint8)
    out[band >= 254] = 255
    out[band <= 1] = 0
    return out


class GrabCutSession:
    """An interactive GrabCut selection that keeps its colour models between cuts.

    ``with GrabCutSession(image, rect) as s:`` then ``s.cut()`` gives the selection;
    ``s.add_strokes(...)`` paints keep and cut strokes (fixed foreground and background), and the
    next ``s.cut()`` goes on from the models of the cuts before (re-learned when strokes were
    added). ``s.trimap(band)`` turns the selection's edge into an undecided band. Leaving the
    ``with`` block (or ``close()``) ends the session: the library frees its state. A closed
    session refuses further use (RuntimeError).

    rect: (x, y, width, height) inside the image; everything outside it is background.
    strokes: as for matte_strokes, or None.
    """

    def __init__(self, image, rect, strokes=None, *, bgr=False):
        img, self._is_float = arrays.image_bgr8(image, bgr)
        shape = img.shape[:2]
        rect = arrays.rect4(rect, shape)
        if strokes is None:
            codes = np.full(shape, 126, np.uint8)
        else:
            codes = arrays.encode_strokes(arrays.strokes8(strokes, shape))
        self._shape = shape
        self.rect = rect
        self._src = arrays.bgra(img)
        self._codes = codes
        self.region = _prepare_frame(codes, rect)
        self._result = np.zeros(shape, np.uint8)
        self._selection = None
        self._lock = threading.Lock()
        self._closed = False

        req = native.GrabCutRequest()
        req.image, req.imageStep = _addr(self._src), _step(self._src)
        req.mask, req.maskStep = _addr(codes), _step(codes)
        req.result, req.resultStep = _addr(self._result), _step(self._result)
        req.width, req.height = shape[1], shape[0]
        req.roiLeft, req.roiTop, req.roiWidth, req.roiHeight = self.region
        self._req = req

    # -- the session's life

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()
        return False

    def __del__(self):
        try:
            self.close()
        except Exception:
            pass

    @property
    def closed(self):
        return self._closed

    def _check_open(self):
        if self._closed:
            raise RuntimeError("the GrabCut session is closed")

    def close(self):
        """Ends the session: the library frees its state and settles the codes. Idempotent."""
        lock = getattr(self, "_lock", None)
        if lock is None:  # __init__ did not get as far as a request
            return
        with lock:
            if self._closed:
                return
            self._closed = True
            native.lib().qxGrabCutDeleteBuf(ctypes.byref(self._req))

    # -- working

    def _cut8(self, handler):
        with self._lock:
            self._check_open()
            with native.job(handler) as (proc, param):
                self._req.progProc = proc if proc is not None else native.PROGRESS_PROC()
                self._req.progParam = param
                status = native.lib().qxGrabCut(ctypes.byref(self._req), 0)
            if status != 1:
                raise QxError("qxGrabCut", status)
            # The result holds 0 and 254 with in-between values along the edge, and the strokes'
            # fixed codes; outside the region it stays 0.
            self._selection = np.where(self._result >= 128, 255, 0).astype(np.uint8)
            return self._selection

    def cut(self, *, progress=None):
        """Runs one cut and returns the selection (255/0 uint8, or 1.0/0.0 float64 for a float
        image)."""
        with _Handler(progress, "grabcut") as handler:
            return arrays.mask_out(self._cut8(handler), self._is_float)

    @property
    def selection(self):
        """The last cut's selection, or None before the first cut."""
        if self._selection is None:
            return None
        return arrays.mask_out(self._selection, self._is_float)

    def add_strokes(self, strokes):
        """Paints keep (fixed foreground) and cut (fixed background) strokes for the next cut.
        Same forms as matte_strokes; unpainted pixels keep their state. Only the region handed
        to the library (``region``: the rectangle and a margin) is read by the cut."""
        stroke_image = arrays.strokes8(strokes, self._shape)
        with self._lock:
            self._check_open()
            self._codes[stroke_image == arrays.KEEP] = 255
            self._codes[stroke_image == arrays.CUT] = 1

    def _band(self, band):
        """The edge-band plane of the current selection (library codes)."""
        plane = np.zeros(self._shape, np.uint8)
        req = self._req
        req.mask, req.maskStep = _addr(plane), _step(plane)
        try:
            native.lib().qxGrabCutEdgeGen(ctypes.byref(req), band)
        finally:
            req.mask, req.maskStep = _addr(self._codes), _step(self._codes)
        return plane

    def _trimap8(self, band):
        with self._lock:
            self._check_open()
            if self._selection is None:
                raise RuntimeError("cut() first: the tri-map is made from the selection")
            return _band_to_trimap(self._band(band))

    def trimap(self, band=None):
        """A tri-map from the current selection: an undecided band of ``band`` pixels (default
        about 1% of the image's longer side, at least 10) along its edge. uint8 0 / 128 / 255,
        or float64 0 / 0.5 / 1 for a float image (matte_trimap takes either)."""
        band = arrays.band_width(band, self._shape)
        return _trimap_out(self._trimap8(band), self._is_float)


def _trimap_out(tri, is_float):
    if not is_float:
        return tri
    out = np.full(tri.shape, 0.5)
    out[tri == 255] = 1.0
    out[tri == 0] = 0.0
    return out


def grabcut(image, rect, strokes=None, *, band=None, with_trimap=False, bgr=False,
            progress=None):
    """A hard selection of the subject inside rect = (x, y, width, height), in one cut.

    strokes: as for matte_strokes, or None. Returns the selection (255/0 uint8, or 1.0/0.0
    float64 for a float image); with_trimap=True returns (selection, trimap), the tri-map with
    an undecided band of ``band`` pixels along the selection's edge (see GrabCutSession.trimap).
    """
    if band is not None and not with_trimap:
        raise ValueError("band is the tri-map's band: give with_trimap=True with it")
    if with_trimap:
        arrays.band_width(band, (1, 1))  # checked before any work
    with GrabCutSession(image, rect, strokes, bgr=bgr) as session:
        selection = session.cut(progress=progress)
        if with_trimap:
            return selection, session.trimap(band)
    return selection


# ---- Cut-out -------------------------------------------------------------------------------


def cutout(image, rect=None, trimap=None, strokes=None, *, band=None, fg_code=255, bg_code=0,
           pyramid=False, bgr=False, progress=None):
    """An RGBA cut-out: the subject's recovered colours with alpha (BGRA with bgr=True), in the
    image's kind. One of three workflows, by what is given:

    - rect (strokes optional): GrabCut in the rectangle, an undecided band of ``band`` pixels on
      the selection's edge, tri-map matting on it, foreground recovery (qxmatte cutout);
    - trimap: tri-map matting, then foreground recovery (qxmatte trimap --cutout);
    - strokes alone: keep-cut matting with its own foreground recovery (qxmatte keepcut
      --cutout).
    """
    img, is_float = arrays.image_bgr8(image, bgr)
    shape = img.shape[:2]
    if rect is not None:
        if trimap is not None:
            raise ValueError("give rect or trimap, not both")
        band = arrays.band_width(band, shape)
        with _Handler(progress, "cutout") as handler:
            alpha = _cutout_rect(img, rect, strokes, band, handler)
            colours = _recover(img, alpha, handler)
    elif trimap is not None:
        if strokes is not None:
            raise ValueError("strokes go with rect (GrabCut) or alone (keep-cut), not with a "
                             "trimap")
        fg_code, bg_code = arrays.codes(fg_code, bg_code)
        tri, fg_code, bg_code = arrays.trimap8(trimap, shape, fg_code, bg_code)
        with _Handler(progress, "cutout") as handler:
            alpha = _matte(img, tri, fg_code, bg_code, (255, 0), handler)
            colours = _recover(img, alpha, handler)
    elif strokes is not None:
        stroke_image = arrays.strokes8(strokes, shape)
        with _Handler(progress, "cutout") as handler:
            alpha, colours = _keep_cut(img, stroke_image, bool(pyramid), True, handler)
    else:
        raise ValueError("cutout needs rect, trimap or strokes")
    return arrays.colour_out(colours, bgr, is_float, alpha)


def _cutout_rect(img, rect, strokes, band, handler):
    """GrabCut, the edge band, and alpha on the band (the selection where there is no band)."""
    with GrabCutSession(img, rect, strokes, bgr=True) as session:  # img is 8-bit BGR already
        selection = session._cut8(handler)
        tri = session._trimap8(band)
    if not (tri == 128).any():
        return selection  # no edge inside the rectangle: the selection is the alpha
    return _matte(img, tri, 255, 0, (255, 0), handler)
