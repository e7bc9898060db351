"""Folders of photos: ``batch(in_dir, out_dir, scheduler=None)``.

Each photo with a partner file is one task, and a task is ``qxmatte batch IN -o OUT --only
NAME``: the command-line tool's own rules for partners, kept outputs and failures, and its own
image files, so that the outputs are byte for byte those of ``qxmatte batch``. The arguments are
checked as the tool checks them, before any task. Without a scheduler the tasks run on local
threads; with the address of a dask.distributed scheduler each task runs on one of the
cluster's workers, which must reach IN and OUT under the same paths (a shared file system) and
have the package and ``qxmatte`` installed (the setup command installs both).
"""
import os
import re
import shutil
import subprocess
from concurrent.futures import ThreadPoolExecutor

from . import _arrays as arrays
from . import _native as native

PHOTO_EXTENSIONS = (".png", ".jpg", ".jpeg", ".tif", ".tiff", ".webp")
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
    sorted, each once (photos of one name and two extensions are one task, which the tool
    fails for the second), and {file name: why} of the photos skipped."""
    names, skipped = [], {}
    for entry in sorted(os.listdir(in_dir)):
        path = os.path.join(in_dir, entry)
        stem, ext = os.path.splitext(entry)
        if not os.path.isfile(path) or ext.lower() not in PHOTO_EXTENSIONS:
            continue
        if any(stem.lower().endswith(p[:-4]) for p in PARTNERS):
            continue
        if any(os.path.exists(os.path.join(in_dir, stem + p)) for p in PARTNERS):
            if stem not in names:
                names.append(stem)
        else:
            skipped[entry] = "no partner %s.mask.png, %s.trimap.png or %s.strokes.png" \
                % (stem, stem, stem)
    return names, skipped


def check_arguments(in_dir, out_dir, jobs):
    """The tool's checks of IN, OUT and -j, made before any task: (in_dir, out_dir) as
    absolute paths, or ValueError saying what is wrong. OUT must be an existing, writable
    folder other than IN (the cut-outs NAME.png would replace the photos NAME.png); it is
    never made."""
    if jobs is not None and not arrays._is_int(jobs, 1, float("inf")):
        raise ValueError("jobs takes None or an int of at least 1, got %r" % (jobs,))
    paths = []
    for what, value, needed in (("in_dir", in_dir, "the folder of photos"),
                                ("out_dir", out_dir, "an existing folder for the cut-outs")):
        path = os.fsdecode(os.fspath(value)) if value is not None else ""
        if not path:
            raise ValueError("%s is needed: %s" % (what, needed))
        paths.append(os.path.abspath(path))
    in_dir, out_dir = paths
    if not os.path.isdir(in_dir):
        raise ValueError("%s: not a folder" % in_dir)
    if not os.path.exists(out_dir):
        raise ValueError("%s: no such folder (make it first)" % out_dir)
    if not os.path.isdir(out_dir):
        raise ValueError("%s: not a folder" % out_dir)
    if not os.access(out_dir, os.W_OK | os.X_OK):
        raise ValueError("%s: the folder is not writable" % out_dir)
    if os.path.samefile(in_dir, out_dir):
        raise ValueError("the output folder is the input folder: %s; the cut-outs NAME.png "
                         "would replace the photos, name another folder" % out_dir)
    return in_dir, out_dir


_HEAD = re.compile(r"^batch: (\d+) written, (\d+) up to date, (\d+) failed")
_ENTRY = re.compile(r"^  (.+?): (.*)$")


def failure_reason(lines, name):
    """The reason on the first of the tool's lines "  FILE: reason" whose FILE is a photo of
    this name (failures come before any other such lines)."""
    for line in lines:
        entry = _ENTRY.match(line)
        if entry and os.path.splitext(entry.group(1))[0] == name:
            return entry.group(2)
    return "failed"


def run_photo(tool, in_dir, out_dir, name):
    """One task: the photo `name` (tool None: the worker's own qxmatte). Returns (name, state,
    reason): state "written", "current" or "failed"."""
    tool = tool or qxmatte_path()
    done = subprocess.run([tool, "batch", in_dir, "-o", out_dir, "--only", name, "-q"],
                          capture_output=True, text=True)
    lines = done.stdout.splitlines()
    head = next(filter(None, map(_HEAD.match, lines)), None)
    if head is None:
        return name, "failed", (done.stderr.strip() or "qxmatte exited with %d" % done.returncode)
    written, current, failed = (int(v) for v in head.groups())
    if failed:
        return name, "failed", failure_reason(lines, name)
    return name, "written" if written else "current", ""


def batch(in_dir, out_dir=None, scheduler=None, *, jobs=None):
    """Every photo NAME.png / .jpg / .jpeg / .tif / .tiff / .webp in in_dir with a partner
    NAME.mask.png (refine), NAME.trimap.png (tri-map job) or NAME.strokes.png (strokes) becomes
    out_dir/NAME.png, an RGBA cut-out byte for byte what ``qxmatte batch`` writes. An output
    newer than its inputs is kept; a failing photo does not stop the others.

    out_dir: an existing, writable folder, not in_dir itself (compared by device and inode);
    it is not made. Anything else raises ValueError before any photo is read.
    scheduler: None (local threads, ``jobs`` at once: None for 2, or an int of at least 1), or
    the address of a dask.distributed scheduler ("tcp://host:8786") or a
    ``distributed.Client``: each photo is a task on the cluster's workers.

    Returns a dict: ``written``, ``current`` (kept) and ``failed`` ({name: reason}),
    ``skipped`` ({file name: reason}: the photos without a partner) and ``without_partner``
    (how many those are).
    """
    in_dir, out_dir = check_arguments(in_dir, out_dir, jobs)
    names, skipped = photos_with_partners(in_dir)
    if scheduler is None:
        tool = qxmatte_path()
        with ThreadPoolExecutor(2 if jobs is None else int(jobs)) as pool:
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
    summary = {"written": [], "current": [], "failed": {}, "without_partner": len(skipped),
               "skipped": skipped}
    for name, state, reason in results:
        if state == "failed":
            summary["failed"][name] = reason
        else:
            summary[state].append(name)
    return summary
