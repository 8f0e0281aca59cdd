#!/usr/bin/env python3
"""Draws the Tremora icon: a motion-map heat blob, blue at its rim and red at its core,
laid over a darkened grey scene in a rounded frame.

Writes quorl.ico (PNG-compressed entries, largest first) for the window icon and one PNG
per size under hicolor/<size>x<size>/apps/tremora.png for the desktop install. Uses only
the Python standard library so it runs anywhere the sources do:

    python3 resources/make_icon.py [output-folder]
"""

import math
import os
import struct
import sys
import zlib

SIZES = (128, 64, 48, 32, 16)
SUPERSAMPLING = 4

# The same blue-cyan-yellow-red scale as the maps the application draws.
def heat_colour(index):
    i = max(0, min(255, index))
    if i < 32:
        return 0, 0, 127 + 4 * i
    if i < 96:
        return 0, 4 * (i - 32), 255
    if i < 160:
        return 4 * (i - 96) + 1, 255, 253 - 4 * (i - 96)
    if i < 224:
        return 255, 252 - 4 * (i - 160), 0
    return 251 - 4 * (i - 224), 0, 0


# Two overlapping blobs read as "something moved here, and a bit over there".
BLOBS = ((0.42, 0.46, 0.30, 1.0), (0.68, 0.64, 0.20, 0.75))


def heat_at(x, y):
    total = 0.0
    for cx, cy, radius, weight in BLOBS:
        d2 = ((x - cx) ** 2 + (y - cy) ** 2) / (radius * radius)
        total += weight * math.exp(-2.2 * d2)
    return min(total, 1.0)


def rounded_box_coverage(x, y, margin, radius):
    """1 inside the rounded square that spans [margin, 1 - margin], else 0."""
    lo, hi = margin + radius, 1.0 - margin - radius
    dx = max(lo - x, 0.0, x - hi)
    dy = max(lo - y, 0.0, y - hi)
    return 1.0 if dx * dx + dy * dy <= radius * radius else 0.0


def scene_grey(x, y):
    """A dim, slightly lit background: brighter towards the top left."""
    return 70 + int(40 * (1.0 - 0.5 * (x + y)))


def shade(x, y):
    """Colour (r, g, b, a) of one sample in unit coordinates."""
    outer = rounded_box_coverage(x, y, 0.03, 0.16)
    if outer == 0.0:
        return 0, 0, 0, 0
    inner = rounded_box_coverage(x, y, 0.09, 0.11)
    if inner == 0.0:
        return 38, 40, 46, 255
    grey = scene_grey(x, y) // 2
    heat = heat_at(x, y)
    if heat < 0.12:
        return grey, grey, grey, 255
    r, g, b = heat_colour(int(30 + heat * 225))
    return min(r + grey, 255), min(g + grey, 255), min(b + grey, 255), 255


def render(size):
    rows = []
    n = SUPERSAMPLING
    for py in range(size):
        row = bytearray()
        for px in range(size):
            acc = [0, 0, 0, 0]
            for sy in range(n):
                for sx in range(n):
                    x = (px + (sx + 0.5) / n) / size
                    y = (py + (sy + 0.5) / n) / size
                    r, g, b, a = shade(x, y)
                    acc[0] += r * a
                    acc[1] += g * a
                    acc[2] += b * a
                    acc[3] += a
            alpha = acc[3]
            if alpha == 0:
                row += bytes(4)
            else:
                row += bytes((acc[0] // alpha, acc[1] // alpha, acc[2] // alpha, alpha // (n * n)))
        rows.append(bytes(row))
    return rows


def png_chunk(kind, data):
    body = kind + data
    return struct.pack(">I", len(data)) + body + struct.pack(">I", zlib.crc32(body) & 0xFFFFFFFF)


def encode_png(size, rows):
    header = struct.pack(">IIBBBBB", size, size, 8, 6, 0, 0, 0)  # 8-bit RGBA
    raw = b"".join(b"\x00" + row for row in rows)
    return (b"\x89PNG\r\n\x1a\n" + png_chunk(b"IHDR", header)
            + png_chunk(b"IDAT", zlib.compress(raw, 9)) + png_chunk(b"IEND", b""))


def encode_ico(pngs):
    """pngs: list of (size, png bytes); entries keep the given order."""
    header = struct.pack("<HHH", 0, 1, len(pngs))
    offset = len(header) + 16 * len(pngs)
    directory = b""
    for size, data in pngs:
        side = 0 if size >= 256 else size
        directory += struct.pack("<BBBBHHII", side, side, 0, 0, 1, 32, len(data), offset)
        offset += len(data)
    return header + directory + b"".join(data for _, data in pngs)


def main():
    out = sys.argv[1] if len(sys.argv) > 1 else os.path.dirname(os.path.abspath(__file__))
    pngs = [(size, encode_png(size, render(size))) for size in SIZES]
    with open(os.path.join(out, "quorl.ico"), "wb") as f:
        f.write(encode_ico(pngs))
    for size, data in pngs:
        folder = os.path.join(out, "hicolor", f"{size}x{size}", "apps")
        os.makedirs(folder, exist_ok=True)
        with open(os.path.join(folder, "tremora.png"), "wb") as f:
            f.write(data)


if __name__ == "__main__":
    main()
