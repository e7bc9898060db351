"""The package's interface: inputs, refusals, failures, progress, cancel and threads."""

import ctypes
import os
import subprocess
import sys
import threading
import time
from concurrent.futures import ThreadPoolExecutor

import numpy as np
import pytest
from numpy.lib.stride_tricks import as_strided

import qxiveilon31 as qx
from qxiveilon31 import _native
from scenes import soft_disc


def test_orders_kinds_and_strides_give_the_same_bytes(disc):
    alpha = qx.matte_trimap(disc.image, disc.trimap)
    fg = qx.foreground(disc.image, alpha)
    warm = fg[disc.alpha == 1.0]
    assert warm[:, 0].mean() > warm[:, 2].mean() + 100  # RGB in, RGB out: red is the high one
    bgr = np.ascontiguousarray(disc.image[:, :, ::-1])
    assert np.array_equal(qx.foreground(bgr, alpha, bgr=True), fg[:, :, ::-1])
    # Windows of larger arrays (rows read in place at their stride), channels of an RGBA array
    # (pixels 4 bytes apart), a Fortran-ordered copy, a reversed view.
    big, big_t = np.zeros((129, 173, 3), np.uint8), np.zeros((129, 173), np.uint8)
    big[4:-5, 6:-7], big_t[4:-5, 6:-7] = disc.image, disc.trimap
    rgba = np.dstack([disc.image, disc.trimap])
    for image, trimap in ((big[4:-5, 6:-7], big_t[4:-5, 6:-7]), (rgba[:, :, :3], rgba[:, :, 3]),
                          (np.asfortranarray(disc.image), np.asfortranarray(disc.trimap)),
                          (disc.image[::-1, ::-1][::-1, ::-1], disc.trimap[:, :, None])):
        assert np.array_equal(qx.matte_trimap(image, trimap), alpha)
    # Float images (0..1, rounded as OpenCV converts) give float results of the same bytes.
    for dtype in (np.float64, np.float32):
        image = disc.image.astype(dtype) / dtype(255)
        image[disc.image == 255] = 1.5  # saturates
        result = qx.matte_trimap(image, disc.trimap / 255.0)
        assert result.dtype == np.float64 and np.array_equal(np.rint(result * 255), alpha)


def _rows_apart(path, a, step):
    # A read-only view of a's rows `step` bytes apart in a sparse file: a stride cut to 32 bits
    # reads the zeros a row's bytes away instead of the next row, still inside the file.
    row = a[0].nbytes
    span = (a.shape[0] - 1) * abs(step) + a.nbytes + row
    first = 0 if step > 0 else span - a.nbytes - row
    with open(path, "wb") as f:
        f.truncate(span)
        for k, values in enumerate(np.ascontiguousarray(a)):
            os.pwrite(f.fileno(), values.tobytes(), first + k * step)
    buffer = np.memmap(path, np.uint8, "r", shape=(span,))
    return as_strided(buffer[first:], shape=a.shape, strides=(step,) + a.strides[1:],
                      writeable=False)


def test_rows_further_apart_than_a_32_bit_stride_are_copied_not_cut(disc, square_scene,
                                                                    tmp_path):
    square, _, _ = square_scene
    rect = (30, 20, 110, 105)
    marks = np.full(square.shape[:2], 128, np.uint8)  # keep on the disc, cut in a corner
    marks[65:75, 75:85], marks[22:30, 32:40] = 255, 0
    coarse = np.where(disc.alpha >= 0.5, 255, 0).astype(np.uint8)

    def results(image, trimap, strokes, mask, square, marks):
        with qx.GrabCutSession(square, rect) as session:
            session.add_strokes(marks)
            cut = session.cut()
        return {"matte_trimap": qx.matte_trimap(image, trimap),
                "matte_strokes": qx.matte_strokes(image, strokes),
                "foreground": qx.foreground(image, mask), "session": cut}

    arrays = (disc.image, disc.trimap, disc.strokes, coarse, square, marks)
    want = results(*arrays)
    for step in (2 ** 32 + disc.image[0].nbytes, -(2 ** 32 - disc.image[0].nbytes)):
        far = [_rows_apart(tmp_path / ("%d-%d" % (k, step)), a, step)
               for k, a in enumerate(arrays)]
        assert all(abs(v.strides[0]) > 2 ** 31 - 1 and np.array_equal(v, a)
                   for v, a in zip(far, arrays))
        got = results(*far)
        for name in want:
            assert np.array_equal(got[name], want[name]), (name, step)
    for p in tmp_path.iterdir():
        p.unlink()


