"""The public functions: each checks and converts its arrays, then runs the library's workflows
(qxworkflow.h), the same calls the command-line tool ``qxmatte`` makes."""

import ctypes
import os
import threading
import warnings

import numpy as np

from . import _arrays as arrays
from . import _native as native
from ._native import Cancelled, QxError


# ---- Progress ------------------------------------------------------------------------------

TOTAL = 1000  # a callback's reports are (current, TOTAL)


class _Stage:
    """One library call of a public function: where its progress goes (None: nowhere) and the
    ``cancel=`` object of the function."""

    def __init__(self, report, cancel):
        self.report, self.cancel = report, cancel


class _Progress:
    """The ``progress=`` and ``cancel=`` arguments of one call. progress: None or False (no
    reports), a callable(current, total), or True (a tqdm bar). A call of several workflows
    gives each its share of one climb from 0 to TOTAL, which never goes back. cancel: None, or
    any object with ``is_set()``; once it is set the running workflow stops and the call raises
    Cancelled."""

    def __init__(self, progress, desc, stages=1, cancel=None):
        if cancel is not None and not callable(getattr(cancel, "is_set", None)):
            raise TypeError("cancel must have an is_set() method (a threading.Event), got %r"
                            % (cancel,))
        self.cancel = cancel
        self.stages, self.stage, self.shown, self.bar, self.fn = stages, 0, -1, None, None
        if progress is True:
            try:
                from tqdm import tqdm
            except ImportError:
                warnings.warn("qxiveilon31: progress=True draws its bar with tqdm, which is not "
                              "installed (apt install python3-tqdm); no bar is drawn",
                              stacklevel=3)
                return
            self.bar = tqdm(total=TOTAL, desc=desc, leave=False)
            self.fn = lambda current, total: self.bar.update(current - self.bar.n)
        elif callable(progress):
            self.fn = progress
        elif progress is not None and progress is not False:
            raise TypeError("progress must be None, True or False, or a callable(current, "
                            "total), got %r" % (progress,))

    def report(self, fraction):
        current = int((self.stage + min(max(fraction, 0.0), 1.0)) / self.stages * TOTAL)
        if current > self.shown:
            self.shown = current
            self.fn(current, TOTAL)

    def next(self):
        """The next workflow of the call: its reporter (None without reports) and cancel."""
        self.stage += 1
        report = self.report if self.fn is not None and self.stage < self.stages else None
        return _Stage(report, self.cancel)

    def __enter__(self):
        self.stage = -1
        return self

    def __exit__(self, *exc):
        if self.bar is not None:
            self.bar.close()
        return False


def _outputs(shape, channels=1, name="output"):
    """A new uint8 result (compact rows) with its address and row stride for the library."""
    out = np.empty(tuple(shape) + ((channels,) if channels > 1 else ()), np.uint8)
    return (out,) + arrays.rows(out, name)


# ---- Matting -------------------------------------------------------------------------------


def _matte(record, tri, fg_code, bg_code, levels, report):
    alpha, ptr, stride = _outputs(tri.shape, name="alpha output")
    native.run("qxwMatteTrimap", report, ctypes.byref(record), *arrays.rows(tri, "trimap"),
               fg_code, bg_code, levels[0], levels[1], ptr, stride)
    return alpha


def matte_trimap(image, trimap, *, fg_code=255, bg_code=0, levels=(255, 0), bgr=False,
                 progress=None, cancel=None):
    """Alpha from an image and a tri-map (closed-form matting).

    image: H x W x 3, uint8 RGB (BGR with ``bgr=True``) or float on 0..1.
    trimap: H x W, uint8 (codes <= bg_code background, >= fg_code foreground, others
    undecided) or float (1 foreground, 0 background, other values undecided).
    levels: (high, low), the final levels stretch [low, high] to [0, 255].
    Returns the alpha, H x W: uint8 for a uint8 image, float64 on 0..1 for a float image.
    A tri-map the job can't use (no undecided pixel, too few rows) raises ValueError saying why.
    """
    fg_code, bg_code = arrays.codes(fg_code, bg_code)
    levels = arrays.levels(levels)
    img, record, is_float = arrays.image8(image, bgr)
    tri, fg_code, bg_code = arrays.trimap8(trimap, img.shape[:2], fg_code, bg_code)
    with _Progress(progress, "matte_trimap", cancel=cancel) as p:
        alpha = _matte(record, tri, fg_code, bg_code, levels, p.next())
    return arrays.mask_out(alpha, is_float)


