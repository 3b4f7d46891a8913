#!/usr/bin/env python3
"""Checks each PNG picture that README.md links: the file exists and is a PNG; a picture of a dialog
(under docs/images/) is also of a dialog's size (neither an icon nor a whole screen) and not blank
(more than a few colours). No pixel is compared with anything.

Usage: check_readme_images.py ROOT        checks ROOT/README.md's pictures
       check_readme_images.py --self-test  shows that bad pictures fail
"""
import os
import re
import struct
import sys
import tempfile
import zlib

PNG_SIGNATURE = b"\x89PNG\r\n\x1a\n"
# A dialog on a 1024 x 768 screen: larger than a button, smaller than the screen.
MIN_WIDTH, MAX_WIDTH = 200, 1000
MIN_HEIGHT, MAX_HEIGHT = 100, 740
MIN_COLOURS = 8
# Markdown images and HTML <img> tags.
LINK_PATTERNS = [re.compile(r"!\[[^\]]*\]\(([^)\s]+)"), re.compile(r"<img\s[^>]*src=\"([^\"]+)\"")]
CHANNELS = {0: 1, 2: 3, 3: 1, 4: 2, 6: 4}
DIALOG_FOLDER = "docs/images/"


def linked_pictures(readme_text):
    links = []
    for pattern in LINK_PATTERNS:
        links.extend(pattern.findall(readme_text))
    return [link for link in links if not re.match(r"[a-z]+://", link)]


def read_chunks(data):
    position = len(PNG_SIGNATURE)
    while position + 8 <= len(data):
        length, kind = struct.unpack(">I4s", data[position:position + 8])
        body = data[position + 8:position + 8 + length]
        if len(body) != length:
            raise ValueError("truncated chunk")
        yield kind, body
        position += 12 + length


def paeth(a, b, c):
    p = a + b - c
    pa, pb, pc = abs(p - a), abs(p - b), abs(p - c)
    if pa <= pb and pa <= pc:
        return a
    return b if pb <= pc else c


def decode(data):
    """Width, height and the set of distinct pixels of an 8-bit, non-interlaced PNG."""
    if not data.startswith(PNG_SIGNATURE):
        raise ValueError("not a PNG")
    header = None
    compressed = b""
    for kind, body in read_chunks(data):
        if kind == b"IHDR":
            header = struct.unpack(">IIBBBBB", body)
        elif kind == b"IDAT":
            compressed += body
    if header is None:
        raise ValueError("no IHDR")
    width, height, depth, colour_type, _, _, interlace = header
    if depth != 8 or colour_type not in CHANNELS or interlace != 0:
        raise ValueError("depth %d, colour type %d, interlace %d not read here" % (depth, colour_type, interlace))
    stride = width * CHANNELS[colour_type]
    step = CHANNELS[colour_type]
    raw = zlib.decompress(compressed)
    if len(raw) != height * (stride + 1):
        raise ValueError("pixel data of %d bytes for %d x %d" % (len(raw), width, height))
    pixels = set()
    previous = bytearray(stride)
    for row in range(height):
        start = row * (stride + 1)
        kind = raw[start]
        line = bytearray(raw[start + 1:start + 1 + stride])
        for i in range(stride):
            left = line[i - step] if i >= step else 0
            up = previous[i]
            upper_left = previous[i - step] if i >= step else 0
            if kind == 1:
                line[i] = (line[i] + left) & 0xFF
            elif kind == 2:
                line[i] = (line[i] + up) & 0xFF
            elif kind == 3:
                line[i] = (line[i] + ((left + up) >> 1)) & 0xFF
            elif kind == 4:
                line[i] = (line[i] + paeth(left, up, upper_left)) & 0xFF
            elif kind != 0:
                raise ValueError("filter %d" % kind)
        for i in range(0, stride, step):
            pixels.add(bytes(line[i:i + step]))
        previous = line
    return width, height, pixels


def check_picture(path, dialog=True):
    """The problems of one picture, empty when it is good."""
    if not os.path.isfile(path):
        return ["missing"]
    with open(path, "rb") as f:
        data = f.read()
    if not dialog:
        return [] if data.startswith(PNG_SIGNATURE) else ["not a PNG"]
    try:
        width, height, pixels = decode(data)
    except (ValueError, zlib.error, struct.error) as error:
        return ["not a readable PNG: %s" % error]
    problems = []
    if not (MIN_WIDTH <= width <= MAX_WIDTH and MIN_HEIGHT <= height <= MAX_HEIGHT):
        problems.append("%d x %d is not a dialog's size" % (width, height))
    if len(pixels) <= MIN_COLOURS:
        problems.append("blank: %d colours" % len(pixels))
    return problems