def test_sides_and_strides_the_c_ints_cannot_hold_are_refused(no_library):
    byte = np.zeros(4, np.uint8)  # every view below lies over these 4 bytes
    for shape, side in (((2 ** 31, 1, 3), "height"), ((1, 2 ** 31, 3), "width")):
        huge = as_strided(byte, shape=shape, strides=(0, 0, 1))
        with pytest.raises(ValueError, match="image: its %s of %d pixels" % (side, 2 ** 31)):
            qx.foreground(huge, huge[:, :, 0])
    # The last check before a call, on arrays the package makes itself (outputs, a GrabCut
    # session's buffers): a stride ctypes would cut to 32 bits is named, never handed over.
    from qxiveilon31 import _arrays
    assert _arrays.rows(byte.reshape(2, 2), "mask") == (byte.ctypes.data, 2)
    for strides in ((2 ** 32 + 2, 1), (2 ** 31, 1), (-2, 1), (2, 2)):
        view = as_strided(byte, shape=(2, 2), strides=strides)
        with pytest.raises(ValueError, match=r"mask: .*strides \(%d, %d\)" % strides):
            _arrays.rows(view, "mask")


def test_stroke_forms_agree(disc):
    expected = qx.matte_strokes(disc.image, disc.strokes)
    keep, cut = disc.strokes == 255, disc.strokes == 0
    for strokes in ((keep, cut), np.where(keep, 1.0, np.where(cut, 0.0, np.nan)),
                    np.where(disc.strokes == 128, 77, disc.strokes).astype(np.uint8)):
        assert np.array_equal(qx.matte_strokes(disc.image, strokes), expected)


def test_the_callers_arrays_are_left_as_they_were(disc):
    image, trimap, strokes = disc.image.copy(), disc.trimap.copy(), disc.strokes.copy()
    qx.matte_trimap(image, trimap)
    qx.matte_strokes(image, strokes, with_foreground=True)
    qx.foreground(image, trimap, method="sampling")
    qx.cutout(image, rect=(30, 15, 100, 90), strokes=strokes)
    qx.grabcut(image, (30, 15, 100, 90), strokes, with_trimap=True)
    assert np.array_equal(image, disc.image) and np.array_equal(trimap, disc.trimap)
    assert np.array_equal(strokes, disc.strokes)


IMAGE = np.zeros((40, 50, 3), np.uint8)
PLANE = np.full((40, 50), 128, np.uint8)


@pytest.mark.parametrize("call, message", [
    (lambda: qx.matte_trimap(IMAGE[:, :, 0], PLANE), "H x W x 3"),
    (lambda: qx.matte_trimap(IMAGE.astype(np.int32), PLANE), "uint8"),
    (lambda: qx.matte_trimap(IMAGE, PLANE[:, :49]), r"\(40, 49\)"),
    (lambda: qx.matte_trimap(IMAGE, PLANE, fg_code=100, bg_code=100), "below"),
    (lambda: qx.matte_trimap(np.full((40, 50, 3), np.nan), PLANE), "NaN"),
    (lambda: qx.matte_strokes(IMAGE, PLANE == 255), "pair"),
    (lambda: qx.matte_strokes(IMAGE, PLANE, engine="kdtree", pyramid=True), "pyramid"),
    (lambda: qx.foreground(IMAGE, PLANE, method="magic"), "method"),
    (lambda: qx.grabcut(IMAGE, (0, 0, 51, 10)), "not inside"),
    (lambda: qx.grabcut(IMAGE, (0, 0, 10, 10), band=5), "with_trimap"),
    (lambda: qx.GrabCutSession(IMAGE, (0, 0, 10.0, 10)), "four ints"),
    (lambda: qx.cutout(IMAGE, trimap=PLANE, strokes=PLANE), "not with a trimap"),
])
def test_bad_arguments_are_refused_before_the_library_is_called(no_library, call, message):
    with pytest.raises(ValueError, match=message):
        call()