def _engine(engine, pyramid):
    if engine not in native.ENGINES:
        raise ValueError("engine must be one of %s, got %r" % (", ".join(native.ENGINES), engine))
    if pyramid:
        if engine not in ("strokes", "pyramid"):
            raise ValueError("pyramid=True is engine=\"pyramid\"; it can't go with engine=%r"
                             % (engine,))
        engine = "pyramid"
    return native.ENGINES[engine]


def _strokes_alpha(record, strokes, engine, report):
    alpha, ptr, stride = _outputs(strokes.shape, name="alpha output")
    native.run("qxwMatteStrokes", report, ctypes.byref(record), *arrays.rows(strokes, "strokes"),
               engine, ptr, stride)
    return alpha


def matte_strokes(image, strokes, *, engine="strokes", pyramid=False, with_foreground=False,
                  bgr=False, progress=None, cancel=None):
    """Alpha from keep and cut strokes.

    strokes: a uint8 plane (255 keep, 0 cut, any other value unpainted), a float plane
    (1 keep, 0 cut, other values and NaN unpainted), or a pair (keep, cut) of boolean planes.
    engine: "strokes" (the stroke engine, default), "kdtree" (the older tiled engine at full
    size) or "pyramid" (the tiled engine at half size, doubled back: faster, a 1-pixel stroke
    may go unseen). pyramid=True is engine="pyramid".
    with_foreground: also recover the subject's colours; returns (alpha, foreground).
    Returns the alpha in the image's kind (uint8, or float64 on 0..1). Too few strokes (no keep,
    no cut, or too few unpainted pixels) raise QxError.
    """
    engine = _engine(engine, pyramid)
    img, record, is_float = arrays.image8(image, bgr)
    plane = arrays.strokes8(strokes, img.shape[:2])
    with _Progress(progress, "matte_strokes", 2 if with_foreground else 1, cancel=cancel) as p:
        alpha = _strokes_alpha(record, plane, engine, p.next())
        if with_foreground:
            colours = _recover(record, alpha, native.METHODS["full"], p.next())
    out = arrays.mask_out(alpha, is_float)
    return (out, arrays.mask_out(colours, is_float)) if with_foreground else out


# ---- Foreground colours --------------------------------------------------------------------


def _recover(record, alpha, method, report):
    colours, ptr, stride = _outputs(alpha.shape, 3, "colour output")
    out = native.ColourOut(ptr, stride)
    native.run("qxwRecoverForeground", report, ctypes.byref(record), *arrays.rows(alpha, "alpha"),
               method, ctypes.byref(out))
    return colours


def foreground(image, alpha, *, method="full", bgr=False, progress=None, cancel=None):
    """The subject's own colours under an alpha from any source: where alpha is partial the
    background's share is taken out; elsewhere the image's colours stand.

    alpha: H x W, uint8 or float on 0..1. method: "full" (the full-resolution recovery, the
    default), "least-squares" (the quarter-scale solve; "solve" is the same) or "sampling"
    (shared-sample separation).
    Returns H x W x 3 in the image's kind and order.
    """
    if method not in native.METHODS:
        raise ValueError("method must be one of %s, got %r" % (", ".join(native.METHODS), method))
    img, record, is_float = arrays.image8(image, bgr)
    a = arrays.alpha8(alpha, img.shape[:2])
    with _Progress(progress, "foreground", cancel=cancel) as p:
        colours = _recover(record, a, native.METHODS[method], p.next())
    return arrays.mask_out(colours, is_float)


