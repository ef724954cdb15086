#!/usr/bin/env python3
"""Draws the application icon's small sizes (16, 24 and 32 px) pixel by pixel,
each on its own grid, so that every stroke is whole pixels and stays legible
where the scalable drawing would blur. Writes <size>.png beside this script."""
import os
import struct
import zlib

SEA = (0x1a, 0x47, 0x63)
DEEP = (0x0e, 0x2a, 0x3d)
GLASS = (0x0d, 0x18, 0x22)
LINE = (0x7f, 0xd3, 0xdd)
PROMPT = (0xf2, 0xb8, 0x4b)

# Per size: corner radius, stroke, the tall pane, the two small panes (x0, y0,
# x1, y1, inclusive), the prompt's chevron points and cursor, and the water row.
LAYOUTS = {
    16: dict(radius=3, stroke=1, tall=(2, 2, 8, 11), small=[(10, 2, 13, 5), (10, 8, 13, 11)],
             chevron=[(4, 5), (5, 6), (4, 7)], cursor=(6, 8, 7, 8), water=13),
    24: dict(radius=4, stroke=1, tall=(3, 3, 12, 16), small=[(15, 3, 20, 8), (15, 11, 20, 16)],
             chevron=[(5, 7), (6, 8), (7, 9), (6, 10), (5, 11)], cursor=(8, 12, 10, 12), water=19),
    32: dict(radius=6, stroke=2, tall=(4, 4, 17, 22), small=[(20, 4, 27, 11), (20, 15, 27, 22)],
             chevron=[(7, 9), (8, 9), (8, 10), (9, 10), (9, 11), (10, 11), (10, 12), (9, 12),
                      (9, 13), (8, 13), (8, 14), (7, 14)], cursor=(11, 16, 14, 17), water=26),
}


def draw(size):
    layout = LAYOUTS[size]
    pixels = [[(0, 0, 0, 0)] * size for _ in range(size)]

    def put(x, y, colour, alpha=255):
        if 0 <= x < size and 0 <= y < size:
            pixels[y][x] = colour + (alpha,)

    r = layout["radius"]
    for y in range(size):
        for x in range(size):
            # Rounded corners: a pixel is in when its centre lies inside the arc.
            cx = min(max(x + 0.5, r), size - r)
            cy = min(max(y + 0.5, r), size - r)
            d = ((x + 0.5 - cx) ** 2 + (y + 0.5 - cy) ** 2) ** 0.5
            if d <= r - 0.25:
                shade = tuple(int(a + (b - a) * y / (size - 1)) for a, b in zip(SEA, DEEP))
                put(x, y, shade, 255 if d <= r - 0.75 else 160)

    def pane(box, alpha):
        x0, y0, x1, y1 = box
        for y in range(y0, y1 + 1):
            for x in range(x0, x1 + 1):
                edge = min(x - x0, x1 - x, y - y0, y1 - y) < layout["stroke"]
                corner = (x in (x0, x1)) and (y in (y0, y1))
                if corner:
                    continue
                put(x, y, LINE if edge else GLASS, alpha if edge else 255)

    pane(layout["tall"], 255)
    for box in layout["small"]:
        pane(box, 190)
    for x, y in layout["chevron"]:
        put(x, y, PROMPT)
    x0, y0, x1, y1 = layout["cursor"]
    for y in range(y0, y1 + 1):
        for x in range(x0, x1 + 1):
            put(x, y, PROMPT)
    # The harbour water: one calm line under the panes (a wave blurs at these sizes).
    left, right = layout["tall"][0], layout["small"][0][2]
    for x in range(left + 1, right):
        for row in range(layout["stroke"]):
            put(x, layout["water"] + row, LINE, 200)
    return pixels


def write_png(path, pixels):
    size = len(pixels)
    raw = b"".join(b"\x00" + b"".join(struct.pack("4B", *p) for p in row) for row in pixels)

    def chunk(kind, data):
        body = kind + data
        return struct.pack(">I", len(data)) + body + struct.pack(">I", zlib.crc32(body))

    header = struct.pack(">IIBBBBB", size, size, 8, 6, 0, 0, 0)
    with open(path, "wb") as out:
        out.write(b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", header) +
                  chunk(b"IDAT", zlib.compress(raw, 9)) + chunk(b"IEND", b""))


if __name__ == "__main__":
    here = os.path.dirname(os.path.abspath(__file__))
    for size in LAYOUTS:
        write_png(os.path.join(here, f"{size}.png"), draw(size))
