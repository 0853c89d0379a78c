#!/usr/bin/env python3
"""Runs the benchmark programs of a build side by side and writes results, table and chart.

A round takes row after row, and in each row contestant after contestant, every one in a process
of its own: what disturbs the machine for a while disturbs all of them. A figure is the median
over the rounds, a ratio the median of the rounds' ratios.
"""

import argparse
import json
import os
import platform
import re
import shutil
import subprocess
import sys
import tempfile
from collections import defaultdict
from pathlib import Path

import report

ROOT = Path(__file__).resolve().parent.parent
# The shares of a name that tell how the time is taken, not what is measured.
TIMING = re.compile(r"^(real_time|manual_time|process_time|iterations:\d+|repeats:\d+)$")


def output_of(*command, **options):
    return subprocess.run(command, check=True, capture_output=True, text=True, **options).stdout


def find_benchmarks(build):
    """Rows in a fixed order; for each the programs that have it: (contestant, program, name)."""
    rows = defaultdict(list)
    for program in sorted((build / "bin").glob("bench_*")):
        if program.name == "bench_guard":
            continue
        for name in output_of(program, "--benchmark_list_tests").split():
            contestant, full_row = name.split(":", 1)
            row = "/".join(part for part in full_row.split("/") if not TIMING.match(part))
            rows[row].append((contestant, program, name))
    # What is compared with each other is measured one after the other.
    return {row: rows[row] for row in sorted(rows, key=report.natural)}


def run_once(program, name, min_time):
    """One figure: nanoseconds for one operation, and the counters."""
    try:
        text = output_of(
            program,
            f"--benchmark_filter=^{re.escape(name)}$",
            f"--benchmark_min_time={min_time}",
            "--benchmark_format=json",
        )
    except subprocess.CalledProcessError as failure:
        sys.exit(f"run.py: {name} ended with {failure.returncode}:\n{failure.stderr[-2000:]}")
    (entry,) = json.loads(text)["benchmarks"]
    if entry.get("error_occurred"):
        sys.exit(f"run.py: {name}: {entry['error_message']}")
    scale = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}[entry["time_unit"]]
    known = {"iterations", "real_time", "cpu_time", "threads", "repetitions", "repetition_index",
             "family_index", "per_family_instance_index"}
    counters = {key: value for key, value in entry.items()
                if isinstance(value, (int, float)) and key not in known}
    return {"ns": entry["real_time"] * scale, **counters}


def measure(rows, rounds, min_time):
    """{row: {contestant: {figure: [one for each round]}}}"""
    samples = {row: defaultdict(lambda: defaultdict(list)) for row in rows}
    for number in range(1, rounds + 1):
        for row, programs in rows.items():
            print(f"round {number}/{rounds} {row}", file=sys.stderr, flush=True)
            for contestant, program, name in programs:
                for figure, value in run_once(program, name, min_time).items():
                    samples[row][contestant][figure].append(value)
    return samples


def stripped_size(library):
    with tempfile.TemporaryDirectory() as folder:
        copy = Path(folder) / "stripped"
        shutil.copyfile(library, copy)
        subprocess.run(["strip", copy], check=True)
        return copy.stat().st_size


def cpu_model():
    for line in Path("/proc/cpuinfo").read_text().splitlines():
        if line.startswith("model name"):
            return line.split(":", 1)[1].strip()
    return platform.machine()


def compiler(build):
    cache = (build / "CMakeCache.txt").read_text()
    path = re.search(r"^CMAKE_CXX_COMPILER:\w+=(.*)$", cache, re.M).group(1)
    kind = re.search(r"^CMAKE_BUILD_TYPE:\w+=(.*)$", cache, re.M).group(1)
    return output_of(path, "--version").splitlines()[0] + ", " + kind


def packages():
    """The versions of what is measured beside the library."""
    names = ("libpoco-dev", "libclass-loader-dev", "libglib2.0-dev", "libboost-dev",
             "qt6-base-dev", "libgstreamer1.0-dev", "libpeas-dev", "libtinyxml-dev")
    found = {}
    for name in names:
        query = subprocess.run(["dpkg-query", "-W", "-f=${Version}", name],
                               capture_output=True, text=True, check=False)
        if query.returncode == 0:
            found[name] = query.stdout
    return found


def commit():
    changed = output_of("git", "status", "--porcelain", "--untracked-files=no", cwd=ROOT)
    changed = [line for line in changed.splitlines() if not line[3:].startswith("docs/performance/")]
    head = output_of("git", "rev-parse", "--short=12", "HEAD", cwd=ROOT).strip()
    return head + (" with changes" if changed else "")


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build", type=Path, default=ROOT / "build-bench")
    parser.add_argument("--output", type=Path, default=ROOT / "docs/performance")
    parser.add_argument("--rounds", type=int, default=7)
    parser.add_argument("--min-time", type=float, default=0.05, metavar="SECONDS")
    parser.add_argument("--quick", action="store_true", help="one short round")
    parser.add_argument("--rows", default="", metavar="PATTERN", help="only rows that match")
    arguments = parser.parse_args()
    if arguments.quick:
        arguments.rounds, arguments.min_time = 1, 0.02

    load = os.getloadavg()[0]
    rows = find_benchmarks(arguments.build)
    rows = {row: programs for row, programs in rows.items() if re.search(arguments.rows, row)}
    if not rows:
        sys.exit("run.py: no benchmark matches")
    results = {
        "machine": {
            "cpu": cpu_model(),
            "cores": os.cpu_count(),
            "kernel": platform.release(),
            "load at start": round(load, 2),
        },
        "compiler": compiler(arguments.build),
        "commit": commit(),
        "packages": packages(),
        "rounds": arguments.rounds,
        "library bytes": stripped_size((arguments.build / "lib/libvessa.so").resolve()),
        "rows": measure(rows, arguments.rounds, arguments.min_time),
    }
    arguments.output.mkdir(parents=True, exist_ok=True)
    text = json.dumps(results, indent=1) + "\n"
    (arguments.output / "results.json").write_text(text)
    # Read back, as plain tables without defaults.
    report.write(json.loads(text), arguments.output)


if __name__ == "__main__":
    main()
