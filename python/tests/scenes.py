"""Synthetic scenes with a known alpha and foreground, made in NumPy."""

import numpy as np


class Scene:
    """image: H x W x 3 uint8 RGB composite; alpha: float truth on 0..1; fg and bg: float RGB on
    0..1; trimap and strokes: uint8 tri-map (0 / 128 / 255) and edge-band strokes (255 keep,
    0 cut, 128 unpainted)."""


def soft_disc(width=160, height=120, radius=34.0, ramp=6.0, band=8.0):
    """A subject with a soft edge (alpha falls linearly from 1 to 0 over `ramp` pixels around
    the circle of `radius`) over a background, both with smooth colour gradients, the subject
    warm and the background cool. The tri-map leaves `band` pixels undecided on each side of the
    circle; the edge-band strokes paint everything else."""
    y, x = np.mgrid[0:height, 0:width].astype(np.float64)
    cx, cy = width / 2.0, height / 2.0
    d = np.hypot(x - cx, y - cy)
    s = Scene()
    s.alpha = np.clip((radius + ramp / 2.0 - d) / ramp, 0.0, 1.0)
    u, v = x / (width - 1), y / (height - 1)
    s.fg = np.stack([0.85 - 0.15 * v, 0.45 + 0.2 * u, 0.15 + 0.1 * v], axis=2)
    s.bg = np.stack([0.15 + 0.2 * u, 0.35 + 0.15 * v, 0.75 - 0.2 * u], axis=2)
    a = s.alpha[:, :, None]
    s.image = np.rint(255.0 * (a * s.fg + (1.0 - a) * s.bg)).astype(np.uint8)
    s.trimap = np.full((height, width), 128, np.uint8)
    s.trimap[d <= radius - band] = 255
    s.trimap[d >= radius + band] = 0
    s.strokes = s.trimap.copy()
    s.center = (cx, cy)
    s.radius = radius
    return s


def subject_and_square(width=180, height=140, seed=3):
    """The GrabCut scene: a noisy blue-grey background, an orange disc (the subject, centre
    (80, 70), radius 40) and a small orange square (x 140..155, y 20..35) that the user does
    not want. Returns (image RGB uint8, subject mask, square mask)."""
    rng = np.random.default_rng(seed)
    y, x = np.mgrid[0:height, 0:width]
    subject = (x - 80) ** 2 + (y - 70) ** 2 <= 40 * 40
    square = (x >= 140) & (x < 156) & (y >= 20) & (y < 36)
    coloured = subject | square
    noise = rng.integers(-10, 11, size=(height, width))
    r = np.where(coloured, 230, 110) + noise
    g = np.where(coloured, 120, 130) + noise
    b = np.where(coloured, 40, 150) + noise
    image = np.stack([r, g, b], axis=2).astype(np.uint8)
    return image, subject, square


def scribbles(scene):
    """A few hand-like strokes on the soft disc: a keep stroke across the subject's middle and
    cut strokes along the image's border; everything else unpainted (128)."""
    h, w = scene.alpha.shape
    cx, cy = scene.center
    out = np.full((h, w), 128, np.uint8)
    out[int(cy) - 2:int(cy) + 3, int(cx - scene.radius / 2):int(cx + scene.radius / 2)] = 255
    out[:3, :] = 0
    out[-3:, :] = 0
    out[:, :3] = 0
    out[:, -3:] = 0
    return out


def mean_error(values, truth, where):
    """Mean absolute difference on the 0..1 scale over the pixels `where` (values uint8 or on
    0..1)."""
    v = values.astype(np.float64)
    if values.dtype == np.uint8:
        v /= 255.0
    return float(np.abs(v - truth)[where].mean())


def hard_cut_error(scene, where):
    """The error of the best answer that knows only where the edge is: alpha 1 inside the
    circle where the true alpha is one half, 0 outside."""
    return mean_error((scene.alpha >= 0.5).astype(np.float64), scene.alpha, where)


def foreground_error(colours, scene):
    """Over the partly transparent pixels, the sum of alpha * |colour - true foreground| (three
    channels, 0..1 scale): a pixel counts as much as it shows."""
    c = colours.astype(np.float64)
    if colours.dtype == np.uint8:
        c /= 255.0
    part = (scene.alpha > 0) & (scene.alpha < 1)
    return float((scene.alpha[:, :, None] * np.abs(c - scene.fg))[part].sum())
