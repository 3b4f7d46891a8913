#!/usr/bin/env python3
"""Checks what the build cannot about the library's layers (cmake/sources.cmake).

The build already refuses a header of a folder whose layer a target does not link. This adds:
- every .cpp of a layer folder is named exactly once in the source lists;
- a quoted include names a file, never a path ("../socks/x.h" would slip past the include directories);
- a file includes only headers of its own folder, of the layers its layer uses, or the public ones;
  the top files may include any, and their headers belong to the top alone;
- a portable file, and every header it reaches, includes no Windows header: only C++ standard
  headers and the C headers below.

Usage: check_layers.py ROOT          checks the tree at ROOT; exit status 1 with one line per finding
       check_layers.py --self-test   runs the checks on small trees with known faults
"""
import os
import re
import sys
import tempfile

# C headers a portable file may take in angle brackets; C++ standard headers have no ".h".
PORTABLE_C_HEADERS = {"stddef.h", "stdint.h", "string.h", "stdio.h", "stdlib.h", "stdarg.h", "limits.h", "wchar.h"}

SET_PATTERN = re.compile(r"^set\((DX_\w+)((?:[^)])*)\)", re.M)
INCLUDE_PATTERN = re.compile(r'^\s*#\s*include\s*([<"])([^>"]+)[>"]', re.M)


def read_lists(root):
    text = open(os.path.join(root, "cmake", "sources.cmake"), encoding="utf-8").read()
    text = re.sub(r"#.*", "", text)
    lists = {}
    for match in SET_PATTERN.finditer(text):
        lists[match.group(1)] = match.group(2).split()
    return lists


def includes(path):
    text = open(path, encoding="utf-8", errors="replace").read()
    return [(m.group(1), m.group(2)) for m in INCLUDE_PATTERN.finditer(text)]


def check(root):
    lists = read_lists(root)
    layers = lists.get("DX_LAYERS", [])
    top = set(lists.get("DX_TOP_SOURCES", []))
    top_headers = {os.path.splitext(f)[0] + ".h" for f in top}
    findings = []

    listed = {}
    portable = set()
    for layer in layers:
        for kind in ("PORTABLE", "WIN32"):
            for f in lists.get("DX_%s_%s" % (kind, layer), []):
                listed.setdefault(f, []).append(kind.lower() + " " + layer)
                if kind == "PORTABLE":
                    portable.add(f)
    for f in top:
        listed.setdefault(f, []).append("top")

    # Which folder holds each header, by name.
    header_folder = {}
    for folder in layers + ["include"]:
        directory = os.path.join(root, folder)
        if not os.path.isdir(directory):
            continue
        for name in os.listdir(directory):
            if name.endswith(".h"):
                header_folder.setdefault(name, folder)

    for layer in layers:
        directory = os.path.join(root, layer)
        if not os.path.isdir(directory):
            findings.append("%s: layer folder missing" % layer)
            continue
        for name in sorted(os.listdir(directory)):
            rel = layer + "/" + name
            if name.endswith(".cpp"):
                owners = listed.get(rel, [])
                if len(owners) != 1:
                    findings.append("%s: named %d times in the source lists (%s)" % (rel, len(owners), ", ".join(owners)))
            if not name.endswith((".cpp", ".h")):
                continue
            is_top = rel in top or rel in top_headers
            allowed = {layer, "include"} | set(lists.get("DX_USES_" + layer, []))
            for kind, target in includes(os.path.join(root, rel)):
                if kind != '"':
                    continue
                if "/" in target or "\\" in target:
                    findings.append("%s: includes \"%s\" by a path; name the header alone" % (rel, target))
                    continue
                folder = header_folder.get(target)
                if folder is None:
                    continue  # a generated or system header in quotes: the build judges it
                if target in {os.path.basename(h) for h in top_headers} and not is_top:
                    findings.append("%s: includes \"%s\", which belongs to the top" % (rel, target))
                elif not is_top and folder not in allowed:
                    findings.append("%s: includes \"%s\" of %s/, which layer %s does not use" % (rel, target, folder, layer))

    # Portable files and every header they reach.
    for f in sorted(portable):
        seen = set()
        pending = [f]
        while pending:
            rel = pending.pop()
            if rel in seen:
                continue
            seen.add(rel)
            path = os.path.join(root, rel)
            if not os.path.isfile(path):
                findings.append("%s: listed but missing" % rel)
                continue
            for kind, target in includes(path):
                if kind == "<":
                    if target.endswith(".h") and target not in PORTABLE_C_HEADERS:
                        findings.append("%s: portable (through %s) but includes <%s>" % (f, rel, target))
                else:
                    folder = header_folder.get(os.path.basename(target))
                    if folder is not None:
                        pending.append(folder + "/" + os.path.basename(target))
    return findings


def write(root, rel, text):
    path = os.path.join(root, rel)
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "w", encoding="utf-8") as out:
        out.write(text)


def self_test():
    """Each fault planted in a small tree must be found; the clean tree must pass."""
    sources = """set(DX_LAYERS low high)
set(DX_USES_low "")
set(DX_USES_high low)
set(DX_PORTABLE_low low/wire.cpp)
set(DX_WIN32_low low/glue.cpp)
set(DX_PORTABLE_high high/text.cpp)
set(DX_WIN32_high high/calls.cpp)
set(DX_TOP_SOURCES low/factory.cpp)
"""
    clean = {
        "cmake/sources.cmake": sources,
        "low/wire.h": "#pragma once\n#include <cstdint>\n",
        "low/wire.cpp": '#include "wire.h"\n#include <cstring>\n',
        "low/glue.cpp": '#include <windows.h>\n#include "wire.h"\n',
        "low/factory.h": "#pragma once\n",
        "low/factory.cpp": '#include "factory.h"\n#include "calls.h"\n',
        "high/calls.h": '#pragma once\n#include "wire.h"\n',
        "high/calls.cpp": '#include "calls.h"\n#include <windows.h>\n',
        "high/text.cpp": '#include "wire.h"\n',
        "include/api.h": "#pragma once\n",
    }
    faults = {
        "upward include": ("low/glue.cpp", '#include "calls.h"\n', "does not use"),
        "include by path": ("high/calls.cpp", '#include "../low/wire.h"\n', "by a path"),
        "windows in portable file": ("low/wire.cpp", "#include <windows.h>\n", "portable"),
        "windows in a reached header": ("low/wire.h", "#include <winsock2.h>\n", "portable"),
        "top header below the top": ("high/calls.cpp", '#include "factory.h"\n', "belongs to the top"),
        "unlisted source": ("high/extra.cpp", "", "named 0 times"),
    }
    failures = []
    with tempfile.TemporaryDirectory() as root:
        for rel, text in clean.items():
            write(root, rel, text)
        if check(root):
            failures.append("clean tree: %s" % check(root))
    for name, (rel, added, expected) in faults.items():
        with tempfile.TemporaryDirectory() as root:
            for path, text in clean.items():
                write(root, path, text)
            write(root, rel, clean.get(rel, "") + added)
            found = check(root)
            if not any(expected in line for line in found):
                failures.append("%s: not found (%s)" % (name, found))
    for line in failures:
        print("self-test:", line)
    return 1 if failures else 0


def main():
    if sys.argv[1:] == ["--self-test"]:
        return self_test()
    if len(sys.argv) != 2:
        print(__doc__)
        return 2
    findings = check(sys.argv[1])
    for line in findings:
        print(line)
    return 1 if findings else 0


if __name__ == "__main__":
    sys.exit(main())
