"""Synthetic scenes with a known alpha and foreground, made in NumPy."""

import types

import numpy as np


def soft_disc(width=160, height=120, radius=34.0, ramp=6.0, band=8.0):
    """A warm subject, its edge a linear ramp, over a cool background, both colour gradients;
    the tri-map (and strokes) leave `band` pixels undecided on each side of the circle."""
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
    """The GrabCut scene: (image, the orange disc wanted, an orange square not wanted)."""
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
    """The band's error of the hard cut at the true edge."""
    return mean_error((scene.alpha >= 0.5) * 1.0, scene.alpha, scene.band)


def foreground_error(colours, scene):
    """Over the partly transparent pixels, the sum of alpha * |colour - true foreground|."""
    c = colours / 255.0 if colours.dtype == np.uint8 else colours
    part = (scene.alpha > 0) & (scene.alpha < 1)
    return float((scene.alpha[:, :, None] * np.abs(c - scene.fg))[part].sum())
