#!/usr/bin/env python3
"""Checks a DLL: it imports only system DLLs, none of the functions named after the objdump (it binds
those at run time), and every export of the .def file stands at its ordinal."""
import re
import subprocess
import sys

SYSTEM_DLLS = {
    "advapi32.dll", "comctl32.dll", "comdlg32.dll", "gdi32.dll", "kernel32.dll", "msvcrt.dll", "ole32.dll",
    "oleaut32.dll", "shell32.dll", "shlwapi.dll", "user32.dll", "version.dll", "ws2_32.dll", "wsock32.dll",
}


def main(dll: str, def_file: str, objdump: str, *unwanted: str) -> int:
    dump = subprocess.run([objdump, "-p", dll], check=True, capture_output=True, text=True).stdout
    failures = []

    imports = {name.lower() for name in re.findall(r"DLL Name: (\S+)", dump)}
    for name in sorted(imports - SYSTEM_DLLS):
        failures.append(f"imports a non-system DLL: {name}")

    # "\t4438c\t   29  WSAAsyncSelect" under each "DLL Name:" line: the imported functions.
    imported = set(re.findall(r"^\s+[0-9a-f]+\s+\d+\s+(\w+)$", dump, re.M))
    for name in unwanted:
        if name in imported:
            failures.append(f"imports {name}, which it binds at run time")

    # "[   0] +base[   4] ..." gives table index -> ordinal; "[   0] SOCKS_connect" gives index -> name.
    ordinal_of_index = {int(i): int(o) for i, o in re.findall(r"\[\s*(\d+)\] \+base\[\s*(\d+)\]", dump)}
    names = re.findall(r"^\s*\[\s*(\d+)\] ([A-Za-z_]\w*)$", dump, re.M)
    exported = {name: ordinal_of_index.get(int(i)) for i, name in names}

    wanted = dict(re.findall(r"^\s+(\w+)\s+@(\d+)", open(def_file).read(), re.M))
    for name, ordinal in wanted.items():
        if exported.get(name) != int(ordinal):
            failures.append(f"{name}: wanted at ordinal {ordinal}, found {exported.get(name)}")
    for name in sorted(set(exported) - set(wanted)):
        failures.append(f"exported but not in the .def file: {name}")

    for failure in failures:
        print(failure)
    print(f"{len(wanted)} exports checked, imports: {', '.join(sorted(imports))}")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