def check_readme(root):
    with open(os.path.join(root, "README.md"), encoding="utf-8") as f:
        links = linked_pictures(f.read())
    pictures = [link for link in links if link.lower().endswith(".png")]
    if not any(link.startswith(DIALOG_FOLDER) for link in pictures):
        print("README.md links no picture of a dialog (%s*.png)" % DIALOG_FOLDER)
        return 1
    failures = 0
    for link in pictures:
        problems = check_picture(os.path.join(root, link), link.startswith(DIALOG_FOLDER))
        print("%s: %s" % (link, "; ".join(problems) if problems else "ok"))
        failures += bool(problems)
    return 1 if failures else 0


def png(width, height, pixel_at):
    rows = b""
    for y in range(height):
        rows += b"\x00" + b"".join(bytes(pixel_at(x, y)) for x in range(width))

    def chunk(kind, body):
        return struct.pack(">I", len(body)) + kind + body + struct.pack(">I", zlib.crc32(kind + body))

    header = struct.pack(">IIBBBBB", width, height, 8, 2, 0, 0, 0)
    return PNG_SIGNATURE + chunk(b"IHDR", header) + chunk(b"IDAT", zlib.compress(rows)) + chunk(b"IEND", b"")


def self_test():
    colourful = png(300, 200, lambda x, y: ((x * 7) & 0xFF, (y * 5) & 0xFF, (x + y) & 0xFF))
    blank = png(300, 200, lambda x, y: (212, 208, 200))
    few = png(300, 200, lambda x, y: (0, 0, 0) if (x // 10) % 4 == 0 else (255, 255, 255))
    tiny = png(40, 30, lambda x, y: ((x * 7) & 0xFF, (y * 5) & 0xFF, 0))
    screen = png(1024, 768, lambda x, y: (x & 0xFF, y & 0xFF, 0))
    cases = [("colourful.png", colourful, True), ("blank.png", blank, False), ("few.png", few, False),
             ("tiny.png", tiny, False), ("screen.png", screen, False),
             ("text.png", b"not a picture", False), ("cut.png", colourful[:200], False)]
    failures = 0
    with tempfile.TemporaryDirectory() as root:
        os.makedirs(os.path.join(root, "docs", "images"))
        readme = ""
        for name, data, _ in cases:
            with open(os.path.join(root, "docs", "images", name), "wb") as f:
                f.write(data)
            readme += "![%s](docs/images/%s)\n" % (name, name)
        readme += '<img src="docs/images/missing.png" alt="gone">\n'
        with open(os.path.join(root, "README.md"), "w", encoding="utf-8") as f:
            f.write(readme)
        for name, _, good in cases + [("missing.png", None, False)]:
            problems = check_picture(os.path.join(root, "docs", "images", name))
            if bool(problems) == good:
                print("self-test: %s judged %s" % (name, problems or "good"))
                failures += 1
        if linked_pictures(readme) != ["docs/images/%s" % name for name, _, _ in cases] + ["docs/images/missing.png"]:
            print("self-test: links read as %s" % linked_pictures(readme))
            failures += 1
        if check_readme(root) != 1:
            print("self-test: a README with bad pictures passed")
            failures += 1
        # Good dialogs beside a chart elsewhere, which only has to be a PNG.
        with open(os.path.join(root, "chart.png"), "wb") as f:
            f.write(screen)
        with open(os.path.join(root, "README.md"), "w", encoding="utf-8") as f:
            f.write("![dialog](docs/images/colourful.png)\n![chart](chart.png)\n")
        if check_readme(root) != 0:
            print("self-test: a README with good pictures failed")
            failures += 1
        with open(os.path.join(root, "README.md"), "w", encoding="utf-8") as f:
            f.write("![chart](chart.png)\n")
        if check_readme(root) != 1:
            print("self-test: a README without a dialog's picture passed")
            failures += 1
    print("self-test: %s" % ("failed" if failures else "ok"))
    return 1 if failures else 0


if __name__ == "__main__":
    if len(sys.argv) == 2 and sys.argv[1] == "--self-test":
        sys.exit(self_test())
    if len(sys.argv) != 2:
        print(__doc__)
        sys.exit(2)
    sys.exit(check_readme(sys.argv[1]))
