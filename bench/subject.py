#!/usr/bin/env python3
"""One-click subject selection on the matting benchmark photos: the network's raw mask, the mask
with a fixed band solved by the tri-map workflow (what free tools do with a segmentation mask),
and ours (``qxmatte cutout PHOTO`` without a rectangle: the mask solved on its own band, with
its fall-back). IoU (pixels at 128 and above) and SAD (sum of |alpha - truth| on 0..1, in
thousands) over all pixels against the truth, per photo and means; the seconds and peak
resident memory of our command (a process of its own per photo, the network loaded each time).

    /usr/bin/python3 bench/subject.py [--data DIR] [--build DIR] [--images GT01,GT02]
                                      [--rect] [--megapixels 12]

--rect also cuts out with the rectangle a user would draw (the truth's box grown by 5%):
today's GrabCut cut-out (``cutout --rect``) against the one-click one inside that rectangle
(``cutout --rect --subject``). --megapixels N times ours on the first photo enlarged to N MP.
Skipped (exit 0) when the data or the subject model is absent. Needs Debian's python3 with
NumPy and OpenCV (python3-opencv).
"""

import argparse
import os
import subprocess
import sys
import tempfile
import time

import cv2
import numpy as np

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(ROOT, "python"))


def parse():
    p = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    p.add_argument("--data", default=os.path.join(ROOT, "..", "shared", "data", "alphamatting"))
    p.add_argument("--build", default=os.path.join(ROOT, "build"))
    p.add_argument("--images", default="")
    p.add_argument("--rect", action="store_true")
    p.add_argument("--megapixels", type=float, default=0)
    return p.parse_args()


def iou(a, gt):
    x, y = a >= 128, gt >= 128
    return (x & y).sum() / max(1, (x | y).sum())


def sad(a, gt):
    return np.abs(a.astype(np.float64) - gt).sum() / 255.0 / 1000.0


def fixed_band(qx, rgb, mask):
    """The mask's edge as a band of 10 pixels (a disc of 11 either way), solved by the tri-map
    workflow."""
    hard = (mask >= 128).astype(np.uint8)
    disc = cv2.getStructuringElement(cv2.MORPH_ELLIPSE, (11, 11))
    tri = np.full(mask.shape, 128, np.uint8)
    tri[cv2.erode(hard, disc) > 0] = 255
    tri[cv2.dilate(hard, disc) == 0] = 0
    try:
        return qx.matte_trimap(rgb, tri)
    except ValueError:
        return hard * 255


def run_cutout(qxmatte, photo, work, *extra):
    """qxmatte cutout PHOTO ... in a process of its own: (alpha, seconds, peak MB)."""
    alpha_path = os.path.join(work, "alpha.png")
    start = time.monotonic()
    proc = subprocess.Popen([qxmatte, "cutout", photo, "-q", "-o", os.path.join(work, "cut.png"),
                             "--alpha", alpha_path] + list(extra), stderr=subprocess.PIPE)
    _, status, usage = os.wait4(proc.pid, 0)
    seconds = time.monotonic() - start
    err = proc.stderr.read().decode()
    proc.returncode = os.waitstatus_to_exitcode(status)
    if proc.returncode != 0:
        raise RuntimeError("qxmatte cutout %s failed: %s" % (photo, err.strip()))
    return cv2.imread(alpha_path, cv2.IMREAD_GRAYSCALE), seconds, usage.ru_maxrss / 1024.0


def grown_box(gt, share=0.05):
    ys, xs = np.nonzero(gt >= 128)
    x0, x1, y0, y1 = xs.min(), xs.max() + 1, ys.min(), ys.max() + 1
    dx, dy = int(round((x1 - x0) * share / 2)), int(round((y1 - y0) * share / 2))
    x0, y0 = max(0, x0 - dx), max(0, y0 - dy)
    x1, y1 = min(gt.shape[1], x1 + dx), min(gt.shape[0], y1 + dy)
    return "%d,%d,%d,%d" % (x0, y0, x1 - x0, y1 - y0)


