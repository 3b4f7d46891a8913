#!/usr/bin/env python3
"""Draws the two arrow strips of the image buttons as 16-colour bitmaps: five 16 by 16 frames each
(normal, hot, pressed, disabled, focused), on bright green, which the image list takes as transparent.

Usage: make_arrow_bitmaps.py OUTDIR   (writes arrow_down.bmp and arrow_up.bmp)
"""
import struct
import sys

# The standard 16-colour palette, as (red, green, blue).
PALETTE = [
    (0, 0, 0), (128, 0, 0), (0, 128, 0), (128, 128, 0), (0, 0, 128), (128, 0, 128), (0, 128, 128),
    (192, 192, 192), (128, 128, 128), (255, 0, 0), (0, 255, 0), (255, 255, 0), (0, 0, 255),
    (255, 0, 255), (0, 255, 255), (255, 255, 255),
]
BLACK, GREY, GREEN, CYAN, WHITE = 0, 8, 10, 14, 15
SIZE = 16
FRAMES = 5
DISABLED = 3


def down_arrow_cells():
    """The cells of a down arrow: a shaft over a head that narrows to the bottom."""
    cells = set()
    for y in range(2, 8):
        for x in range(6, 10):
            cells.add((x, y))
    for row, y in enumerate(range(7, 14)):
        for x in range(1 + row, 15 - row):
            cells.add((x, y))
    return cells


def frame(cells, disabled):
    grid = [[GREEN] * SIZE for _ in range(SIZE)]
    if disabled:
        for x, y in cells:
            grid[y][x] = GREY
        # A white shadow along the lower right edges: the shape moved one pixel down and right.
        for x, y in cells:
            nx, ny = x + 1, y + 1
            if nx < SIZE and ny < SIZE and (nx, ny) not in cells:
                grid[ny][nx] = WHITE
        return grid
    for x, y in cells:
        edge = any((x + dx, y + dy) not in cells for dx, dy in ((1, 0), (-1, 0), (0, 1), (0, -1)))
        grid[y][x] = BLACK if edge else CYAN
    return grid


def strip(cells):
    rows = [[] for _ in range(SIZE)]
    for index in range(FRAMES):
        grid = frame(cells, index == DISABLED)
        for y in range(SIZE):
            rows[y].extend(grid[y])
    return rows


def bitmap(rows):
    width = len(rows[0])
    stride = (width // 2 + 3) // 4 * 4
    pixels = b""
    for row in reversed(rows):  # bottom-up
        packed = bytes((row[i] << 4) | row[i + 1] for i in range(0, width, 2))
        pixels += packed + b"\0" * (stride - len(packed))
    palette = b"".join(struct.pack("<BBBB", b, g, r, 0) for r, g, b in PALETTE)
    header = struct.pack("<IiiHHIIiiII", 40, width, len(rows), 1, 4, 0, len(pixels), 2835, 2835, 16, 16)
    offset = 14 + len(header) + len(palette)
    file_header = struct.pack("<2sIHHI", b"BM", offset + len(pixels), 0, 0, offset)
    return file_header + header + palette + pixels


def main():
    out = sys.argv[1]
    down = down_arrow_cells()
    up = {(x, SIZE - 1 - y) for x, y in down}
    with open(f"{out}/arrow_down.bmp", "wb") as f:
        f.write(bitmap(strip(down)))
    with open(f"{out}/arrow_up.bmp", "wb") as f:
        f.write(bitmap(strip(up)))


if __name__ == "__main__":
    main()
