"""Synthetic scenes with a known alpha and foreground, made in NumPy."""

import types

import numpy as np


def soft_disc(width=160, height=120, radius=34.0, ramp=6.0, band=8.0):
    """A warm subject with a soft edge (alpha falls linearly from 1 to 0 over `ramp` pixels
    around the circle of `radius`) over a cool background, both smooth colour gradients:
    image = alpha fg + (1 - alpha) bg, rounded to bytes (RGB). The tri-map leaves `band` pixels
    undecided on each side of the circle; `strokes` paint all the rest (255 keep, 0 cut)."""
    y, x = np.mgrid[0:height, 0:width].astype(np.float64)
    d = np.hypot(x - width / 2.0, y - height / 2.0)
    u, v = x / (width - 1), y / (height - 1)
    s = types.SimpleNamespace(d=d)
    s.alpha = np.clip((radius + ramp / 2.0 - d) / ramp, 0.0, 1.0)
    s.fg = np.stack([0.85 - 0.15 * v, 0.45 + 0.2 * u, 0.15 + 0.1 * v], axis=2)
    s.bg = np.stack([0.15 + 0.2 * u, 0.35 + 0.15 * v, 0.75 - 0.2 * u], axis=2)
    a = s.alpha[:, :, None]
    s.image = np.rint(255.0 * (a * s.fg + (1.0 - a) * s.bg)).astype(np.uint8)
    s.trimap = np.full((height, width), 128, np.uint8)
    s.trimap[d <= radius - band] = 255
    s.trimap[d >= radius + band] = 0
    s.strokes = s.trimap.copy()
    s.band = s.trimap == 128
    return s


def subject_and_square(width=180, height=140, seed=3):
    """The GrabCut scene: a noisy blue-grey background, an orange disc (the subject, centre
    (80, 70), radius 40) and a small orange square (x 140..155, y 20..35) that the user does not
    want. Returns (image RGB uint8, subject mask, square mask)."""
    y, x = np.mgrid[0:height, 0:width]
    subject = (x - 80) ** 2 + (y - 70) ** 2 <= 40 * 40
    square = (x >= 140) & (x < 156) & (y >= 20) & (y < 36)
    colour = np.where((subject | square)[:, :, None], [230, 120, 40], [110, 130, 150])
    noise = np.random.default_rng(seed).integers(-10, 11, size=(height, width, 1))
    return (colour + noise).astype(np.uint8), subject, square


def mean_error(values, truth, where):
    """Mean absolute difference on the 0..1 scale over `where` (values uint8 or on 0..1)."""
    v = values / 255.0 if values.dtype == np.uint8 else values
    return float(np.abs(v - truth)[where].mean())


def hard_cut_error(scene):
    """The band's error of the best answer that knows only where the edge is: 1 inside the
    circle where the true alpha is one half, 0 outside."""
    return mean_error((scene.alpha >= 0.5) * 1.0, scene.alpha, scene.band)


def foreground_error(colours, scene):
    """Over the partly transparent pixels, the sum of alpha * |colour - true foreground| (three
    channels, 0..1 scale): a pixel counts as much as it shows."""
    c = colours / 255.0 if colours.dtype == np.uint8 else colours
    part = (scene.alpha > 0) & (scene.alpha < 1)
    return float((scene.alpha[:, :, None] * np.abs(c - scene.fg))[part].sum())
