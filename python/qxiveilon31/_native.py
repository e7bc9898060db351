"""The shared library through ctypes: finding and loading it, the records and prototypes of the
workflow interface (qxworkflow.h) and of the GrabCut calls a session keeps its state in, the
error type, and the job context that relays progress.

Calls go through ``ctypes.CDLL``, which releases the GIL for the length of each call: other
Python threads run while a job runs, and jobs on different threads run at the same time (the
library keeps progress and cancel per thread).
"""

import ctypes
import ctypes.util
import os
import threading

LIBRARY_ENV = "QXIVEILON31_LIBRARY"
SONAME = "libqxiveilon31.so.0"
# The interface this package was written against: the same major version, at least this minor.
EXPECTED_MAJOR = 0
LEAST_MINOR = 2

c_int, c_int32, c_void_p, c_double = ctypes.c_int, ctypes.c_int32, ctypes.c_void_p, ctypes.c_double

QXW_OK, QXW_BAD_INPUT, QXW_FAILED, QXW_CANCELLED, QXW_NO_MODEL = 0, 1, 2, 3, 4
QX_CANCELLED = -3  # a cancelled library job
QXW_BGR, QXW_RGB = 0, 1
ENGINES = {"strokes": 0, "kdtree": 1, "pyramid": 2}
METHODS = {"full": 2, "solve": 0, "least-squares": 0, "sampling": 1}

PROGRESS_FN = ctypes.CFUNCTYPE(None, c_double, c_void_p)


class Image(ctypes.Structure):  # QxwImage
    _fields_ = [("pixels", c_void_p), ("stride", c_int32), ("channels", c_int32),
                ("width", c_int32), ("height", c_int32), ("order", c_int32)]


class ColourOut(ctypes.Structure):  # QxwColourOut
    _fields_ = [("pixels", c_void_p), ("stride", c_int32)]


class SubjectOptions(ctypes.Structure):  # QxwSubjectOptions
    _fields_ = [("modelPath", ctypes.c_char_p)]


class Job(ctypes.Structure):  # QxwJob
    _fields_ = [("progress", PROGRESS_FN), ("progressData", c_void_p),
                ("libraryStatus", c_int32), ("message", ctypes.c_char * 512),
                ("cancel", c_void_p)]



# ctypes cuts a larger value to 32 bits without a word when it fills these records' int32 fields
# and the prototypes' c_int arguments: row strides come only through _arrays.rows, widths and
# heights only after _arrays.image8 has checked the image's sides (every plane has its size),
# and both refuse what does not fit.

# The sizes and offsets the C headers fix.
assert ctypes.sizeof(Image) == 32 and ctypes.sizeof(ColourOut) == 16
assert ctypes.sizeof(Job) == 544 and Job.message.offset == 20 and Job.cancel.offset == 536


class QxError(RuntimeError):
    """A job of the library failed. The message is the workflow's own line in words (out of
    memory says what the job needed and what was free); ``status`` is the status the failing
    job returned, for programs, ``meaning`` the workflow's message, ``function`` the C function
    that was called."""

    def __init__(self, function, status, text="unknown failure"):
        self.function, self.status, self.meaning = function, status, text
        super().__init__("%s: %s" % (function, text))

    def __reduce__(self):
        return (type(self), (self.function, self.status, self.meaning))


class NoSubjectModel(QxError):
    """The subject-selection network is not installed (run scripts/setup.sh, or set
    QX_SUBJECT_MODEL or ``model=``); the message says where it was looked for."""


class Cancelled(QxError):
    """The call was cancelled through its ``cancel=`` object; nothing was written."""

    def __init__(self, function, status=QX_CANCELLED, text="cancelled"):
        super().__init__(function, status, text)