# ---- GrabCut -------------------------------------------------------------------------------


def grabcut(image, rect, strokes=None, *, band=None, with_trimap=False, bgr=False,
            progress=None, cancel=None):
    """A hard selection of the subject inside rect = (x, y, width, height), in one cut.

    strokes: as for matte_strokes, or None. Returns the selection (255/0 uint8, or 1.0/0.0
    float64 for a float image); with_trimap=True returns (selection, trimap), the tri-map with
    an undecided band of ``band`` pixels (default about 1% of the longer side, at least 10)
    along the selection's edge: 0/128/255, or 0/0.5/1 for a float image.
    """
    if band is not None and not with_trimap:
        raise ValueError("band is the tri-map's band: give with_trimap=True with it")
    band = arrays.band_width(band)
    img, record, is_float = arrays.image8(image, bgr)
    x, y, w, h = arrays.rect4(rect, img.shape[:2])
    plane = None if strokes is None else arrays.strokes8(strokes, img.shape[:2])
    selection, sel_ptr, sel_stride = _outputs(img.shape[:2], name="selection output")
    tri, tri_ptr, tri_stride = (_outputs(img.shape[:2], name="trimap output") if with_trimap
                                else (None, None, 0))
    with _Progress(progress, "grabcut", cancel=cancel) as p:
        native.run("qxwSelectSubject", p.next(), ctypes.byref(record),
                   *arrays.rows(plane, "strokes"), x, y, w, h, band, sel_ptr, sel_stride,
                   tri_ptr, tri_stride)
    selection = arrays.mask_out(selection, is_float)
    return (selection, arrays.trimap_out(tri, is_float)) if with_trimap else selection


class GrabCutSession:
    """An interactive GrabCut selection that keeps its colour models between cuts.

    ``with GrabCutSession(image, rect) as s:`` then ``s.cut()`` gives the selection;
    ``s.add_strokes(...)`` paints keep and cut strokes (fixed foreground and background), and the
    next ``s.cut()`` goes on from the models of the cuts before. ``s.trimap(band)`` turns the
    selection's edge into an undecided band. Leaving the ``with`` block (or ``close()``) frees
    the library's state; a closed session refuses further use (RuntimeError).

    rect: (x, y, width, height) inside the image; everything outside it is background.
    strokes: as for matte_strokes, or None.
    """

    def __init__(self, image, rect, strokes=None, *, bgr=False):
        img, record, self._is_float = arrays.image8(image, bgr)
        shape = self._shape = img.shape[:2]
        self.rect = arrays.rect4(rect, shape)
        plane = None if strokes is None else arrays.strokes8(strokes, shape)
        self._strokes = None  # painted since the last cut
        self._selection, self._closed, self._lock = None, False, threading.Lock()
        self._session = ctypes.c_void_p()
        native.run("qxwGrabCutBegin", _Stage(None, None), ctypes.byref(record),
                   *arrays.rows(plane, "strokes"), *self.rect, ctypes.byref(self._session))

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

    def _check(self):
        if self._closed:
            raise RuntimeError("the GrabCut session is closed")

    def close(self):
        """Ends the session: the library frees its state. Idempotent."""
        lock = getattr(self, "_lock", None)
        if lock is None:  # __init__ did not get as far as a session
            return
        with lock:
            if not self._closed:
                self._closed = True
                native.lib().qxwGrabCutEnd(self._session)

    def cut(self, *, progress=None, cancel=None):
        """Runs one cut and returns the selection (255/0 uint8, or 1.0/0.0 float64 for a float
        image)."""
        with self._lock, _Progress(progress, "grabcut", cancel=cancel) as p:
            self._check()
            selection, ptr, stride = _outputs(self._shape, name="selection output")
            native.run("qxwGrabCutCut", p.next(), self._session,
                       *arrays.rows(self._strokes, "strokes"), ptr, stride)
            self._strokes, self._selection = None, selection
        return self.selection

    @property
    def selection(self):
        """The last cut's selection, or None before the first cut."""
        return None if self._selection is None else arrays.mask_out(self._selection,
                                                                   self._is_float)

    def add_strokes(self, strokes):
        """Paints keep (fixed foreground) and cut (fixed background) strokes for the next cut.
        Same forms as matte_strokes; unpainted pixels keep their state. Only the rectangle and
        a margin around it are read by the cut."""
        plane = arrays.strokes8(strokes, self._shape)
        with self._lock:
            self._check()
            if self._strokes is None:
                self._strokes = plane.copy()
            else:  # later strokes over earlier ones
                painted = (plane == arrays.KEEP) | (plane == arrays.CUT)
                self._strokes[painted] = plane[painted]

    def trimap(self, band=None):
        """A tri-map from the current selection: an undecided band of ``band`` pixels (default
        about 1% of the image's longer side, at least 10) along its edge. uint8 0 / 128 / 255,
        or float64 0 / 0.5 / 1 for a float image (matte_trimap takes either)."""
        band = arrays.band_width(band) or 0
        with self._lock:
            self._check()
            if self._selection is None:
                raise RuntimeError("cut() first: the tri-map is made from the selection")
            tri, ptr, stride = _outputs(self._shape, name="trimap output")
            native.run("qxwGrabCutTrimap", _Stage(None, None), self._session, band, ptr, stride)
        return arrays.trimap_out(tri, self._is_float)


