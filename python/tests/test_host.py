"""The package as a host of the library: progress, threads and the GIL, the calling thread's
floating-point mode, and how the library is found."""

import ctypes
import ctypes.util
import os
import subprocess
import sys
import threading
import time

import numpy as np
import pytest

import qxiveilon31 as qx
from qxiveilon31 import _native
from scenes import soft_disc

PACKAGE_DIR = os.path.dirname(os.path.dirname(os.path.abspath(qx.__file__)))


# ---- Progress ------------------------------------------------------------------------------


def test_progress_reports_climb_towards_the_total(disc):
    reports = []
    alpha = qx.matte_trimap(disc.image, disc.trimap,
                            progress=lambda current, total: reports.append((current, total)))
    assert np.array_equal(alpha, qx.matte_trimap(disc.image, disc.trimap))
    assert len(reports) >= 5
    totals = {t for _, t in reports}
    assert len(totals) == 1
    total = totals.pop()
    values = [c for c, _ in reports]
    assert all(0 < v < total for v in values)  # the total itself is never reported
    assert all(a < b for a, b in zip(values, values[1:]))


def test_foreground_reports_even_after_a_job_without_progress(disc):
    # qxRecoverForeground reports through whatever callback stands installed; a job without
    # progress installs none, so the package must install its own first.
    qx.matte_trimap(disc.image, disc.trimap)
    reports = []
    qx.foreground(disc.image, disc.trimap, progress=lambda c, t: reports.append((c, t)))
    assert reports and all(t == 20000 and 0 <= c < t for c, t in reports)
    # A later call without progress reports to nobody, though the callback stays installed.
    count = len(reports)
    qx.foreground(disc.image, disc.trimap)
    assert len(reports) == count


def test_an_exception_in_the_callback_comes_out_of_the_call(disc):
    class Stop(Exception):
        pass

    def failing(current, total):
        raise Stop(current)

    with pytest.raises(Stop):
        qx.matte_strokes(disc.image, disc.strokes, progress=failing)
    # Nothing of it is left behind for the next job.
    reports = []
    qx.matte_strokes(disc.image, disc.strokes, progress=lambda c, t: reports.append(c))
    assert reports


def test_a_job_cannot_start_from_a_callback(disc):
    def nested(current, total):
        qx.matte_trimap(disc.image, disc.trimap)

    with pytest.raises(RuntimeError, match="progress callback"):
        qx.matte_trimap(disc.image, disc.trimap, progress=nested)


def test_progress_true_draws_a_tqdm_bar(disc, capsys):
    pytest.importorskip("tqdm")
    qx.matte_trimap(disc.image, disc.trimap, progress=True)
    assert "matte_trimap" in capsys.readouterr().err


def test_the_bar_holds_on_a_fall_back_and_starts_over_for_a_new_total(capsys):
    pytest.importorskip("tqdm")
    from qxiveilon31 import _progress

    bar = _progress.handler(True, "test")
    shown = []
    for current, total in ((10, 100), (50, 100), (30, 100), (60, 100), (5, 200), (40, 200)):
        bar(current, total)
        shown.append((bar._bar.n, bar._bar.total))
    bar.close()
    assert shown == [(10, 100), (50, 100), (50, 100), (60, 100), (5, 200), (40, 200)]


def test_progress_true_without_tqdm_warns_and_works(disc, monkeypatch):
    monkeypatch.setitem(sys.modules, "tqdm", None)  # import tqdm now fails
    with pytest.warns(UserWarning, match="tqdm"):
        alpha = qx.matte_trimap(disc.image, disc.trimap, progress=True)
    assert np.array_equal(alpha, qx.matte_trimap(disc.image, disc.trimap))


def test_progress_of_another_kind_is_refused(disc, no_library):
    with pytest.raises(TypeError, match="progress"):
        qx.matte_trimap(disc.image, disc.trimap, progress="yes")


# ---- Threads -------------------------------------------------------------------------------


def _longest_stall_while_a_job_runs(scene):
    """Runs a job on another thread while this one spins; returns the longest time this thread
    could not run during the job, and the job's length. Holding the GIL through the library
    call would stall this thread for about the whole call."""
    window = {}
    finished = threading.Event()

    def work():
        window["start"] = time.perf_counter()
        qx.matte_trimap(scene.image, scene.trimap)
        window["end"] = time.perf_counter()
        finished.set()

    worker = threading.Thread(target=work)
    stalls = []  # (before, after) of each pause over a millisecond
    last = time.perf_counter()
    worker.start()
    while not finished.is_set():
        now = time.perf_counter()
        if now - last > 1e-3:
            stalls.append((last, now))
        last = now
    worker.join()
    start, end = window["start"], window["end"]
    inside = [min(b, end) - max(a, start) for a, b in stalls if b > start and a < end]
    return max(inside, default=0.0), end - start


