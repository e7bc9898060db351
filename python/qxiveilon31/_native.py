"""The shared library through ctypes: finding and loading it, the request records, the
prototypes of the calls the package makes, the statuses, and the progress relay.

Calls go through ``ctypes.CDLL``, which releases the GIL for the length of each call: other
Python threads run while a job runs. The library's progress state is global to the process, so
the jobs that report progress run one at a time (``job``).
"""

import ctypes
import ctypes.util
import os
import threading

LIBRARY_ENV = "QXIVEILON31_LIBRARY"
SONAME = "libqxiveilon31.so.0"
# The interface this package was written against: the same major version, at least this minor.
EXPECTED_MAJOR = 0
LEAST_MINOR = 1

c_int = ctypes.c_int
c_int32 = ctypes.c_int32
c_int64 = ctypes.c_int64
c_void_p = ctypes.c_void_p
c_ubyte = ctypes.c_ubyte

PROGRESS_PROC = ctypes.CFUNCTYPE(c_int, c_int, c_int, c_void_p)


class MaskRequest(ctypes.Structure):
    _fields_ = [
        ("reserved0", c_void_p),
        ("planes", c_void_p),  # three plane pointers, B, G, R
        ("planeStep", c_int32),
        ("reserved1", c_int32),
        ("mask", c_void_p),
        ("maskStep", c_int32),
        ("width", c_int32),
        ("height", c_int32),
        ("reserved2", c_ubyte * 20),
        ("progProc", PROGRESS_PROC),
        ("progParam", c_void_p),
    ]


class KeepCutRequest(ctypes.Structure):
    _fields_ = [
        ("srcImage", c_void_p),
        ("srcStep", c_int32),
        ("reserved0", c_int32),
        ("alphaPlane", c_void_p),
        ("alphaStep", c_int32),
        ("reserved1", c_int32),
        ("dstImage", c_void_p),
        ("dstStep", c_int32),
        ("reserved2", c_int32),
        ("auxPlane", c_void_p),
        ("auxStep", c_int32),
        ("fullWidth", c_int32),
        ("fullHeight", c_int32),
        ("roiX", c_int32),
        ("roiY", c_int32),
        ("roiWidth", c_int32),
        ("roiHeight", c_int32),
        ("regionMode", c_int32),
        ("recoverFlag", c_ubyte),
        ("reserved3", c_ubyte * 7),
        ("progProc", PROGRESS_PROC),
        ("progParam", c_void_p),
        ("foreColor", c_void_p),
        ("backColor", c_void_p),
        ("reserved4", c_ubyte * 24),
        ("mergeMode", c_int32),
        ("reserved5", c_int32),
    ]


class GrabCutRequest(ctypes.Structure):
    _fields_ = [
        ("image", c_void_p),
        ("imageStep", c_int32),
        ("reserved0", c_int32),
        ("mask", c_void_p),
        ("maskStep", c_int32),
        ("reserved1", c_ubyte * 20),
        ("result", c_void_p),
        ("resultStep", c_int32),
        ("width", c_int32),
        ("height", c_int32),
        ("reserved2", c_ubyte * 28),
        ("progProc", PROGRESS_PROC),
        ("progParam", c_void_p),
        ("reserved3", c_ubyte * 16),
        ("control", c_void_p),
        ("roiWidth", c_int32),
        ("roiHeight", c_int32),
        ("roiLeft", c_int32),
        ("roiTop", c_int32),
    ]


# The records' sizes and the offsets the library reads, as the C header fixes them.
_LAYOUT = {
    MaskRequest: (80, {"planes": 8, "planeStep": 16, "mask": 24, "maskStep": 32, "width": 36,
                       "height": 40, "progProc": 64, "progParam": 72}),
    KeepCutRequest: (160, {"srcStep": 8, "alphaPlane": 16, "alphaStep": 24, "dstImage": 32,
                           "dstStep": 40, "auxPlane": 48, "auxStep": 56, "fullWidth": 60,
                           "fullHeight": 64, "roiX": 68, "roiY": 72, "roiWidth": 76,
                           "roiHeight": 80, "regionMode": 84, "recoverFlag": 88, "progProc": 96,
                           "progParam": 104, "foreColor": 112, "backColor": 120,
                           "mergeMode": 152}),
    GrabCutRequest: (152, {"imageStep": 8, "mask": 16, "maskStep": 24, "result": 48,
                           "resultStep": 56, "width": 60, "height": 64, "progProc": 96,
                           "progParam": 104, "control": 128, "roiWidth": 136, "roiHeight": 140,
                           "roiLeft": 144, "roiTop": 148}),
}
for _record, (_size, _offsets) in _LAYOUT.items():
    assert ctypes.sizeof(_record) == _size, _record.__name__
    for _field, _offset in _offsets.items():
        assert getattr(_record, _field).offset == _offset, (_record.__name__, _field)


