#!/usr/bin/env python3
"""What the Python package adds to a tri-map job: over the matting benchmark images, the time of
the one-liner ``qxiveilon31.matte_trimap(image, trimap)`` against the bare workflow call (the
same qxwMatteTrimap on the same buffers, through ctypes), and the command-line tool's
``qxmatte trimap`` for reference (its time includes reading and writing the files and starting
the process).

    /usr/bin/python3 bench/bench_python.py [--data DIR] [--library SO] [--qxmatte EXE]
                                           [--repeat N]

Defaults: the data beside the project (../shared/data/alphamatting, skipped when absent), the
build's library and tool (build/). Each measure is the least of N runs (default 6), taken in
turn, the one-liner and the bare call each going first in half of them: whichever of two
back-to-back jobs runs second is measured faster, so a fixed order would show that as the
wrapper's cost or gain. Needs Debian's python3 with NumPy and Pillow.
"""

import argparse
import ctypes
import os
import subprocess
import sys
import tempfile
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(ROOT, "python"))


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
    from PIL import Image

    import qxiveilon31 as qx
    from qxiveilon31 import _native

    lib = _native.lib()

    class TimedLibrary:
        """The library with its workflow call timed: the one-liner's own work is its time less
        the call's, measured in the same call (no noise between runs)."""

        def __getattr__(self, name):
            return getattr(lib, name)

        def qxwMatteTrimap(self, *args):
            start = time.perf_counter()
            status = lib.qxwMatteTrimap(*args)
            self.call = time.perf_counter() - start
            return status

    timed = TimedLibrary()
    _native.LIB = timed
    read = lambda *path: np.asarray(Image.open(os.path.join(args.data, *path)))  # noqa: E731
    names = sorted(f[:-4] for f in os.listdir(os.path.join(args.data, "input"))
                   if f.endswith(".png"))
    have_cli = os.access(args.qxmatte, os.X_OK)
    print("library %s (%s), %d runs each, least taken"
          % (".".join(map(str, qx.library_version())), qx.library_path(), args.repeat))
    print()
    print("| image | size | one-liner s | Python's own work ms | added | bare call s "
          "| qxmatte trimap s | SAD |")
    print("|---|---|---|---|---|---|---|---|")
    totals = np.zeros(4)
    for name in names:
        image = np.ascontiguousarray(read("input", name + ".png")[:, :, :3])
        trimap = read("trimap", name + ".png")
        trimap = np.ascontiguousarray(trimap[:, :, 0] if trimap.ndim == 3 else trimap)

        def bare_call():
            record = _native.Image(image.ctypes.data, image.strides[0], 3, image.shape[1],
                                   image.shape[0], _native.QXW_RGB)
            alpha = np.empty(trimap.shape, np.uint8)
            job = _native.Job()
            start = time.perf_counter()
            status = lib.qxwMatteTrimap(ctypes.byref(record), trimap.ctypes.data,
                                        trimap.strides[0], 255, 0, 255, 0, alpha.ctypes.data,
                                        alpha.strides[0], ctypes.byref(job))
            seconds = time.perf_counter() - start
            assert status == _native.QXW_OK, job.message
            return seconds

        def one_liner():
            start = time.perf_counter()
            one_liner.alpha = qx.matte_trimap(image, trimap)
            seconds = time.perf_counter() - start
            one_liner.own = min(getattr(one_liner, "own", 1e9), seconds - timed.call)
            return seconds

        with tempfile.TemporaryDirectory() as tmp:
            def cli():
                if not have_cli:
                    return float("nan")
                start = time.perf_counter()
                subprocess.run([args.qxmatte, "trimap",
                                os.path.join(args.data, "input", name + ".png"),
                                os.path.join(args.data, "trimap", name + ".png"),
                                "-o", os.path.join(tmp, "a.png"), "-q"], check=True)
                return time.perf_counter() - start

            def turn(i):  # the two calls take turns at going first
                if i % 2:
                    bare = bare_call()
                    return [one_liner(), bare, cli()]
                return [one_liner(), bare_call(), cli()]

            runs = np.array([turn(i) for i in range(args.repeat)])
        best = runs.min(axis=0)
        totals += [best[0], one_liner.own, best[1], best[2]]
        truth = read("gt", name + ".png")
        truth = truth[:, :, 0] if truth.ndim == 3 else truth
        band = trimap == 128
        sad = np.abs(one_liner.alpha / 255.0 - truth / 255.0)[band].sum() / 1000.0
        print("| %s | %dx%d | %.3f | %.2f | %.2f%% | %.3f | %.3f | %.2f |"
              % (name, image.shape[1], image.shape[0], best[0], one_liner.own * 1e3,
                 100.0 * one_liner.own / best[1], best[1], best[2], sad))
    print("| total | | %.3f | %.2f | %.2f%% | %.3f | %.3f | |"
          % (totals[0], totals[1] * 1e3, 100.0 * totals[1] / totals[2], totals[2], totals[3]))
    print()
    print("Python's own work: the one-liner's time less the time of its workflow call, in the "
          "same call: the checks, the buffers and the job record. added: that over the bare "
          "call's time.")
    return 0


if __name__ == "__main__":
    sys.exit(main())