def test_the_gil_is_released_while_a_job_runs(monkeypatch):
    scene = soft_disc(400, 300, radius=90, band=16)  # a job of a few tenths of a second
    stall, length = _longest_stall_while_a_job_runs(scene)
    assert stall < 0.5 * length, (stall, length)
    # The measure can tell: the same library through ctypes.PyDLL, which keeps the GIL for the
    # length of each call, stalls this thread for most of the job.
    monkeypatch.setattr(_native, "LIB", _native.Library(ctypes.PyDLL(qx.library_path()), None))
    stall, length = _longest_stall_while_a_job_runs(scene)
    assert stall > 0.5 * length, (stall, length)


def test_jobs_from_several_threads_run_one_at_a_time_and_agree(disc):
    # The library's progress state is one for the process; the package's jobs take turns, and
    # each job's reports reach its own callback, on the thread that called it.
    expected = qx.matte_trimap(disc.image, disc.trimap)
    results, reports, callers = [None] * 3, [[] for _ in range(3)], [None] * 3

    def work(i):
        callers[i] = threading.get_ident()
        results[i] = qx.matte_trimap(
            disc.image, disc.trimap,
            progress=lambda c, t: reports[i].append((threading.get_ident(), c)))

    threads = [threading.Thread(target=work, args=(i,)) for i in range(3)]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    for r, rep, caller in zip(results, reports, callers):
        assert np.array_equal(r, expected)
        assert rep and all(ident == caller for ident, _ in rep)
        values = [c for _, c in rep]
        assert all(a < b for a, b in zip(values, values[1:]))


def test_the_calling_threads_floating_point_mode_is_left_alone(disc):
    # The library flushes denormals on the threads that do its work, never on the caller's.
    tiny = np.float64(np.finfo(np.float64).tiny)
    qx.matte_trimap(disc.image, disc.trimap)
    qx.foreground(disc.image, disc.trimap)
    assert tiny / 4 > 0 and np.array([tiny])[0] * 0.5 > 0


# ---- Finding the library -------------------------------------------------------------------


def _import_in_a_new_process(env):
    env = {k: v for k, v in env.items() if v is not None}
    env["PYTHONPATH"] = PACKAGE_DIR
    code = "import qxiveilon31 as q; print(q.library_path()); print(q.library_version())"
    return subprocess.run([sys.executable, "-c", code], env=env, capture_output=True, text=True)


def test_the_library_is_found_through_the_variable_or_the_loader():
    folder = os.path.dirname(qx.library_path())
    base = {k: v for k, v in os.environ.items()
            if k not in ("QXIVEILON31_LIBRARY", "LD_LIBRARY_PATH")}
    by_loader = _import_in_a_new_process({**base, "LD_LIBRARY_PATH": folder})
    assert by_loader.returncode == 0, by_loader.stderr
    assert os.path.dirname(by_loader.stdout.splitlines()[0]) == folder
    assert by_loader.stdout.splitlines()[1] == str(qx.library_version())

    missing = _import_in_a_new_process({**base, "QXIVEILON31_LIBRARY": "/nonexistent/libqx.so"})
    assert missing.returncode != 0
    assert "ImportError" in missing.stderr and "/nonexistent/libqx.so" in missing.stderr
    assert "QXIVEILON31_LIBRARY" in missing.stderr and "LD_LIBRARY_PATH" in missing.stderr


def test_an_unknown_library_is_refused():
    # Any shared object without the library's functions: the C library itself.
    libc = ctypes.util.find_library("c")
    env = {k: v for k, v in os.environ.items() if k != "QXIVEILON31_LIBRARY"}
    done = _import_in_a_new_process({**env, "QXIVEILON31_LIBRARY": libc})
    assert done.returncode != 0 and "not a qxiveilon31 library" in done.stderr


def test_the_package_and_library_versions_fit():
    major, minor, _ = qx.library_version()
    package_major, package_minor = map(int, qx.__version__.split(".")[:2])
    assert major == package_major == _native.EXPECTED_MAJOR
    assert minor >= _native.LEAST_MINOR and package_minor >= _native.LEAST_MINOR
