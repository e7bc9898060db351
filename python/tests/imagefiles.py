"""Small image-file helpers for the tests and the benchmark, NumPy only: binary PGM/PPM both
ways, and 8-bit non-interlaced PNG for reading (what OpenCV's imwrite produces)."""

import struct
import zlib

import numpy as np


def write_pnm(path, pixels):
    """H x W uint8 as PGM (P5), H x W x 3 uint8 (RGB) as PPM (P6)."""
    pixels = np.ascontiguousarray(pixels, dtype=np.uint8)
    magic = b"P5" if pixels.ndim == 2 else b"P6"
    with open(path, "wb") as f:
        f.write(b"%s\n%d %d\n255\n" % (magic, pixels.shape[1], pixels.shape[0]))
        f.write(pixels.tobytes())


def read_pnm(path):
    with open(path, "rb") as f:
        data = f.read()
    fields, pos = [], 0
    while len(fields) < 4:
        while data[pos:pos + 1].isspace():
            pos += 1
        if data[pos:pos + 1] == b"#":
            pos = data.index(b"\n", pos) + 1
            continue
        end = pos
        while not data[end:end + 1].isspace():
            end += 1
        fields.append(data[pos:end])
        pos = end
    pos += 1  # the one whitespace byte after the maximum
    magic, width, height, maximum = fields[0], int(fields[1]), int(fields[2]), int(fields[3])
    assert maximum == 255, "only 8-bit files"
    channels = {b"P5": 1, b"P6": 3}[magic]
    pixels = np.frombuffer(data, np.uint8, width * height * channels, pos)
    return pixels.reshape((height, width) if channels == 1 else (height, width, channels)).copy()


def _paeth(a, b, c):
    p = a + b - c
    pa, pb, pc = abs(p - a), abs(p - b), abs(p - c)
    if pa <= pb and pa <= pc:
        return a
    return b if pb <= pc else c


def read_png(path):
    """8-bit grey, grey+alpha, RGB, RGBA or palette, not interlaced: H x W (x C) uint8, RGB(A)
    order (a palette image as RGB)."""
    with open(path, "rb") as f:
        data = f.read()
    assert data[:8] == b"\x89PNG\r\n\x1a\n", "not a PNG file"
    pos, idat, header, palette = 8, [], None, None
    while pos < len(data):
        length, kind = struct.unpack(">I4s", data[pos:pos + 8])
        body = data[pos + 8:pos + 8 + length]
        if kind == b"IHDR":
            header = struct.unpack(">IIBBBBB", body)
        elif kind == b"PLTE":
            palette = np.frombuffer(body, np.uint8).reshape(-1, 3)
        elif kind == b"IDAT":
            idat.append(body)
        pos += 12 + length
    width, height, depth, colour, _, _, interlace = header
    assert depth == 8 and interlace == 0, "only 8-bit, non-interlaced files"
    channels = {0: 1, 2: 3, 3: 1, 4: 2, 6: 4}[colour]
    raw = zlib.decompress(b"".join(idat))
    stride = width * channels
    out = np.zeros((height, stride), np.uint8)
    previous = np.zeros(stride, np.int64)
    for y in range(height):
        kind = raw[y * (stride + 1)]
        line = np.frombuffer(raw, np.uint8, stride, y * (stride + 1) + 1).astype(np.int64)
        if kind == 0:
            row = line
        elif kind == 2:
            row = (line + previous) & 255
        elif kind == 1:
            row = line.reshape(-1, channels).cumsum(axis=0).reshape(-1) & 255
        else:  # Average and Paeth depend on the pixel before: byte by byte
            cur, prev, li = [0] * stride, previous.tolist(), line.tolist()
            for i in range(stride):
                left = cur[i - channels] if i >= channels else 0
                if kind == 3:
                    cur[i] = (li[i] + (left + prev[i]) // 2) & 255
                else:
                    upper_left = prev[i - channels] if i >= channels else 0
                    cur[i] = (li[i] + _paeth(left, prev[i], upper_left)) & 255
            row = np.array(cur, np.int64)
        out[y] = row
        previous = row
    out = out.reshape((height, width) if channels == 1 else (height, width, channels))
    return palette[out] if colour == 3 else out
