#!/usr/bin/env python3
"""How soon a cancelled job returns: the tri-map job on a benchmark photo scaled up to N
megapixels (default 12), cancelled T seconds in, through the Python package's ``cancel=``
(a threading.Event) and through the command line's SIGINT.

    /usr/bin/python3 bench/cancel_latency.py [--data DIR] [--megapixels N] [--at T [T ...]]
                                             [--strokes]

Prints the uncancelled job's time, then for each T the time from the set (or the signal) to the
raised Cancelled (or the process's exit), the status, and whether an output file was left; for
the Python cancel also what the process holds 2 s after the raise (resident memory above its
size before the job) and the processor time it spent in those 2 s (0 when nothing runs on).
With --strokes the tri-map is strokes as a person paints them (bars 9 rows thick every 40 rows
inside the truth's sure foreground and background, eroded by 12 pixels, as bench_strokes
paints them): about 80% of the pixels undecided.
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
    p.add_argument("--strokes", action="store_true")
    p.add_argument("--qxmatte", default=os.path.join(ROOT, "build", "qxmatte"))
    return p.parse_args()


def stroke_trimap(truth):
    """Bars inside the sure foreground and background of the truth (uint8 array), the rest 128."""
    from PIL import ImageFilter
    t = Image.fromarray(truth)
    sure_fg = np.asarray(t.point(lambda v: 255 if v == 255 else 0).filter(ImageFilter.MinFilter(25)))
    sure_bg = np.asarray(t.point(lambda v: 255 if v == 0 else 0).filter(ImageFilter.MinFilter(25)))
    bars = np.zeros(truth.shape, bool)
    for y in range(0, truth.shape[0], 40):
        bars[y:y + 9, :] = True
    tri = np.full(truth.shape, 128, np.uint8)
    tri[bars & (sure_fg > 0)] = 255
    tri[bars & (sure_bg > 0)] = 0
    return tri


def resident_mb():
    with open("/proc/self/statm") as f:
        return int(f.read().split()[1]) * os.sysconf("SC_PAGE_SIZE") / 1e6


def cpu_seconds():
    t = os.times()
    return t.user + t.system


def scaled(args):
    image = Image.open(os.path.join(args.data, "input", args.name)).convert("RGB")
    if args.strokes:
        truth = np.asarray(Image.open(os.path.join(args.data, "gt", args.name)).convert("L"))
        trimap = Image.fromarray(stroke_trimap(truth))
    else:
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
    print("%s at %dx%d (%.1f MP), %.0f%% undecided" % (
        args.name, image.shape[1], image.shape[0], image.shape[0] * image.shape[1] / 1e6,
        100.0 * np.mean((trimap > 0) & (trimap < 255))))
    t0 = time.perf_counter()
    qx.matte_trimap(image, trimap)
    total = time.perf_counter() - t0
    print("uncancelled job: %.2f s" % total)
    times = args.at or [float(t) for t in range(1, int(total) + 1)]

    print("\nPython cancel=: seconds from the set to the raise; 2 s later, MB resident above the")
    print("size before the job and processor seconds spent in those 2 s")
    print("%6s %10s %9s %8s %8s" % ("at s", "outcome", "latency", "+MB", "cpu s"))
    worst = 0.0
    for at in times:
        before = resident_mb()
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
        cpu = cpu_seconds()
        time.sleep(2.0)
        print("%6.1f %10s %9.3f %8.0f %8.2f" % (at, outcome, latency, resident_mb() - before,
                                                cpu_seconds() - cpu))
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