# ---- Refine --------------------------------------------------------------------------------


def refine(image, mask, *, bgr=False, progress=None, cancel=None):
    """A clean RGBA cut-out from a coarse mask or soft alpha of any source (a segmentation
    model, a rough brush, another editor's selection): H x W, uint8 or float on 0..1. The
    undecided band comes from the mask and the image; the colours are recovered. Same as
    ``qxmatte refine``. A mask that is all one value raises ValueError."""
    img, record, is_float = arrays.image8(image, bgr)
    shape = img.shape[:2]
    m = arrays.alpha8(mask, shape)
    colours, c_ptr, c_stride = _outputs(shape, 3, "colour output")
    alpha, a_ptr, a_stride = _outputs(shape, name="alpha output")
    with _Progress(progress, "refine", cancel=cancel) as p:
        native.run("qxwRefineMask", p.next(), ctypes.byref(record), *arrays.rows(m, "mask"),
                   a_ptr, a_stride, ctypes.byref(native.ColourOut(c_ptr, c_stride)))
    rgba = np.empty(shape + (4,), np.uint8)
    rgba[:, :, :3], rgba[:, :, 3] = colours, alpha
    return arrays.mask_out(rgba, is_float)


# ---- Subject selection ---------------------------------------------------------------------


def _subject_options(model):
    if model is None:
        return native.SubjectOptions(None)
    return native.SubjectOptions(os.fsencode(model))


def subject_mask(image, *, model=None, bgr=False, progress=None, cancel=None):
    """The subject's soft mask in one click, from the segmentation network that
    scripts/setup.sh installs (model: its file; default QX_SUBJECT_MODEL, then the user's
    cache). H x W, uint8 (255 subject) or float on 0..1 for a float image. A missing model
    raises NoSubjectModel. The network's pass (about 3 s) can't be interrupted: a cancel is
    seen after it."""
    img, record, is_float = arrays.image8(image, bgr)
    mask, ptr, stride = _outputs(img.shape[:2], name="mask output")
    options = _subject_options(model)
    with _Progress(progress, "subject_mask", cancel=cancel) as p:
        native.run("qxwSubjectMask", p.next(), ctypes.byref(record), ctypes.byref(options),
                   ptr, stride)
    return arrays.mask_out(mask, is_float)


