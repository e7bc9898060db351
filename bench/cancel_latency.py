#!/usr/bin/env python3
"""How soon a cancelled job returns: the tri-map job on a benchmark photo scaled up to N
megapixels (default 12), cancelled T seconds in, through the Python package's ``cancel=``
(a threading.Event) and through the command line's SIGINT.

    /usr/bin/python3 bench/cancel_latency.py [--data DIR] [--megapixels N] [--at T [T ...]]

Prints the uncancelled job's time, then for each T the time from the set (or the signal) to the
raised Cancelled (or the process's exit), the status, and whether an output file was left.
Defaults: cancel at 1, 2, ... seconds until the job's end. Skipped when the data is absent.
Needs Debian's python3 with NumPy and Pillow, and a build in build/.
"""

import argparse
import os
import signal
import subprocess
import sys
import tempfile
import threading
import time

import numpy as np
from PIL import Image

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(ROOT, "python"))
os.environ.setdefault("QXIVEILON31_LIBRARY", os.path.join(ROOT, "build", "libqxiveilon31.so.0"))


def parse():
    p = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    p.add_argument("--data", default=os.path.join(ROOT, "..", "shared", "data", "alphamatting"))
    p.add_argument("--name", default="GT04.png")
    p.add_argument("--megapixels", type=float, default=12.0)
    p.add_argument("--at", type=float, nargs="*")
    p.add_argument("--qxmatte", default=os.path.join(ROOT, "build", "qxmatte"))
    return p.parse_args()


def scaled(args):
    image = Image.open(os.path.join(args.data, "input", args.name)).convert("RGB")
    trimap = Image.open(os.path.join(args.data, "trimap", args.name)).convert("L")
    f = (args.megapixels * 1e6 / (image.width * image.height)) ** 0.5
    size = (round(image.width * f), round(image.height * f))
    return (np.asarray(image.resize(size, Image.BICUBIC)),
            np.asarray(trimap.resize(size, Image.NEAREST)))


def cli_cancel(exe, image_path, trimap_path, out, at):
    p = subprocess.Popen([exe, "trimap", image_path, trimap_path, "-o", out],
                         stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    time.sleep(at)
    sent = time.perf_counter()
    p.send_signal(signal.SIGINT)
    rc = p.wait()
    return rc, time.perf_counter() - sent


def main():
    args = parse()
    if not os.path.isdir(args.data):
        print("skipped: no data at", args.data)
        return
    import qxiveilon31 as qx
    image, trimap = scaled(args)
    print("%s at %dx%d (%.1f MP)" % (args.name, image.shape[1], image.shape[0],
                                     image.shape[0] * image.shape[1] / 1e6))
    t0 = time.perf_counter()
    qx.matte_trimap(image, trimap)
    total = time.perf_counter() - t0
    print("uncancelled job: %.2f s" % total)
    times = args.at or [float(t) for t in range(1, int(total) + 1)]

    print("\nPython cancel=: seconds from the set to the raise")
    print("%6s %10s %9s" % ("at s", "outcome", "latency"))
    worst = 0.0
    for at in times:
        stop = threading.Event()
        start = time.perf_counter()
        timer = threading.Timer(at, stop.set)
        timer.start()
        try:
            qx.matte_trimap(image, trimap, cancel=stop)
            outcome = "finished"
        except qx.Cancelled:
            outcome = "Cancelled"
        end = time.perf_counter()
        timer.cancel()
        latency = end - (start + at)
        if outcome == "Cancelled":
            worst = max(worst, latency)
        print("%6.1f %10s %9.3f" % (at, outcome, latency))
    print("worst: %.3f s" % worst)

    with tempfile.TemporaryDirectory() as tmp:
        image_path, trimap_path = os.path.join(tmp, "in.png"), os.path.join(tmp, "tri.png")
        Image.fromarray(image).save(image_path)
        Image.fromarray(trimap).save(trimap_path)
        out = os.path.join(tmp, "out.png")
        print("\nqxmatte trimap, SIGINT: seconds from the signal to the exit")
        print("%6s %6s %9s %12s" % ("at s", "exit", "latency", "files left"))
        for at in times:
            rc, latency = cli_cancel(args.qxmatte, image_path, trimap_path, out, at)
            left = sorted(set(os.listdir(tmp)) - {"in.png", "tri.png"})
            for f in left:
                os.remove(os.path.join(tmp, f))
            print("%6.1f %6d %9.3f %12s" % (at, rc, latency, ",".join(left) or "none"))


if __name__ == "__main__":
    main()
