#!/usr/bin/env python3
"""Joins the benchmark programs' rows into one markdown table and draws the connect latency chart.

report.py --rows ROWS.tsv --samples SAMPLES.csv --facts FACTS.txt --markdown OUT.md --chart OUT.png
ROWS.tsv: benchmark, case, N, median ns, p99 ns, notes (tab-separated, as the programs append them).
SAMPLES.csv: protocol, kind, ns of every timed connect. FACTS.txt: lines about the machine and the run.
The table goes to stdout and, with the facts above it, to OUT.md.
"""
from __future__ import annotations

import argparse
import collections
import csv
import math
import sys


def format_ns(ns: float) -> str:
    if math.isnan(ns):
        return "-"
    if abs(ns) < 1e3:
        return f"{ns:.1f} ns"
    if abs(ns) < 1e6:
        return f"{ns / 1e3:.1f} us"
    if abs(ns) < 1e9:
        return f"{ns / 1e6:.2f} ms"
    return f"{ns / 1e9:.2f} s"


def read_rows(path: str) -> list[list[str]]:
    rows = []
    with open(path, encoding="utf-8", errors="replace") as f:
        for line in f:
            fields = line.rstrip("\r\n").split("\t")
            if len(fields) != 6:
                raise SystemExit(f"report: bad row in {path}: {line!r}")
            rows.append(fields)
    if not rows:
        raise SystemExit(f"report: no rows in {path}")
    return rows


def table(rows: list[list[str]]) -> str:
    lines = ["| Benchmark | Case | N | Median | p99 | Notes |", "|---|---|---:|---:|---:|---|"]
    for benchmark, case, count, median, p99, notes in rows:
        lines.append(f"| {benchmark} | {case} | {count} | {format_ns(float(median))} | "
                     f"{format_ns(float(p99))} | {notes} |")
    return "\n".join(lines) + "\n"


def chart(samples_path: str, out_path: str, title: str) -> None:
    import matplotlib
    matplotlib.use("Agg")
    import matplotlib.pyplot as plt

    samples: dict[str, dict[str, list[float]]] = collections.OrderedDict()
    with open(samples_path, newline="", encoding="utf-8") as f:
        for protocol, kind, ns in csv.reader(f):
            samples.setdefault(protocol, {}).setdefault(kind, []).append(float(ns) / 1e3)
    if not samples:
        raise SystemExit(f"report: no samples in {samples_path}")

    kinds = ["library", "hand-written"]
    colours = {"library": "#1f77b4", "hand-written": "#ff7f0e"}
    fig, ax = plt.subplots(figsize=(9, 5.5), dpi=110)
    positions, data, labels = [], [], []
    for i, protocol in enumerate(samples):
        for j, kind in enumerate(kinds):
            values = samples[protocol].get(kind, [])
            if values:
                positions.append(i * 3 + j)
                data.append(values)
                labels.append(kind)
    boxes = ax.boxplot(data, positions=positions, widths=0.7, whis=(5, 95), showfliers=False,
                       patch_artist=True, medianprops={"color": "black"})
    for patch, kind in zip(boxes["boxes"], labels):
        patch.set_facecolor(colours[kind])
    # The p99 of the table (nearest rank) as a marker of its own; the whiskers reach from p5 to p95.
    for position, values in zip(positions, data):
        values = sorted(values)
        p99 = values[max(0, -(-99 * len(values) // 100) - 1)]
        ax.plot(position, p99, marker="_", color="red", markersize=14)
    ax.set_xticks([i * 3 + 0.5 for i in range(len(samples))])
    ax.set_xticklabels(list(samples))
    ax.set_ylabel("connect latency (microseconds)")
    ax.set_title(title, fontsize=10)
    handles = [plt.Rectangle((0, 0), 1, 1, color=colours[k]) for k in kinds]
    handles.append(plt.Line2D([], [], marker="_", color="red", linestyle="", markersize=14))
    ax.legend(handles, kinds + ["p99"], loc="upper center", ncol=3)
    ax.margins(y=0.15)
    ax.grid(axis="y", alpha=0.3)
    ax.set_ylim(bottom=0)
    fig.text(0.01, 0.01, "boxes: quartiles and median; whiskers: p5 to p95; red: p99", fontsize=8)
    fig.tight_layout()
    fig.savefig(out_path)


def main() -> int:
    parser = argparse.ArgumentParser()
    parser.add_argument("--rows", required=True)
    parser.add_argument("--samples", required=True)
    parser.add_argument("--facts", required=True)
    parser.add_argument("--markdown", required=True)
    parser.add_argument("--chart", required=True)
    args = parser.parse_args()

    text = table(read_rows(args.rows))
    with open(args.facts, encoding="utf-8") as f:
        facts = [line.rstrip("\n") for line in f if line.strip()]
    sys.stdout.write(text)
    with open(args.markdown, "w", encoding="utf-8") as f:
        f.write("# Benchmark results\n\n")
        f.writelines(f"- {fact}\n" for fact in facts)
        f.write("\n" + text)
        f.write("\n![Connect latency per protocol](connect-latency.png)\n")
    title = "Blocking connect through DXSOCKS.DLL vs. the same handshake by hand"
    date = next((fact for fact in facts if fact.startswith("Date:")), "")
    chart(args.samples, args.chart, f"{title}\n{date}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