# ---- Cut-out -------------------------------------------------------------------------------


def cutout(image, rect=None, trimap=None, strokes=None, *, subject=None, model=None, band=None,
           fg_code=255, bg_code=0, engine="strokes", pyramid=False, bgr=False, progress=None,
           cancel=None):
    """An RGBA cut-out: the subject's recovered colours with alpha (BGRA with bgr=True), in the
    image's kind. One of four workflows, by what is given:

    - nothing but the image, or ``subject=True`` (rect and strokes optional): the subject's mask
      from the segmentation network (``model`` as in subject_mask), outside rect background,
      strokes over it, solved on a band reaching far inside the mask's edge (qxmatte cutout
      without --rect);

    - rect (strokes optional): GrabCut in the rectangle, an undecided band of ``band`` pixels on
      the selection's edge, tri-map matting on it, foreground recovery (qxmatte cutout);
    - trimap: tri-map matting, then foreground recovery (qxmatte trimap --cutout);
    - strokes alone: stroke matting with ``engine`` (as matte_strokes), then foreground
      recovery (qxmatte keepcut --cutout).
    """
    if rect is not None and trimap is not None:
        raise ValueError("give rect or trimap, not both")
    if trimap is not None and strokes is not None:
        raise ValueError("strokes go with rect (GrabCut) or alone (strokes), not with a trimap")
    if subject is None:
        subject = rect is None and trimap is None and strokes is None
    if subject and trimap is not None:
        raise ValueError("subject=True goes with rect and strokes, not with a trimap")
    img, record, is_float = arrays.image8(image, bgr)
    shape = img.shape[:2]
    if subject:
        x, y, w, h = (0, 0, 0, 0) if rect is None else arrays.rect4(rect, shape)
        plane = None if strokes is None else arrays.strokes8(strokes, shape)
        colours, c_ptr, c_stride = _outputs(shape, 3, "colour output")
        alpha, a_ptr, a_stride = _outputs(shape, name="alpha output")
        options = _subject_options(model)
        with _Progress(progress, "cutout", cancel=cancel) as p:
            native.run("qxwCutoutSubject", p.next(), ctypes.byref(record), ctypes.byref(options),
                       *arrays.rows(plane, "strokes"), x, y, w, h, a_ptr, a_stride,
                       ctypes.byref(native.ColourOut(c_ptr, c_stride)))
    elif rect is not None:
        band = arrays.band_width(band)
        x, y, w, h = arrays.rect4(rect, shape)
        plane = None if strokes is None else arrays.strokes8(strokes, shape)
        colours, c_ptr, c_stride = _outputs(shape, 3, "colour output")
        alpha, a_ptr, a_stride = _outputs(shape, name="alpha output")
        with _Progress(progress, "cutout", cancel=cancel) as p:
            native.run("qxwCutoutFromRect", p.next(), ctypes.byref(record),
                       *arrays.rows(plane, "strokes"), x, y, w, h, band, a_ptr, a_stride,
                       ctypes.byref(native.ColourOut(c_ptr, c_stride)))
    else:
        if trimap is not None:
            fg_code, bg_code = arrays.codes(fg_code, bg_code)
            tri, fg_code, bg_code = arrays.trimap8(trimap, shape, fg_code, bg_code)
        else:
            engine = _engine(engine, pyramid)
            plane = arrays.strokes8(strokes, shape)
        with _Progress(progress, "cutout", 2, cancel=cancel) as p:
            if trimap is not None:
                alpha = _matte(record, tri, fg_code, bg_code, (255, 0), p.next())
            else:
                alpha = _strokes_alpha(record, plane, engine, p.next())
            colours = _recover(record, alpha, native.METHODS["full"], p.next())
    rgba = np.empty(shape + (4,), np.uint8)
    rgba[:, :, :3], rgba[:, :, 3] = colours, alpha
    return arrays.mask_out(rgba, is_float)
