#!/usr/bin/env python3
"""What the Python package adds to a tri-map job: over the matting benchmark images, the time of
the one-liner ``qxiveilon31.matte_trimap(image, trimap)`` against the bare library job (the same
qxMaskAlpha call on planes cut to the box beforehand, through ctypes), and the command-line
tool's ``qxmatte trimap`` for reference (its time includes reading and writing the files and
starting the process).

    /usr/bin/python3 bench/bench_python.py [--data DIR] [--library SO] [--qxmatte EXE]
                                           [--repeat N]

Defaults: the data beside the project (../shared/data/alphamatting, skipped when absent), the
build's library and tool (build/). Each measure is the least of N runs (default 6), taken in
turn, the one-liner and the bare job each going first in half of them: whichever of two
back-to-back jobs runs second is measured up to 7% faster here, so a fixed order would show
that as the wrapper's cost or gain. Needs Debian's python3 with NumPy.
"""

import argparse
import ctypes
import os
import subprocess
import sys
import tempfile
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path[:0] = [os.path.join(ROOT, "python"), os.path.join(ROOT, "python", "tests")]


def parse():
    p = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    p.add_argument("--data", default=os.path.join(ROOT, "..", "shared", "data", "alphamatting"))
    p.add_argument("--library", default=os.path.join(ROOT, "build", "libqxiveilon31.so.0"))
    p.add_argument("--qxmatte", default=os.path.join(ROOT, "build", "qxmatte"))
    p.add_argument("--repeat", type=int, default=6)
    return p.parse_args()


def main():
    args = parse()
    if not os.path.isdir(os.path.join(args.data, "input")):
        print("bench_python: no benchmark images at %s: skipped" % args.data)
        return 0
    os.environ.setdefault("QXIVEILON31_LIBRARY", args.library)
    import numpy as np

    import qxiveilon31 as qx
    from qxiveilon31 import _native
    from imagefiles import read_png

    lib = _native.lib()

    class TimedLibrary:
        """The library with its job call timed: the one-liner's own work is its time less the
        job's, measured in the same call (no noise between runs)."""

        def __getattr__(self, name):
            return getattr(lib, name)

        def qxMaskAlpha(self, *args):
            start = time.perf_counter()
            status = lib.qxMaskAlpha(*args)
            self.job = time.perf_counter() - start
            return status

        def qxMaskBBox(self, *args):
            start = time.perf_counter()
            status = lib.qxMaskBBox(*args)
            self.box = time.perf_counter() - start
            return status

    timed = TimedLibrary()
    _native.LIB = timed
    names = sorted(f[:-4] for f in os.listdir(os.path.join(args.data, "input"))
                   if f.endswith(".png"))
    have_cli = os.access(args.qxmatte, os.X_OK)
    print("library %s (%s), %d runs each, least taken"
          % (".".join(map(str, qx.library_version())), qx.library_path(), args.repeat))
    print()
    print("| image | size | box | one-liner s | Python's own work ms | added | qxMaskBBox ms "
          "| bare job s | qxmatte trimap s | SAD |")
    print("|---|---|---|---|---|---|---|---|---|---|")
    totals = np.zeros(5)
    for name in names:
        image = read_png(os.path.join(args.data, "input", name + ".png"))[:, :, :3]
        trimap = read_png(os.path.join(args.data, "trimap", name + ".png"))
        if trimap.ndim == 3:
            trimap = trimap[:, :, 0]
        trimap = np.ascontiguousarray(trimap)
        truth_path = os.path.join(args.data, "gt", name + ".png")

        # The bare job, as the package sets it up: box, planes B, G, R, the tri-map's crop.
        box = [ctypes.c_int() for _ in range(6)]
        lib.qxMaskBBox(0, trimap.ctypes.data, trimap.strides[0], trimap.shape[1],
                       trimap.shape[0], *[ctypes.byref(v) for v in box], 0, 255, 0)
        left, w, top, h, fg, bg = (v.value for v in box)
        crop = image[top:top + h, left:left + w]
        planes = [np.ascontiguousarray(crop[:, :, c]) for c in (2, 1, 0)]
        pointers = (ctypes.c_void_p * 3)(*[p.ctypes.data for p in planes])

        def bare_job():
            mask = np.array(trimap[top:top + h, left:left + w], order="C", copy=True)
            req = _native.MaskRequest()
            req.planes = ctypes.cast(pointers, ctypes.c_void_p)
            req.planeStep, req.mask, req.maskStep = w, mask.ctypes.data, w
            req.width, req.height = w, h
            start = time.perf_counter()
            status = lib.qxMaskAlpha(ctypes.byref(req), 0, float(w * h - fg - bg), 255, 0,
                                     255, 0)
            seconds = time.perf_counter() - start
            assert status == 1, status
            return seconds

        def one_liner():
            start = time.perf_counter()
            alpha = qx.matte_trimap(image, trimap)
            seconds = time.perf_counter() - start
            one_liner.alpha = alpha
            one_liner.own = min(getattr(one_liner, "own", 1e9), seconds - timed.job - timed.box)
            one_liner.box = min(getattr(one_liner, "box", 1e9), timed.box)
            return seconds

        with tempfile.TemporaryDirectory() as tmp:
            def cli():
                if not have_cli:
                    return float("nan")
                start = time.perf_counter()
                subprocess.run([args.qxmatte, "trimap", os.path.join(args.data, "input",
                                                                     name + ".png"),
                                os.path.join(args.data, "trimap", name + ".png"),
                                "-o", os.path.join(tmp, "a.png"), "-q"], check=True)
                return time.perf_counter() - start

            def turn(i):  # the two jobs take turns at going first
                if i % 2:
                    bare = bare_job()
                    return [one_liner(), bare, cli()]
                return [one_liner(), bare_job(), cli()]

            runs = np.array([turn(i) for i in range(args.repeat)])
        best = runs.min(axis=0)
        own, box_time = one_liner.own, one_liner.box
        totals += [best[0], own, box_time, best[1], best[2]]
        truth = read_png(truth_path)
        if truth.ndim == 3:
            truth = truth[:, :, 0]
        band = trimap == 128
        sad = np.abs(one_liner.alpha / 255.0 - truth / 255.0)[band].sum() / 1000.0
        print("| %s | %dx%d | %dx%d | %.3f | %.1f | %.2f%% | %.1f | %.3f | %.3f | %.2f |"
              % (name, image.shape[1], image.shape[0], w, h, best[0], own * 1e3,
                 100.0 * own / best[1], box_time * 1e3, best[1], best[2], sad))
    print("| total | | | %.3f | %.1f | %.2f%% | %.1f | %.3f | %.3f | |"
          % (totals[0], totals[1] * 1e3, 100.0 * totals[1] / totals[3], totals[2] * 1e3,
             totals[3], totals[4]))
    print()
    print("Python's own work: the one-liner's time less the time of its two library calls "
          "(qxMaskBBox and the job), in the same call: the checks, the planes cut to the box, "
          "the paste back. added: that over the bare job's time. qxMaskBBox: the library's box "
          "call, which every host of the workflow (qxmatte too) makes before the job.")
    return 0


if __name__ == "__main__":
    sys.exit(main())