_P = ctypes.POINTER
_IMG, _JOB, _BYTES = _P(Image), _P(Job), c_void_p
_PROTOTYPES = {
    "qxVersion": (c_int, [_P(c_int)] * 3),
    "qxwMatteTrimap": (c_int, [_IMG, _BYTES, c_int, c_int, c_int, c_int, c_int, _BYTES, c_int,
                               _JOB]),
    "qxwMatteStrokes": (c_int, [_IMG, _BYTES, c_int, c_int, _BYTES, c_int, _JOB]),
    "qxwRecoverForeground": (c_int, [_IMG, _BYTES, c_int, c_int, _P(ColourOut), _JOB]),
    "qxwSelectSubject": (c_int, [_IMG, _BYTES, c_int] + [c_int] * 5 + [_BYTES, c_int, _BYTES,
                                                                        c_int, _JOB]),
    "qxwCutoutFromRect": (c_int, [_IMG, _BYTES, c_int] + [c_int] * 5 + [_BYTES, c_int,
                                                                         _P(ColourOut), _JOB]),
    "qxwDefaultBand": (c_int, [c_int, c_int]),
    "qxwGrabCutBegin": (c_int, [_IMG, _BYTES, c_int] + [c_int] * 4 + [_P(c_void_p), _JOB]),
    "qxwGrabCutCut": (c_int, [c_void_p, _BYTES, c_int, _BYTES, c_int, _JOB]),
    "qxwGrabCutTrimap": (c_int, [c_void_p, c_int, _BYTES, c_int, _JOB]),
    "qxwGrabCutEnd": (None, [c_void_p]),
    "qxwRefineMask": (c_int, [_IMG, _BYTES, c_int, _BYTES, c_int, _P(ColourOut), _JOB]),
    "qxwSubjectMask": (c_int, [_IMG, _P(SubjectOptions), _BYTES, c_int, _JOB]),
    "qxwCutoutSubject": (c_int, [_IMG, _P(SubjectOptions), _BYTES, c_int] + [c_int] * 4 +
                         [_BYTES, c_int, _P(ColourOut), _JOB]),
}


class Library:
    """The bound functions of one loaded copy of the shared library."""

    def __init__(self, dll, path):
        self.dll, self.path = dll, path
        for name, (restype, argtypes) in _PROTOTYPES.items():
            fn = getattr(dll, name)
            fn.restype, fn.argtypes = restype, argtypes
            setattr(self, name, fn)

    def version(self):
        v = [c_int() for _ in range(3)]
        self.qxVersion(*[ctypes.byref(x) for x in v])
        return tuple(x.value for x in v)


def _installed_library():
    """The library that `cmake --install` put beside this package (None elsewhere)."""
    try:
        from . import _installed
    except ImportError:
        return None
    path = os.path.join(os.path.dirname(os.path.abspath(__file__)), _installed.LIBRARY)
    path = os.path.normpath(path)  # an absolute LIBRARY stays as it is
    return path if os.path.exists(path) else None


def _loaded_path(dll, fallback):
    """The file the dynamic loader actually mapped for dll (dladdr on one of its functions)."""

    class DlInfo(ctypes.Structure):
        _fields_ = [("dli_fname", ctypes.c_char_p), ("dli_fbase", c_void_p),
                    ("dli_sname", ctypes.c_char_p), ("dli_saddr", c_void_p)]

    try:
        dladdr = ctypes.CDLL(None).dladdr
        dladdr.argtypes, dladdr.restype = [c_void_p, _P(DlInfo)], c_int
        info = DlInfo()
        if dladdr(ctypes.cast(dll.qxVersion, c_void_p).value, ctypes.byref(info)) \
                and info.dli_fname:
            return os.path.realpath(os.fsdecode(info.dli_fname))
    except (AttributeError, OSError):
        pass
    return fallback