def test_what_the_workflows_refuse_or_fail_comes_out_as_their_message(disc, monkeypatch):
    with pytest.raises(ValueError, match="no undecided pixel"):
        qx.matte_trimap(disc.image, np.full(disc.trimap.shape, 255, np.uint8))

    def failing(*args):  # a job that fails as a library job does: its status, a message
        job = args[-1]._obj
        job.libraryStatus, job.message = -875, b"the direct solver ran out of memory"
        return _native.QXW_FAILED

    monkeypatch.setattr(_native.LIB, "qxwMatteTrimap", failing)
    with pytest.raises(qx.QxError) as caught:
        qx.matte_trimap(disc.image, disc.trimap)
    e = caught.value
    assert (e.function, e.status, e.meaning) == ("qxwMatteTrimap", -875,
                                                 "the direct solver ran out of memory")
    # The message is the workflow's line; the status is for programs, not for people.
    assert str(e) == "qxwMatteTrimap: the direct solver ran out of memory"


def test_progress_reaches_each_callers_callback_on_its_thread(disc, capsys):
    def work(_):
        reports = []
        rgba = qx.cutout(disc.image, trimap=disc.trimap, progress=lambda c, t: reports.append(
            (threading.get_ident(), c, t)))
        return rgba, reports, threading.get_ident()

    with ThreadPoolExecutor(3) as pool:
        for rgba, reports, caller in pool.map(work, range(3)):
            assert np.array_equal(rgba[:, :, 3], qx.matte_trimap(disc.image, disc.trimap))
            assert len(reports) >= 5 and {(i, t) for i, _, t in reports} == {(caller, 1000)}
            values = [c for _, c, _ in reports]  # matting, then recovery: one climb
            assert values == sorted(set(values)) and values[-1] > 500
    qx.matte_trimap(disc.image, disc.trimap, progress=True)
    assert "matte_trimap" in capsys.readouterr().err  # tqdm's bar
    # An exception raised by the callback comes out of the call; a job can't start inside it.
    with pytest.raises(KeyError):
        qx.matte_strokes(disc.image, disc.strokes, progress=lambda c, t: {}[c])
    with pytest.raises(RuntimeError, match="progress callback"):
        qx.matte_trimap(disc.image, disc.trimap, progress=lambda c, t: qx.matte_trimap(
            disc.image, disc.trimap))
    with pytest.raises(TypeError, match="progress"):
        qx.matte_trimap(disc.image, disc.trimap, progress="yes")


def _longest_stall(scene):
    # (the longest this spinning thread could not run, the length of a job on another thread)
    worker = threading.Thread(target=qx.matte_trimap, args=(scene.image, scene.trimap))
    start = last = time.perf_counter()
    longest = 0.0
    worker.start()
    while worker.is_alive():
        now = time.perf_counter()
        longest, last = max(longest, now - last), now
    return longest, time.perf_counter() - start


def test_the_gil_is_released_while_a_job_runs(monkeypatch):
    scene = soft_disc(400, 300, radius=90, band=16)
    stall, length = _longest_stall(scene)
    assert stall < 0.5 * length, (stall, length)
    # The measure can tell: through ctypes.PyDLL, which keeps the GIL, this thread stalls.
    monkeypatch.setattr(_native, "LIB", _native.Library(ctypes.PyDLL(qx.library_path()), None))
    stall, length = _longest_stall(scene)
    assert stall > 0.5 * length, (stall, length)