# ---- Statuses ------------------------------------------------------------------------------

_SOLVER = {-879: "the direct solver failed in its analysis",
           -878: "the direct solver failed in its factorisation",
           -877: "the direct solver failed in its solve"}
_IMAGE_MEMORY = {-898: "out of memory for an image",
                 -897: "an image's guard row was overwritten",
                 -888: "out of memory for an image over 5000 pixels wide",
                 -887: "out of memory for an image over 5000 pixels high",
                 -870: "an array allocation failed"}

MEANINGS = {
    "qxMaskAlpha": {
        -1000: "the request was refused, or the job failed unexpectedly",
        -1001: "the system to solve is too large",
        -875: "the direct solver ran out of memory",
        **_SOLVER, **_IMAGE_MEMORY,
    },
    "qxKeepCutToAlpha": {
        -1: "an area without enough strokes is too large to solve in one piece, or memory ran "
            "out: add keep and cut strokes across the subject",
        -5: "too few strokes: paint at least one keep and one cut stroke, and leave at least "
            "3 pixels unpainted",
        102: "out of memory for an image",
        103: "an image's guard row was overwritten",
        112: "out of memory for an image over 5000 pixels wide",
        113: "out of memory for an image over 5000 pixels high",
        121: "the direct solver failed in its analysis",
        122: "the direct solver failed in its factorisation",
        123: "the direct solver failed in its solve",
        125: "the direct solver ran out of memory",
        130: "an array allocation failed",
        -1000: "the request was refused, or the job failed unexpectedly",
    },
    "qxRecoverForeground": {
        -2: "the request was refused",
        -989: "a cell is too large for one system",
        -1000: "the job failed unexpectedly",
        **_SOLVER, **_IMAGE_MEMORY,
    },
    "qxGrabCut": {
        0: "the request was refused",
        102: "out of memory for an image",
        103: "an image's guard row was overwritten",
        112: "out of memory for an image over 5000 pixels wide",
        113: "out of memory for an image over 5000 pixels high",
        -1000: "the job failed unexpectedly",
    },
}


def meaning(function, status):
    """What a failure status of one of the library's jobs means, in a few words."""
    known = MEANINGS.get(function, {}).get(status)
    if known:
        return known
    if function == "qxMaskAlpha" and status > -1000:
        return "internal failure %d" % (status + 1000)
    return "unknown failure"


class QxError(RuntimeError):
    """A job of the library failed. ``status`` is the status it returned, ``meaning`` what it
    means, ``function`` the C function that returned it."""

    def __init__(self, function, status, text=None):
        self.function = function
        self.status = status
        self.meaning = text or meaning(function, status)
        super().__init__("%s failed with status %d: %s" % (function, status, self.meaning))

    def __reduce__(self):
        return (type(self), (self.function, self.status, self.meaning))


# ---- Loading -------------------------------------------------------------------------------


class Library:
    """The bound functions of one loaded copy of the shared library."""

    def __init__(self, dll, path):
        self.dll = dll
        self.path = path
        i = ctypes.POINTER(c_int)
        self._bind("qxVersion", c_int, [i, i, i])
        self._bind("qxMaskBBox", c_int, [c_int, c_void_p, c_int, c_int, c_int, i, i, i, i, i, i,
                                         c_int, c_int, c_int])
        self._bind("qxMaskAlpha", c_int, [ctypes.POINTER(MaskRequest), c_int, ctypes.c_float,
                                          c_int, c_int, c_int, c_int])
        kc = ctypes.POINTER(KeepCutRequest)
        self._bind("qxKeepCutToAlpha", c_int, [kc, c_int])
        self._bind("qxRecoverForeground", c_int64, [kc, c_int])
        self._bind("qxRecoverForegroundCell", c_int64, [kc, c_int64])
        gc = ctypes.POINTER(GrabCutRequest)
        self._bind("qxGrabCut", c_int, [gc, c_int])
        self._bind("qxGrabCutDeleteBuf", None, [gc])
        self._bind("qxGrabCutEdgeGen", None, [gc, c_int])

    def _bind(self, name, restype, argtypes):
        fn = getattr(self.dll, name)
        fn.restype = restype
        fn.argtypes = argtypes
        setattr(self, name, fn)

    def version(self):
        major, minor, patch = c_int(), c_int(), c_int()
        self.qxVersion(ctypes.byref(major), ctypes.byref(minor), ctypes.byref(patch))
        return major.value, minor.value, patch.value


def _installed_library():
    """The library that `cmake --install` put beside this package (None elsewhere)."""
    try:
        from . import _installed
    except ImportError:
        return None
    path = _installed.LIBRARY
    if not os.path.isabs(path):
        path = os.path.normpath(os.path.join(os.path.dirname(os.path.abspath(__file__)), path))
    return path if os.path.exists(path) else None