def main():
    args = parse()
    if not os.path.isdir(os.path.join(args.data, "input")):
        print("no benchmark photos at %s: skipped" % args.data)
        return 0
    os.environ.setdefault("QXIVEILON31_LIBRARY", os.path.join(args.build, "libqxiveilon31.so.0"))
    import qxiveilon31 as qx
    qxmatte = os.path.join(args.build, "qxmatte")
    names = args.images.split(",") if args.images else sorted(
        f[:-4] for f in os.listdir(os.path.join(args.data, "input")) if f.endswith(".png"))
    rows, rect_rows = [], []
    with tempfile.TemporaryDirectory() as work:
        for name in names:
            photo = os.path.join(args.data, "input", name + ".png")
            bgr = cv2.imread(photo)
            rgb = np.ascontiguousarray(bgr[:, :, ::-1])
            gt = cv2.imread(os.path.join(args.data, "gt", name + ".png"), cv2.IMREAD_GRAYSCALE)
            try:
                raw = qx.subject_mask(rgb)
            except qx.NoSubjectModel as e:
                print("%s: skipped" % e)
                return 0
            band = fixed_band(qx, rgb, raw)
            ours, seconds, peak = run_cutout(qxmatte, photo, work)
            rows.append((name, [iou(m, gt) for m in (raw, band, ours)],
                         [sad(m, gt) for m in (raw, band, ours)], seconds, peak))
            r = rows[-1]
            print("%s IoU %.3f %.3f %.3f  SAD %.2f %.2f %.2f  %.1f s %.0f MB" % (
                name, *r[1], *r[2], seconds, peak), file=sys.stderr, flush=True)
            if args.rect:
                box = grown_box(gt)
                grabcut = run_cutout(qxmatte, photo, work, "--rect", box)
                subject = run_cutout(qxmatte, photo, work, "--rect", box, "--subject")
                rect_rows.append((name, box, iou(grabcut[0], gt), iou(subject[0], gt),
                                  sad(grabcut[0], gt), sad(subject[0], gt)))
        print("| photo | IoU raw | IoU band | IoU ours | SAD raw | SAD band | SAD ours | ours s "
              "| ours peak MB |")
        print("|---|---|---|---|---|---|---|---|---|")
        for name, i, s, seconds, peak in rows:
            print("| %s | %.3f | %.3f | %.3f | %.2f | %.2f | %.2f | %.1f | %.0f |" % (
                name, *i, *s, seconds, peak))
        mean = lambda k, j: np.mean([r[k][j] for r in rows])
        print("| mean | %.3f | %.3f | %.3f | %.2f | %.2f | %.2f | %.1f | %.0f (max) |" % (
            mean(1, 0), mean(1, 1), mean(1, 2), mean(2, 0), mean(2, 1), mean(2, 2),
            np.mean([r[3] for r in rows]), max(r[4] for r in rows)))
        good = [r for r in rows if r[1][0] >= 0.8]
        if good:
            raw_sad, our_sad = np.mean([r[2][0] for r in good]), np.mean([r[2][2] for r in good])
            band_sad = np.mean([r[2][1] for r in good])
            print("\nphotos with raw IoU >= 0.8 (%d): mean SAD band/raw %.2f, ours/raw %.2f" % (
                len(good), band_sad / raw_sad, our_sad / raw_sad))
        print("largest IoU drop from the raw mask: %.3f" % max(r[1][0] - r[1][2] for r in rows))
        if rect_rows:
            print("\n| photo | rectangle | IoU cutout --rect | IoU --rect --subject "
                  "| SAD --rect | SAD --rect --subject |")
            print("|---|---|---|---|---|---|")
            for r in rect_rows:
                print("| %s | %s | %.3f | %.3f | %.2f | %.2f |" % r)
            print("| mean | | %.3f | %.3f | %.2f | %.2f |" % tuple(
                np.mean([r[k] for r in rect_rows]) for k in range(2, 6)))
        if args.megapixels > 0:
            photo = os.path.join(args.data, "input", names[0] + ".png")
            bgr = cv2.imread(photo)
            f = (args.megapixels * 1e6 / (bgr.shape[0] * bgr.shape[1])) ** 0.5
            big = os.path.join(work, "big.png")
            cv2.imwrite(big, cv2.resize(bgr, None, fx=f, fy=f, interpolation=cv2.INTER_CUBIC))
            _, seconds, peak = run_cutout(qxmatte, big, work)
            print("\n%s enlarged to %.1f MP: ours %.1f s, peak %.0f MB" % (
                names[0], args.megapixels, seconds, peak))
    return 0


if __name__ == "__main__":
    sys.exit(main())
