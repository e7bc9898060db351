#!/usr/bin/env python3
"""The tri-map workflow as a host calls it, over both tri-map sets of the matting benchmark
photos: ``qxiveilon31.matte_trimap(image, trimap)`` on images already loaded, the least time of
N passes over the ten photos of each set, and the mean SAD (thousands, over the undecided
pixels) against the truth.

    /usr/bin/python3 bench/workflow_sets.py [--root DIR] [--library SO] [--data DIR]
                                            [--repeat N]

Set 1 is the benchmark's own tri-maps; set 2 is made from each truth as bench_matting_peers
makes it (undecided where 0 < truth < 255, grown by a disc of radius 12). --root is the
checkout whose Python package is used (default this one), --library its library: with another
checkout and its build, two versions of the workflow can be timed in turn on the same machine
(their ratio holds where the machine's speed drifts; the absolute seconds do not). Needs
Debian's python3 with NumPy, Pillow and OpenCV.
"""

import argparse
import os
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))


def parse():
    p = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    p.add_argument("--root", default=ROOT)
    p.add_argument("--library", default=None)
    p.add_argument("--data", default=os.path.join(ROOT, "..", "shared", "data", "alphamatting"))
    p.add_argument("--repeat", type=int, default=3)
    return p.parse_args()


def main():
    args = parse()
    if not os.path.isdir(os.path.join(args.data, "input")):
        print("workflow_sets: no benchmark images at %s: skipped" % args.data)
        return 0
    sys.path.insert(0, os.path.join(args.root, "python"))
    os.environ["QXIVEILON31_LIBRARY"] = args.library or os.path.join(
        args.root, "build", "libqxiveilon31.so.0")
    import cv2
    import numpy as np
    from PIL import Image

    import qxiveilon31 as qx

    disc = cv2.getStructuringElement(cv2.MORPH_ELLIPSE, (25, 25))
    sets = {1: [], 2: []}
    for i in range(1, 11):
        name = "GT%02d.png" % i
        image = np.asarray(Image.open(os.path.join(args.data, "input", name)).convert("RGB"))
        given = np.asarray(Image.open(os.path.join(args.data, "trimap", name)).convert("L"))
        truth = np.asarray(Image.open(os.path.join(args.data, "gt", name)).convert("L"))
        sets[1].append((image, given, truth))
        band = cv2.dilate(((truth > 0) & (truth < 255)).astype(np.uint8), disc)
        made = np.where(band > 0, 128, np.where(truth >= 128, 255, 0)).astype(np.uint8)
        sets[2].append((image, made, truth))
    for s in (1, 2):
        best = float("inf")
        for _ in range(args.repeat):
            start = time.perf_counter()
            for image, trimap, _ in sets[s]:
                qx.matte_trimap(image, trimap)
            best = min(best, time.perf_counter() - start)
        sad = 0.0
        for image, trimap, truth in sets[s]:
            alpha = np.asarray(qx.matte_trimap(image, trimap), dtype=float).reshape(truth.shape)
            undecided = (trimap > 0) & (trimap < 255)
            sad += np.abs(alpha - truth)[undecided].sum() / 255.0 / 1000.0
        print("set %d: %.3f s for the ten (least of %d), mean SAD %.3f"
              % (s, best, args.repeat, sad / len(sets[s])), flush=True)
    return 0


if __name__ == "__main__":
    sys.exit(main())