def test_cancel_stops_a_job_within_a_second_and_the_next_job_is_right():
    s = soft_disc(2400, 1800, radius=700.0, ramp=40.0, band=60.0)
    event = threading.Event()
    event.set()
    with pytest.raises(qx.Cancelled):  # set before: the job does not start
        qx.matte_trimap(s.image, s.trimap, cancel=event)
    event.clear()
    timer = threading.Timer(0.3, event.set)
    timer.start()
    begun = time.monotonic()
    with pytest.raises(qx.Cancelled) as caught:
        qx.cutout(s.image, trimap=s.trimap, cancel=event)
    assert isinstance(caught.value, qx.QxError)
    # AddressSanitizer makes the steps between two looks at the flag about ten times longer.
    slack = 5.0 if "asan" in os.environ.get("LD_PRELOAD", "") else 1.0
    assert time.monotonic() - begun < 0.3 + slack
    timer.join()
    small = soft_disc()
    assert np.array_equal(qx.matte_trimap(small.image, small.trimap, cancel=threading.Event()),
                          qx.matte_trimap(small.image, small.trimap))
    with pytest.raises(TypeError, match="is_set"):
        qx.foreground(small.image, small.alpha, cancel=True)


def _resident_mb():
    with open("/proc/self/statm") as f:
        return int(f.read().split()[1]) * 4096 / 2 ** 20


# AddressSanitizer's quarantine of freed blocks makes resident memory no measure of leaks.
@pytest.mark.skipif("asan" in os.environ.get("LD_PRELOAD", ""), reason="AddressSanitizer")
def test_150_jobs_in_a_row_leave_resident_memory_flat(disc):
    def session_cut():
        with qx.GrabCutSession(disc.image, (30, 20, 100, 80)) as session:
            session.cut()
    jobs = (lambda: qx.cutout(disc.image, trimap=disc.trimap),
            lambda: qx.matte_strokes(disc.image, disc.strokes), session_cut)
    for i in range(165):
        if i == 15:  # after warming up the allocator's and the runtime's first pools
            before = _resident_mb()
        jobs[i % 3]()
    assert _resident_mb() - before < 30


def test_the_network_code_is_loaded_by_subject_calls_alone(tmp_path):
    # A process that imports the package and mattes has none of the network's libraries mapped;
    # a subject call whose module can't be found fails with words saying so, naming the place.
    model = tmp_path / "model.onnx"
    model.write_bytes(b"any file: the module is looked for first")
    script = f"""
import sys
sys.path[:0] = {sys.path[:2]!r}
import scenes, qxiveilon31 as qx
disc = scenes.soft_disc()
qx.matte_trimap(disc.image, disc.trimap)
print("dnn mapped:", "opencv_dnn" in open("/proc/self/maps").read())
try:
    qx.subject_mask(disc.image, model={str(model)!r})
except qx.QxError as e:
    print("error:", type(e).__name__, e)
"""
    env = dict(os.environ, QX_SUBJECT_MODULE=str(tmp_path / "no-module.so"))
    done = subprocess.run([sys.executable, "-c", script], env=env, capture_output=True,
                          text=True, timeout=120)
    assert done.returncode == 0, done.stderr
    assert "dnn mapped: False" in done.stdout
    assert "error: QxError" in done.stdout
    assert "module" in done.stdout and "no-module.so" in done.stdout


def test_one_click_without_a_model_raises_no_subject_model(disc, tmp_path, monkeypatch):
    missing = str(tmp_path / "none.onnx")
    with pytest.raises(qx.NoSubjectModel, match="scripts/setup.sh"):
        qx.subject_mask(disc.image, model=missing)
    # cutout with nothing but the image is the one-click cut-out.
    monkeypatch.setenv("QX_SUBJECT_MODEL", missing)
    with pytest.raises(qx.NoSubjectModel, match=missing):
        qx.cutout(disc.image)
