#!/usr/bin/env python3
"""The tri-map workflow as a host calls it, over both tri-map sets of the matting benchmark
photos: ``qxiveilon31.matte_trimap(image, trimap)`` on images already loaded, the least time of
N passes over the ten photos of each set, and the mean SAD (thousands, over the undecided
pixels) against the truth.

    /usr/bin/python3 bench/workflow_sets.py [--root DIR] [--library SO] [--data DIR]
                                            [--repeat N] [--against DIR --against-library SO]
                                            [--pymatting DIR] [--sets 1,2]

Set 1 is the benchmark's own tri-maps; set 2 is made from each truth as bench_matting_peers
makes it (undecided where 0 < truth < 255, grown by a disc of radius 12). --root is the
checkout whose Python package is used (default this one), --library its library. With
--against, a second checkout's package and library are loaded into the same process and the two
are called in turn, photo by photo (which goes first alternates from pass to pass), N passes:
the seconds each took summed over the passes, and their ratio, whole and pass by pass. With
--pymatting, the other side is PyMatting's closed-form solve (``estimate_alpha_cf`` with its
defaults, on the same loaded images scaled to 0..1; its alpha rounded to 8 bits for the SAD),
imported from DIR, a folder holding the ``pymatting`` package (installed or unpacked there: it
is not part of this repository). --sets picks the sets. This machine's speed drifts by tens of
percent over minutes; calls a second apart see the same machine, whole runs a minute apart do
not. Needs Debian's python3 with NumPy, Pillow and OpenCV.
"""

import argparse
import importlib.machinery
import os
import sys
import time
import types

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))


def parse():
    p = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    p.add_argument("--root", default=ROOT)
    p.add_argument("--library", default=None)
    p.add_argument("--data", default=os.path.join(ROOT, "..", "shared", "data", "alphamatting"))
    p.add_argument("--repeat", type=int, default=3)
    p.add_argument("--against", default=None)
    p.add_argument("--against-library", default=None)
    p.add_argument("--pymatting", default=None)
    p.add_argument("--sets", default="1,2", help="which tri-map sets: 1, 2 or 1,2")
    return p.parse_args()


def package(root, library, name):
    """The Python package of checkout `root` on `library`, imported as `name`: two checkouts'
    packages, each with its own copy of the library, can live in one process."""
    os.environ["QXIVEILON31_LIBRARY"] = library or os.path.join(root, "build",
                                                                "libqxiveilon31.so.0")
    folder = os.path.join(root, "python", "qxiveilon31")
    init = os.path.join(folder, "__init__.py")
    # A package of its own name: its relative imports resolve through __path__ to its own folder.
    module = types.ModuleType(name)
    module.__file__, module.__path__, module.__package__ = init, [folder], name
    module.__loader__ = importlib.machinery.SourceFileLoader(name, init)
    sys.modules[name] = module
    module.__loader__.exec_module(module)
    return module


class PyMatting:
    """PyMatting's closed-form solve behind the package's call: the same images in, 8 bits out."""

    def __init__(self, folder):
        sys.path.insert(0, folder)
        import pymatting

        self.module = pymatting
        self.version = getattr(pymatting, "__version__", "?")

    def matte_trimap(self, image, trimap):
        import numpy as np

        alpha = self.module.estimate_alpha_cf(image / 255.0, trimap / 255.0)
        return np.clip(np.rint(alpha * 255.0), 0, 255).astype(np.uint8)

    def library_path(self):
        return "PyMatting %s, estimate_alpha_cf (%s)" % (self.version, self.module.__file__)


def load_sets(data):
    import cv2
    import numpy as np
    from PIL import Image

    disc = cv2.getStructuringElement(cv2.MORPH_ELLIPSE, (25, 25))
    sets = {1: [], 2: []}
    for i in range(1, 11):
        name = "GT%02d.png" % i
        image = np.asarray(Image.open(os.path.join(data, "input", name)).convert("RGB"))
        given = np.asarray(Image.open(os.path.join(data, "trimap", name)).convert("L"))
        truth = np.asarray(Image.open(os.path.join(data, "gt", name)).convert("L"))
        sets[1].append((image, given, truth))
        band = cv2.dilate(((truth > 0) & (truth < 255)).astype(np.uint8), disc)
        made = np.where(band > 0, 128, np.where(truth >= 128, 255, 0)).astype(np.uint8)
        sets[2].append((image, made, truth))
    return sets


def mean_sad(qx, photos):
    import numpy as np

    sad = 0.0
    for image, trimap, truth in photos:
        alpha = np.asarray(qx.matte_trimap(image, trimap), dtype=float).reshape(truth.shape)
        undecided = (trimap > 0) & (trimap < 255)
        sad += np.abs(alpha - truth)[undecided].sum() / 255.0 / 1000.0
    return sad / len(photos)


def timed(qx, image, trimap):
    start = time.perf_counter()
    qx.matte_trimap(image, trimap)
    return time.perf_counter() - start


def alone(qx, sets, repeat):
    for s in sorted(sets):
        best = float("inf")
        for _ in range(repeat):
            best = min(best, sum(timed(qx, image, trimap) for image, trimap, _ in sets[s]))
        print("set %d: %.3f s for the ten (least of %d), mean SAD %.3f"
              % (s, best, repeat, mean_sad(qx, sets[s])), flush=True)


def in_turn(qx, other, sets, repeat):
    print("this: %s\nagainst: %s" % (qx.library_path(), other.library_path()))
    for s in sorted(sets):
        ours, theirs, ratios = 0.0, 0.0, []
        for r in range(repeat):
            a = b = 0.0
            for image, trimap, _ in sets[s]:
                if r % 2 == 0:
                    a += timed(qx, image, trimap)
                    b += timed(other, image, trimap)
                else:
                    b += timed(other, image, trimap)
                    a += timed(qx, image, trimap)
            ours, theirs = ours + a, theirs + b
            ratios.append(a / b)
        print("set %d: %.3f s against %.3f s over %d passes, ratio %.3f (passes %.3f to %.3f); "
              "mean SAD %.3f against %.3f"
              % (s, ours, theirs, repeat, ours / theirs, min(ratios), max(ratios),
                 mean_sad(qx, sets[s]), mean_sad(other, sets[s])), flush=True)


def main():
    args = parse()
    if not os.path.isdir(os.path.join(args.data, "input")):
        print("workflow_sets: no benchmark images at %s: skipped" % args.data)
        return 0
    qx = package(args.root, args.library, "qx_this")
    sets = load_sets(args.data)
    sets = {s: sets[s] for s in (int(x) for x in args.sets.split(","))}
    if args.pymatting:
        peer = PyMatting(args.pymatting)
        image, trimap, _ = next(iter(sets.values()))[0]
        peer.matte_trimap(image, trimap)  # its compiled parts loaded before the timing
        in_turn(qx, peer, sets, args.repeat)
    elif args.against:
        in_turn(qx, package(args.against, args.against_library, "qx_against"), sets, args.repeat)
    else:
        alone(qx, sets, args.repeat)
    return 0


if __name__ == "__main__":
    sys.exit(main())
