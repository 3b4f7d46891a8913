#!/usr/bin/env python3
"""Checks that the CTest groups of each GoogleTest program run every case of it exactly once.

Input: the file tests/CMakeLists.txt generates, one line per group: program, program file, group name
and the group's --gtest_filter, separated by tabs. The program lists its cases under Wine, once in
full and once per group filter, so that GoogleTest itself decides what a filter takes. Fails when a
case is in no group or in more than one, or when a group takes no case (a suite renamed or gone).
"""
import collections
import concurrent.futures
import subprocess
import sys

LIST_SECONDS = 60


def parse_listing(text: str) -> list[str]:
    """Case names ("Suite.Case", "Prefix/Suite.Case/0") from the output of --gtest_list_tests."""
    cases, suite = [], None
    for line in text.replace("\r", "").splitlines():
        if not line.strip():
            continue
        if not line.startswith(" "):
            word = line.split()[0]
            suite = word if word.endswith(".") else None  # e.g. "Running main() from gtest_main.cc"
        elif suite is not None:
            cases.append(suite + line.split()[0])
    return cases


def list_cases(exe: str, gtest_filter: str | None) -> list[str]:
    command = ["wine", exe, "--gtest_list_tests"]
    if gtest_filter is not None:
        command.append("--gtest_filter=" + gtest_filter)
    run = subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, timeout=LIST_SECONDS)
    text = run.stdout.decode("utf-8", "replace")
    if run.returncode != 0:
        raise RuntimeError(f"{' '.join(command)} exited with {run.returncode}:\n{text}"
                           f"{run.stderr.decode('utf-8', 'replace')}")
    return parse_listing(text)


def problems(program: str, every: list[str], groups: dict[str, list[str]]) -> list[str]:
    found = []
    if not every:
        found.append(f"{program}: lists no case at all")
    owners = collections.defaultdict(list)
    for group, cases in groups.items():
        if not cases:
            found.append(f"{program}.{group}: its filter takes no case")
        for case in cases:
            owners[case].append(group)
    for case in every:
        if not owners[case]:
            found.append(f"{program}: {case} is in no group")
        elif len(owners[case]) > 1:
            found.append(f"{program}: {case} is in {len(owners[case])} groups: {', '.join(owners[case])}")
    for case in sorted(set(owners) - set(every)):
        found.append(f"{program}: {case} is in a group but not in the program's own list")
    return found


def self_check() -> None:
    """The comparison itself must see a case left out, a case run twice and an empty group."""
    listing = "Running main() from gtest_main.cc\nA.\n  One\n  Two\nP/B.\n  Three/0  # GetParam() = 1\n"
    every = parse_listing(listing)
    assert every == ["A.One", "A.Two", "P/B.Three/0"], every
    assert problems("p", every, {"a": ["A.One", "A.Two"], "b": ["P/B.Three/0"]}) == []
    found = problems("p", every, {"a": ["A.One"], "b": ["A.One", "P/B.Three/0"], "c": []})
    assert any("A.Two is in no group" in f for f in found), found
    assert any("A.One is in 2 groups" in f for f in found), found
    assert any("p.c: its filter takes no case" in f for f in found), found


def main(manifest: str) -> int:
    self_check()
    programs: dict[str, tuple[str, dict[str, str]]] = {}
    with open(manifest) as lines:
        for line in lines:
            if not line.strip():
                continue
            program, exe, group, gtest_filter = line.rstrip("\n").split("\t")
            _, filters = programs.setdefault(program, (exe, {}))
            if group in filters:
                print(f"{program}.{group}: registered twice")
                return 1
            filters[group] = gtest_filter

    jobs = {}
    with concurrent.futures.ThreadPoolExecutor(max_workers=2) as pool:
        for program, (exe, filters) in programs.items():
            jobs[program, None] = pool.submit(list_cases, exe, None)
            for group, gtest_filter in filters.items():
                jobs[program, group] = pool.submit(list_cases, exe, gtest_filter)
        listed = {key: job.result() for key, job in jobs.items()}

    found = []
    for program, (_, filters) in programs.items():
        every = listed[program, None]
        groups = {group: listed[program, group] for group in filters}
        found += problems(program, every, groups)
        print(f"{program}: {len(every)} cases in {len(groups)} groups "
              f"({', '.join(f'{g} {len(c)}' for g, c in groups.items())})")
    for problem in found:
        print(problem)
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))