def _open():
    """Loads the library: the path in QXIVEILON31_LIBRARY when set; else the copy installed
    beside this package by `cmake --install`; else the system loader's (an installed library,
    or LD_LIBRARY_PATH pointing at a build tree)."""
    how_to = ("Set %s to the library's path (for a build tree: build/%s), or let the system "
              "loader find it: install it (cmake --install build) or put its folder on "
              "LD_LIBRARY_PATH." % (LIBRARY_ENV, SONAME))
    explicit = os.environ.get(LIBRARY_ENV)
    candidates = [explicit] if explicit else [
        _installed_library(), SONAME, ctypes.util.find_library("qxiveilon31")]
    dll, tried = None, []
    for name in filter(None, candidates):
        try:
            dll = ctypes.CDLL(name)
            break
        except OSError as e:
            tried.append(str(e))
    if dll is None:
        where = "named by %s (%s)" % (LIBRARY_ENV, explicit) if explicit else SONAME
        raise ImportError("qxiveilon31: cannot load the library %s: %s. %s"
                          % (where, "; ".join(tried), how_to))
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


# ---- Jobs and their progress ---------------------------------------------------------------

_INSIDE = threading.local()

# How often a job's cancel object is looked at while the call makes no report.
_WATCH_SECONDS = 0.05


class job:
    """One library call: ``with job(report, function, cancel) as j: status = lib().qxw...(...,
    j)``. Hands the library a QxwJob whose progress goes to ``report(fraction)`` (when not
    None) and whose cancel flag is raised at the first report after ``cancel.is_set()`` (any
    object with ``is_set()``, such as a ``threading.Event``); re-raises an exception the report
    raised once the call has returned, and turns a status other than QXW_OK into ValueError (bad
    input), Cancelled or QxError (a failed job)."""

    def __init__(self, report, function, cancel=None):
        if cancel is not None and not callable(getattr(cancel, "is_set", None)):
            raise TypeError("cancel must have an is_set() method (a threading.Event), got %r"
                            % (cancel,))
        self.report, self.function, self.cancel = report, function, cancel
        self.record, self.error = Job(), None
        self._flag = c_int32(0)
        self.flag = ctypes.cast(ctypes.pointer(self._flag), c_void_p)
        self.record.cancel = self.flag
        # Kept on self: the library may call them until the call returns.
        self._fn = PROGRESS_FN(self._relay)
        if report is not None or cancel is not None:
            self.record.progress = self._fn

    def _poll(self):
        if self.cancel is not None and self.cancel.is_set():
            self._flag.value = 1

    def _relay(self, fraction, _data):
        self._poll()
        if self.error is not None or self.report is None:
            return
        _INSIDE.active = True
        try:
            self.report(fraction)
        except BaseException as e:  # raised again when the call returns
            self.error = e
        finally:
            _INSIDE.active = False

    def __enter__(self):
        if getattr(_INSIDE, "active", False):
            raise RuntimeError("qxiveilon31: a job cannot start from inside a progress callback")
        self._poll()
        # Between reports (a long factorisation makes none) a watcher raises the flag: the
        # library looks at it every few milliseconds while it waits for such work.
        self._done = threading.Event()
        self._watcher = None
        if self.cancel is not None:
            self._watcher = threading.Thread(target=self._watch, daemon=True,
                                             name="qxiveilon31-cancel")
            self._watcher.start()
        return ctypes.byref(self.record)

    def _watch(self):
        while not self._done.wait(_WATCH_SECONDS):
            self._poll()
            if self._flag.value:
                return

    def __exit__(self, *exc):
        self._done.set()
        if self._watcher is not None:
            self._watcher.join()
        return False

    def check(self, status):
        """After the call: the callback's exception, or the status as an exception."""
        if self.error is not None:
            raise self.error
        text = self.record.message.decode("utf-8", "replace") or "unknown failure"
        if status == QXW_BAD_INPUT:
            raise ValueError(text)
        if status == QXW_CANCELLED:
            raise Cancelled(self.function)
        if status == QXW_NO_MODEL:
            raise NoSubjectModel(self.function, status, text)
        if status != QXW_OK:
            raise QxError(self.function, self.record.libraryStatus, text)


def run(function, stage, *args):
    """Calls the workflow ``function`` with args and a job record for ``stage`` (its report and
    cancel); raises on failure."""
    j = job(stage.report, function, stage.cancel)
    with j as record:
        status = getattr(lib(), function)(*args, record)
    j.check(status)
