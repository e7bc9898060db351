"""The package against the command-line tool on one input, and the README's example."""

import glob
import os
import re
import signal
import subprocess
import sys
import time

import numpy as np
import pytest

import qxiveilon31 as qx

Image = pytest.importorskip("PIL.Image", reason="Pillow (python3-pil) reads and writes PNG")
README = os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "README.md")


def test_the_cutout_and_refine_equal_the_tools(qxmatte, tmp_path, square_scene, disc):
    # The whole rectangle workflow (GrabCut, band, matting, recovery) with strokes, on an odd
    # size, and refine: the tool reads the same bytes from PNG files and must give the same RGBA.
    image = np.ascontiguousarray(square_scene[0][:, 3:])
    strokes = np.full(image.shape[:2], 128, np.uint8)
    strokes[18:38, 135:155] = 0
    coarse = np.where(disc.alpha >= 0.5, 255, 0).astype(np.uint8)
    for name, a in (("image", image), ("strokes", strokes), ("disc", disc.image),
                    ("mask", coarse)):
        Image.fromarray(a).save(tmp_path / (name + ".png"))
    qxmatte("cutout", tmp_path / "image.png", "--rect", "17,10,150,120", "--strokes",
            tmp_path / "strokes.png", "--band", 7, "-o", tmp_path / "cut.png")
    rgba = qx.cutout(image, rect=(17, 10, 150, 120), strokes=strokes, band=7)
    assert np.array_equal(rgba, np.asarray(Image.open(tmp_path / "cut.png")))
    assert (rgba[:, :, 3] == 0).any() and (rgba[:, :, 3] == 255).any()
    qxmatte("refine", tmp_path / "disc.png", tmp_path / "mask.png", "-o", tmp_path / "ref.png")
    ours = qx.refine(disc.image, coarse)
    assert np.array_equal(ours, np.asarray(Image.open(tmp_path / "ref.png")))


def test_the_readme_example_runs_on_the_demo_scene(qxmatte, tmp_path):
    with open(README, encoding="utf-8") as f:
        example = re.search(r"```python\n(.*?)```", f.read(), re.S).group(1)
    qxmatte("demo", "-o", tmp_path, "--megapixels", "0.1")
    env = dict(os.environ, PYTHONPATH=os.pathsep.join(p for p in sys.path if p),
               QXIVEILON31_LIBRARY=qx.library_path())
    done = subprocess.run([sys.executable, "-c", example], cwd=tmp_path, env=env,
                          capture_output=True, text=True)
    assert done.returncode == 0, done.stderr
    cutout, truth, trimap = (np.asarray(Image.open(tmp_path / name)).astype(int)
                             for name in ("cutout.png", "truth.png", "trimap.png"))
    assert cutout.shape == truth.shape + (4,)
    # Against the demo's known alpha: far closer than the tri-map's own guess (undecided: 128).
    error = lambda alpha: np.abs(alpha - truth).mean()  # noqa: E731
    assert error(cutout[:, :, 3]) < 0.4 * error(trimap), (error(cutout[:, :, 3]), error(trimap))


def _wait_for_handlers(pid, sig, seconds=10.0):
    # Until the process catches sig (SigCgt): a signal before the handler ends it by default.
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        try:
            with open("/proc/%d/status" % pid) as f:
                caught = next(int(line.split()[1], 16) for line in f if line.startswith("SigCgt"))
        except (OSError, StopIteration):
            return
        if caught >> (sig - 1) & 1:
            return
        time.sleep(0.01)


def test_the_tool_stops_on_sigint_and_sigterm_within_a_second(qxmatte, tmp_path):
    # A long tri-map job (a wide undecided band on a 4 MP image).
    qxmatte("demo", "-o", tmp_path, "--megapixels", "4")
    truth = np.asarray(Image.open(tmp_path / "truth.png"))
    tri = np.full(truth.shape, 128, np.uint8)
    tenth = truth.shape[1] // 10
    tri[:, :tenth] = 0
    tri[:, -tenth:] = 0
    tri[truth == 255] = 255
    Image.fromarray(tri).save(tmp_path / "wide.png")
    out = tmp_path / "out.png"
    for sig, delay in ((signal.SIGINT, 1.5), (signal.SIGTERM, 0.5)):
        tool = subprocess.Popen([os.environ["QXMATTE"], "trimap", tmp_path / "image.png",
                                 tmp_path / "wide.png", "-o", out, "-q"],
                                stderr=subprocess.PIPE)
        _wait_for_handlers(tool.pid, sig)
        time.sleep(delay)
        assert tool.poll() is None, "the job ended before the signal: make it longer"
        sent = time.monotonic()
        tool.send_signal(sig)
        _, err = tool.communicate()
        assert time.monotonic() - sent < 1.0
        assert tool.returncode == 128 + sig
        assert not out.exists() and not glob.glob(str(tmp_path / ".qxmatte-*"))