def _loaded_path(dll, fallback):
    """The file the dynamic loader actually mapped for dll (dladdr on one of its functions)."""

    class DlInfo(ctypes.Structure):
        _fields_ = [("dli_fname", ctypes.c_char_p), ("dli_fbase", c_void_p),
                    ("dli_sname", ctypes.c_char_p), ("dli_saddr", c_void_p)]

    try:
        libc = ctypes.CDLL(None)
        dladdr = libc.dladdr
        dladdr.argtypes = [c_void_p, ctypes.POINTER(DlInfo)]
        dladdr.restype = c_int
        info = DlInfo()
        address = ctypes.cast(dll.qxVersion, c_void_p).value
        if dladdr(address, ctypes.byref(info)) and info.dli_fname:
            return os.path.realpath(os.fsdecode(info.dli_fname))
    except (AttributeError, OSError):
        pass
    return fallback


def _open(loader=ctypes.CDLL):
    """Loads the library: the path in QXIVEILON31_LIBRARY when set; else the copy installed
    beside this package by `cmake --install`; else the system loader's (an installed library,
    or LD_LIBRARY_PATH pointing at a build tree)."""
    how_to = ("Set %s to the library's path (for a build tree: build/%s), or let the system "
              "loader find it: install it (cmake --install build) or put its folder on "
              "LD_LIBRARY_PATH." % (LIBRARY_ENV, SONAME))
    explicit = os.environ.get(LIBRARY_ENV)
    if explicit:
        try:
            dll = loader(explicit)
        except OSError as e:
            raise ImportError("qxiveilon31: cannot load the library named by %s (%s): %s. %s"
                              % (LIBRARY_ENV, explicit, e, how_to)) from None
    else:
        dll, tried = None, []
        candidates = [_installed_library(), SONAME, ctypes.util.find_library("qxiveilon31")]
        for name in candidates:
            if not name:
                continue
            try:
                dll = loader(name)
                break
            except OSError as e:
                tried.append(str(e))
        if dll is None:
            raise ImportError("qxiveilon31: cannot find the shared library %s (%s). %s"
                              % (SONAME, "; ".join(tried), how_to))
    try:
        lib = Library(dll, None)
    except AttributeError as e:
        raise ImportError("qxiveilon31: the library loaded is not a qxiveilon31 library of a "
                          "known version (%s)" % e) from None
    lib.path = _loaded_path(dll, getattr(dll, "_name", None))
    major, minor, patch = lib.version()
    if major != EXPECTED_MAJOR or minor < LEAST_MINOR:
        raise ImportError("qxiveilon31: the library at %s is version %d.%d.%d; this package "
                          "needs %d.x with x >= %d" % (lib.path, major, minor, patch,
                                                       EXPECTED_MAJOR, LEAST_MINOR))
    return lib


LIB = _open()


def lib():
    """The bound library (a function, so that a test can put another copy in its place)."""
    return LIB


# ---- Progress ------------------------------------------------------------------------------


class _Relay:
    """The one progress callback this package ever hands the library. The library keeps the
    last callback installed after a job and some calls report through whatever stands
    installed, so the callback must outlive every job: it lives as long as the process and
    passes each report on to the handler of the job running now, if any."""

    def __init__(self):
        self.handler = None
        self.error = None
        self.inside = threading.local()
        self.proc = PROGRESS_PROC(self._report)
        # Reports go out only with a non-null parameter; the library just hands it back.
        self._anchor = c_int(1)
        self.param = ctypes.cast(ctypes.pointer(self._anchor), c_void_p)

    def _report(self, current, total, _param):
        handler = self.handler
        if handler is None or self.error is not None:
            return 1
        self.inside.active = True
        try:
            handler(current, total)
        except BaseException as e:  # re-raised when the job returns
            self.error = e
        finally:
            self.inside.active = False
        return 1


RELAY = _Relay()
_JOB_LOCK = threading.Lock()


class job:
    """A context for one call of a job that reports progress: it holds the package's job lock
    (the library's progress state is shared by the process), installs the handler, and hands out
    the callback and parameter to put into the request (None, None without a handler). An
    exception raised by the handler is raised again when the job has returned."""

    def __init__(self, handler):
        self.handler = handler

    def __enter__(self):
        if getattr(RELAY.inside, "active", False):
            raise RuntimeError("qxiveilon31: a job cannot start from inside a progress callback")
        _JOB_LOCK.acquire()
        RELAY.error = None
        RELAY.handler = self.handler
        if self.handler is None:
            return None, None
        return RELAY.proc, RELAY.param

    def __exit__(self, exc_type, exc, tb):
        error = RELAY.error
        RELAY.handler = None
        RELAY.error = None
        _JOB_LOCK.release()
        if error is not None and exc_type is None:
            raise error
        return False
