#!/usr/bin/env python3
"""Measures the road of a message beside its floors and prints one table.

Every program runs once a round, so that a ratio is always taken between figures of the same round:
machines change their speed by themselves. The table has the median over the rounds; in brackets its
ratio to the reference of the case, the median of the rounds' own ratios; and the best round."""
import argparse
import datetime
import json
import os
import platform
import subprocess
import sys
from statistics import median

import charts

HERE = os.path.dirname(os.path.abspath(__file__))
DEFAULT_PROGRAMS = os.path.join(HERE, "..", "..", "build", "release", "bin")

# What is measured, by the programs that can; and which of it also with all processes on one CPU.
CASES = {
    "latency": ("bench_floors", "bench_roundtrip"),
    "pipeline": ("bench_floors", "bench_roundtrip"),
    "notify": ("bench_floors", "bench_roundtrip"),
    "large": ("bench_floors", "bench_roundtrip"),
    "start": ("bench_floors", "bench_roundtrip"),
    "memory": ("bench_roundtrip",),
    "growth": ("bench_roundtrip",),
}
ALSO_ON_ONE_CPU = ("latency", "pipeline", "notify", "large", "start")
# A large payload is measured with glibc keeping freed memory, too: by default, big buffers go back to
# the kernel each time and are faulted in again.
KEPT_HEAP = {"MALLOC_TRIM_THRESHOLD_": str(1 << 30), "MALLOC_MMAP_THRESHOLD_": str(1 << 30),
             "MALLOC_TOP_PAD_": str(64 << 20)}
LIMIT_SECONDS = 300

TITLES = {
    "A": "Round trip of a small request, one in flight",
    "B": "Small requests, 64 in flight",
    "C": "A large payload there and back",
    "G": "Start of a task to its connection",
    "M": "Peak memory (VmHWM)",
    "N": "Notifications, one way",
    "W": "Growth: the same request beside more of everything",
}
ORDER = "ABNCGMW"
# The row that a ratio refers to, by the beginning of its name; without one, the case's first row.
REFERENCE = {"A": "3 Qt", "B": "3 Qt", "N": "3 Qt", "C": "1 raw", "G": "Qt Network"}


class ProgramFailed(Exception):
    pass


def run_program(folder, program, case, one_cpu, settings):
    """The lines that one program prints for one case, with these settings of the C library."""
    cpu = min(os.sched_getaffinity(0))
    pin = (lambda: os.sched_setaffinity(0, {cpu})) if one_cpu else None
    path = os.path.join(folder, program)
    try:
        done = subprocess.run([path, case], stdout=subprocess.PIPE, stdin=subprocess.DEVNULL,
                              preexec_fn=pin, timeout=LIMIT_SECONDS, check=True, text=True,
                              env={**os.environ, **settings})
    except (OSError, subprocess.SubprocessError) as error:
        raise ProgramFailed(f"{program} {case} gives no figures: {error}") from error
    return done.stdout.splitlines()


def runs_of(cases):
    """Program, case, whether on one CPU, and settings of the C library, for one round."""
    for case in cases:
        ways = [(False, {})]
        if case in ALSO_ON_ONE_CPU:
            ways.append((True, {}))
        if case == "large":
            ways.append((False, KEPT_HEAP))
        for one_cpu, settings in ways:
            for program in CASES[case]:
                yield program, case, one_cpu, settings


def print_lines(folder, cases):
    """One round of the road alone."""
    for program, *way in runs_of(cases):
        if program == "bench_roundtrip":
            print("\n".join(run_program(folder, program, *way)), flush=True)


def measure(folder, cases, rounds):
    """section -> case -> peer -> metric -> {"unit", "values" by round}, in the order of arrival."""
    figures = {}
    for number in range(rounds):
        print(f"round {number + 1} of {rounds}", file=sys.stderr)
        for run in runs_of(cases):
            for line in run_program(folder, *run):
                enter(figures, number, line)
    return figures


def enter(figures, number, line):
    """Puts one line of a program, of this round, into the figures."""
    section, kase, peer, metric, value, unit = line.split("\t")
    metrics = figures.setdefault(section, {}).setdefault(kase, {}).setdefault(peer, {})
    metrics.setdefault(metric, {"unit": unit, "values": {}})["values"][number] = float(value)


def add_peers(figures, path):
    """Adds the figures of other systems to the cases that are measured here.

    `path` has a line for each: the round, then what a program prints, separated by tabs. What stands
    among the floors already is left out."""
    with open(path, encoding="utf-8") as lines:
        for line in lines:
            number, rest = line.rstrip("\n").split("\t", 1)
            section, kase, peer, metric = rest.split("\t")[:4]
            known = figures.get(section, {}).get(kase, {})
            measured = {m for metrics in known.values() for m in metrics}
            if metric in measured and charts.kind_of(peer) == "peer":
                enter(figures, f"peers' {number}", rest)


