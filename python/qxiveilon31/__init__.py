"""qxiveilon31: image matting over NumPy arrays.

Pure Python over the shared library ``libqxiveilon31.so.0`` (through ctypes). Each function runs
the library's host workflows (qxworkflow.h), the calls the command-line tool ``qxmatte`` and the
GIMP plug-in make, and gives their result on the same input:

- ``matte_trimap(image, trimap)``: alpha from a tri-map;
- ``matte_strokes(image, strokes)``: alpha from keep and cut strokes (three engines);
- ``foreground(image, alpha)``: the subject's own colours under an alpha;
- ``grabcut(image, rect)`` and ``GrabCutSession``: a hard selection in a rectangle;
- ``cutout(image, rect=..., trimap=..., strokes=...)``: an RGBA cut-out;
- ``refine(image, mask)``: an RGBA cut-out from a coarse mask of any source;
- ``subject_mask(image)`` and ``cutout(image)``: the subject in one click, from a segmentation
  network that scripts/setup.sh installs (``NoSubjectModel`` without it);
- ``batch(in_dir, out_dir, scheduler=None)``: folders of photos, locally or on a dask cluster.

Images are H x W x 3 arrays, uint8 RGB (``bgr=True`` for OpenCV's order) or float on 0..1;
results come back in the image's kind. Failures of a job raise ``QxError``; bad shapes and
dtypes raise ``ValueError`` before the library is called. The GIL is released while a job runs.

The library is found through ``QXIVEILON31_LIBRARY``, else beside the package, else through the
system's loader (see README.md).
"""

from ._native import Cancelled, NoSubjectModel, QxError, LIB as _LIB
from ._api import (GrabCutSession, cutout, foreground, grabcut, matte_strokes, matte_trimap,
                   refine, subject_mask)
from ._batch import batch

__version__ = "0.4.0"

__all__ = ["Cancelled", "NoSubjectModel", "QxError", "GrabCutSession", "batch", "cutout",
           "foreground", "grabcut", "matte_strokes", "matte_trimap", "refine", "subject_mask",
           "library_version", "library_path", "__version__"]


def library_version():
    """(major, minor, patch) of the shared library loaded."""
    return _LIB.version()


def library_path():
    """The file of the shared library loaded."""
    return _LIB.path
