"""Folders of photos: ``batch(in_dir, out_dir, scheduler=None)``.

Each photo with a partner file is one task, and a task is ``qxmatte batch IN -o OUT --only
NAME``: the command-line tool's own rules for partners, kept outputs and failures, and its own
image files, so that the outputs are byte for byte those of ``qxmatte batch``. Without a
scheduler the tasks run on local threads; with the address of a dask.distributed scheduler each
task runs on one of the cluster's workers, which must reach IN and OUT under the same paths (a
shared file system) and have the package and ``qxmatte`` installed (the setup command installs
both).
"""
import os
import re
import shutil
import subprocess
from concurrent.futures import ThreadPoolExecutor

from . import _native as native

PHOTO_EXTENSIONS = (".png", ".jpg", ".jpeg", ".tif", ".tiff")
PARTNERS = (".mask.png", ".trimap.png", ".strokes.png")


def qxmatte_path():
    """The command-line tool: QXMATTE when set; else beside the library (a build tree) or in
    the bin folder next to its lib folder (an install); else on PATH."""
    explicit = os.environ.get("QXMATTE")
    if explicit:
        return explicit
    lib = native.lib().path or ""
    folder = os.path.dirname(lib)
    for candidate in (os.path.join(folder, "qxmatte"),
                      os.path.join(os.path.dirname(folder), "bin", "qxmatte")):
        if os.access(candidate, os.X_OK):
            return candidate
    found = shutil.which("qxmatte")
    if found:
        return found
    raise FileNotFoundError("qxiveilon31.batch needs the qxmatte tool: install it (the setup "
                            "command does) or set QXMATTE to its path")


def photos_with_partners(in_dir):
    """The names (file names less extension) of the photos in in_dir that have a partner file,
    sorted, and the number without one."""
    names, alone = [], 0
    for entry in sorted(os.listdir(in_dir)):
        path = os.path.join(in_dir, entry)
        stem, ext = os.path.splitext(entry)
        if not os.path.isfile(path) or ext.lower() not in PHOTO_EXTENSIONS:
            continue
        if any(stem.lower().endswith(p[:-4]) for p in PARTNERS):
            continue
        if any(os.path.exists(os.path.join(in_dir, stem + p)) for p in PARTNERS):
            names.append(stem)
        else:
            alone += 1
    return names, alone


_LINE = re.compile(r"^batch: (\d+) written, (\d+) up to date, (\d+) failed")


def run_photo(tool, in_dir, out_dir, name):
    """One task: the photo `name` (tool None: the worker's own qxmatte). Returns (name, state,
    reason): state "written", "current" or "failed"."""
    tool = tool or qxmatte_path()
    done = subprocess.run([tool, "batch", in_dir, "-o", out_dir, "--only", name, "-q"],
                          capture_output=True, text=True)
    lines = done.stdout.splitlines()
    head = _LINE.match(lines[0]) if lines else None
    if head is None:
        return name, "failed", (done.stderr.strip() or "qxmatte exited with %d" % done.returncode)
    written, current, failed = (int(v) for v in head.groups())
    if failed:
        reason = lines[1].split(": ", 1)[1] if len(lines) > 1 else "failed"
        return name, "failed", reason
    return name, "written" if written else "current", ""


def batch(in_dir, out_dir, scheduler=None, *, jobs=None):
    """Every photo NAME.png / .jpg / .tif in in_dir with a partner NAME.mask.png (refine),
    NAME.trimap.png (tri-map job) or NAME.strokes.png (strokes) becomes out_dir/NAME.png, an
    RGBA cut-out byte for byte what ``qxmatte batch`` writes. An output newer than its inputs
    is kept; a failing photo does not stop the others.

    scheduler: None (local threads, ``jobs`` at once, default 2), or the address of a
    dask.distributed scheduler ("tcp://host:8786") or a ``distributed.Client``: each photo is
    a task on the cluster's workers.

    Returns a dict: ``written``, ``current`` (kept) and ``failed`` ({name: reason}), and
    ``without_partner`` (how many photos had none).
    """
    in_dir, out_dir = os.path.abspath(in_dir), os.path.abspath(out_dir)
    if not os.path.isdir(in_dir):
        raise ValueError("%s: not a folder" % in_dir)
    os.makedirs(out_dir, exist_ok=True)
    names, alone = photos_with_partners(in_dir)
    if scheduler is None:
        tool = qxmatte_path()
        with ThreadPoolExecutor(jobs or 2) as pool:
            results = list(pool.map(lambda n: run_photo(tool, in_dir, out_dir, n), names))
    else:
        from distributed import Client
        client = scheduler if isinstance(scheduler, Client) else Client(scheduler)
        try:
            futures = client.map(run_photo, [None] * len(names), [in_dir] * len(names),
                                 [out_dir] * len(names), names, pure=False)
            results = client.gather(futures)
        finally:
            if client is not scheduler:
                client.close()
    summary = {"written": [], "current": [], "failed": {}, "without_partner": alone}
    for name, state, reason in results:
        if state == "failed":
            summary["failed"][name] = reason
        else:
            summary[state].append(name)
    return summary