def reference_of(section, peers):
    wanted = REFERENCE.get(section)
    return next((p for p in peers if wanted and p.startswith(wanted)), next(iter(peers)))


def summary_of(figure, reference):
    """Median, best and the ratio to the reference's figures of the same rounds."""
    values = figure["values"]
    ratios = [v / reference["values"][r] for r, v in values.items() if reference["values"].get(r)]
    best = max if figure["unit"].endswith("/s") else min
    return {"median": median(values.values()), "best": best(values.values()),
            "ratio": median(ratios) if ratios else None}


def summarise(figures):
    """A flat list, one entry a figure."""
    rows = []
    for section in sorted(figures, key=ORDER.index):
        for kase, peers in figures[section].items():
            reference = reference_of(section, peers)
            for peer, metrics in peers.items():
                for metric, figure in metrics.items():
                    base = peers[reference].get(metric, figure)
                    rows.append({"section": section, "case": kase, "peer": peer, "metric": metric,
                                 "unit": figure["unit"], "reference": reference,
                                 "values": list(figure["values"].values()),
                                 **summary_of(figure, base)})
    return rows


def number(value):
    return f"{value:,.0f}" if value >= 1000 else f"{value:.3g}"


def cell(row):
    """The median, and in brackets its ratio to the reference."""
    if row["peer"] == row["reference"] or row["ratio"] is None:
        return number(row["median"])
    return f"{number(row['median'])} ({row['ratio']:.2f})"


def case_table(kase, rows):
    """A line for each peer. The column "best" belongs to the first metric."""
    metrics = list(dict.fromkeys(row["metric"] for row in rows))
    units = {row["metric"]: row["unit"] for row in rows}
    heads = [f"{metric}, {units[metric]}" for metric in metrics]
    lines = [f"| {kase} | {heads[0]} | best | " + " | ".join(heads[1:] + [""]),
             "|---|" + "---:|" * (len(metrics) + 1)]
    for peer in dict.fromkeys(row["peer"] for row in rows):
        mine = {row["metric"]: row for row in rows if row["peer"] == peer}
        cells = [cell(mine[metric]) if metric in mine else "-" for metric in metrics]
        best = number(mine[metrics[0]]["best"])
        lines.append(f"| {peer} | {cells[0]} | {best} | " + " | ".join(cells[1:] + [""]))
    return [line.rstrip() for line in lines]


def table(rows):
    lines = []
    for section in dict.fromkeys(row["section"] for row in rows):
        lines.append(f"\n## {TITLES[section]}")
        of_section = [row for row in rows if row["section"] == section]
        for kase in dict.fromkeys(row["case"] for row in of_section):
            lines += [""] + case_table(kase, [row for row in of_section if row["case"] == kase])
    return "\n".join(lines)


def machine():
    with open("/proc/cpuinfo", encoding="utf-8") as info:
        model = next((l.split(":")[1].strip() for l in info if l.startswith("model name")), "")
    return {"cpu": model or platform.machine(), "cpus": os.cpu_count(),
            "kernel": platform.release(), "architecture": platform.machine()}


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("cases", nargs="*", metavar="CASE", help=f"some of {', '.join(CASES)}")
    parser.add_argument("-n", "--rounds", type=int, default=3)
    parser.add_argument("-p", "--programs", default=DEFAULT_PROGRAMS, help="where the programs lie")
    parser.add_argument("--json", metavar="FILE", help="write all figures to FILE")
    parser.add_argument("--svg", metavar="FOLDER", help="draw a bar chart of each case into FOLDER")
    parser.add_argument("--peers", metavar="FILE",
                        help="add other systems' figures: lines of round, section, case, peer, "
                             "metric, value and unit, separated by tabs, measured on this machine")
    parser.add_argument("--lines", action="store_true",
                        help="one round of the road alone, as lines: section, case, peer, metric, "
                             "value and unit, separated by tabs")
    options = parser.parse_args()
    cases = options.cases or list(CASES)
    unknown = [case for case in cases if case not in CASES]
    if unknown:
        parser.error(f"there is no case {unknown[0]}")
    if options.lines:
        print_lines(options.programs, cases)
        return
    date = datetime.date.today().isoformat()
    figures = measure(options.programs, cases, options.rounds)
    if options.peers:
        add_peers(figures, options.peers)
    rows = summarise(figures)
    print(table(rows))
    about = machine()
    print(f"\n{date}; {about['cpu']}, {about['cpus']} CPUs, {about['architecture']}, "
          f"Linux {about['kernel']}; {options.rounds} rounds")
    if options.svg:
        charts.draw_all(options.svg, TITLES, rows)
    if options.json:
        with open(options.json, "w", encoding="utf-8") as out:
            json.dump({"date": date, "machine": about, "rounds": options.rounds, "figures": rows},
                      out, indent=1)


if __name__ == "__main__":
    try:
        main()
    except ProgramFailed as failure:
        sys.exit(f"run.py: {failure}")