def _batch_folder(folder, disc):
    import scenes
    from PIL import Image as PILImage
    folder.mkdir()
    square, _, _ = scenes.subject_and_square()
    coarse = np.where(disc.alpha >= 0.5, 255, 0).astype(np.uint8)
    for name, image, partner, suffix in (
            ("a", disc.image, coarse, ".mask.png"),
            ("b", disc.image, disc.trimap, ".trimap.png"),
            ("c", disc.image, disc.strokes, ".strokes.png"),
            ("d", square, coarse, ".mask.png"),                      # partner of another size
            ("e", disc.image, np.full_like(coarse, 255), ".mask.png"),  # all one value
            ("f", disc.image, None, None)):                         # no partner
        PILImage.fromarray(image).save(folder / (name + ".png"))
        if partner is not None:
            PILImage.fromarray(partner).save(folder / (name + suffix))
    (folder / "g.jpg").write_bytes(b"not an image")
    (folder / "g.trimap.png").write_bytes(b"not an image either")


def test_batch_locally_on_a_cluster_and_by_the_tool_gives_the_same_files(qxmatte, tmp_path, disc,
                                                                          monkeypatch):
    folder = tmp_path / "in"
    _batch_folder(folder, disc)
    for out in ("tool", "local", "cluster"):
        (tmp_path / out).mkdir()
    tool = subprocess.run([os.environ["QXMATTE"], "batch", folder, "-o", tmp_path / "tool",
                           "-j", "2", "-q"], capture_output=True, text=True)
    assert tool.returncode == 1 and "3 written, 0 up to date, 3 failed, 1 without" in tool.stdout
    local = qx.batch(folder, tmp_path / "local")
    assert sorted(local["written"]) == ["a", "b", "c"] and local["without_partner"] == 1
    assert sorted(local["failed"]) == ["d", "e", "g"] and "all one value" in local["failed"]["e"]
    assert local["skipped"] == {"f.png": "no partner f.mask.png, f.trimap.png or f.strokes.png"}
    # A second run keeps what is newer than its inputs.
    again = qx.batch(folder, tmp_path / "local")
    assert again["written"] == [] and sorted(again["current"]) == ["a", "b", "c"]
    distributed = pytest.importorskip("distributed")
    monkeypatch.setenv("PYTHONPATH", os.pathsep.join(p for p in sys.path if p))
    with distributed.LocalCluster(n_workers=2, threads_per_worker=1, processes=True,
                                  dashboard_address=None) as cluster:
        on_cluster = qx.batch(folder, tmp_path / "cluster", cluster.scheduler_address)
    assert sorted(on_cluster["written"]) == ["a", "b", "c"]
    for name in ("a", "b", "c"):
        want = (tmp_path / "tool" / (name + ".png")).read_bytes()
        assert (tmp_path / "local" / (name + ".png")).read_bytes() == want
        assert (tmp_path / "cluster" / (name + ".png")).read_bytes() == want
    assert sorted(os.listdir(tmp_path / "cluster")) == ["a.png", "b.png", "c.png"]


def test_batch_refuses_bad_folders_and_jobs_before_any_file_is_touched(tmp_path, disc,
                                                                       monkeypatch):
    folder = tmp_path / "in"
    _batch_folder(folder, disc)
    before = {p.name: p.read_bytes() for p in folder.iterdir()}
    work, out = tmp_path / "work", tmp_path / "out"
    work.mkdir()
    out.mkdir()
    monkeypatch.chdir(work)  # where an empty out_dir used to put the cut-outs
    (tmp_path / "link").symlink_to(folder)
    (tmp_path / "file").write_bytes(b"")
    refused = [((folder, ""), {}, "out_dir"), ((folder, None), {}, "out_dir"),
               ((folder,), {}, "out_dir"), (("", out), {}, "in_dir"),
               ((folder, tmp_path / "missing"), {}, "missing: no such folder"),
               ((folder, tmp_path / "file"), {}, "file: not a folder"),
               ((tmp_path / "nowhere", out), {}, "nowhere: not a folder")]
    # The input folder under other names: itself, a relative spelling, a symbolic link.
    for args in ((folder, folder), (folder, "../in/."), (tmp_path / "link", folder),
                 (folder, tmp_path / "link")):
        refused.append((args, {}, "the output folder is the input folder"))
    for jobs in (0, -2, True, 2.0, "2"):
        refused.append(((folder, out), {"jobs": jobs}, "jobs"))
    for args, kwargs, message in refused:
        with pytest.raises(ValueError, match=message):
            qx.batch(*args, **kwargs)
    assert {p.name: p.read_bytes() for p in folder.iterdir()} == before
    assert os.listdir(work) == [] and os.listdir(out) == []
    assert not (tmp_path / "missing").exists()


def test_batch_takes_webp_photos_and_names_the_photos_it_skips(qxmatte, tmp_path, disc):
    folder, out = tmp_path / "in", tmp_path / "out"
    folder.mkdir()
    out.mkdir()
    for name in ("w.webp", "x.webp", "y.tiff"):
        Image.fromarray(disc.image).save(folder / name, lossless=True)
    Image.fromarray(disc.trimap).save(folder / "w.trimap.png")
    summary = qx.batch(folder, out, jobs=np.int64(1))
    assert (summary["written"], summary["current"], summary["failed"]) == (["w"], [], {})
    assert summary["without_partner"] == 2 and sorted(summary["skipped"]) == ["x.webp", "y.tiff"]
    assert np.array_equal(np.asarray(Image.open(out / "w.png")),
                          qx.cutout(disc.image, trimap=disc.trimap))
    assert sorted(os.listdir(out)) == ["w.png"]
