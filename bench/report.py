#!/usr/bin/env python3
"""Makes table.md and chart.svg from results.json: report.py [folder]."""

import json
import re
import sys
from pathlib import Path

import goals
from goals import MANY_KEYS, MANY_LIVE, ONE_KEY

CONTESTANTS = {
    "ours": "vessa",
    "floor": "floor",
    "poco_tracked": "POCO ClassLoader, tracked",
    "poco_untracked": "POCO ClassLoader, untracked",
    "boost_dll": "Boost.DLL",
    "class_loader": "class_loader",
    "gobject": "GObject",
    "qt": "Qt plug-in factory",
    "gstreamer": "GStreamer",
    "libpeas": "libpeas",
    "self_made": "one map, one mutex",
}
OURS_COLOUR, FLOOR_COLOUR, PEER_COLOUR, MISSED_COLOUR = "#1b6ca8", "#9a9a9a", "#d9a441", "#b5443c"


def duration(ns):
    for unit, size in (("s", 1e9), ("ms", 1e6), ("µs", 1e3)):
        if ns >= size:
            return f"{ns / size:.3g} {unit}"
    return f"{ns:.3g} ns"


def table(header, lines):
    rows = ["| " + " | ".join(header) + " |", "|" + "---|" * len(header)]
    return "\n".join(rows + ["| " + " | ".join(line) + " |" for line in lines]) + "\n"


def goals_table(results):
    lines = []
    for name, figure, goal, reached, _ in goals.judged(results):
        verdict = "not measured" if reached is None else "reached" if reached else "**not reached**"
        lines.append([name, figure or "", goal, verdict])
    return table(["row", "measured", "goal", ""], lines)


def natural(text):
    return [int(part) if part.isdigit() else part for part in re.split(r"(\d+)", text)]


def readable(row):
    row = re.sub(r"/threads:1$", "", row)
    parts = [part.replace("_", " ") for part in row.split("/")]
    named = [re.sub(r"^(\w+):(\d+)$", lambda m: f"{int(m[2]):,} {m[1]}", part) for part in parts]
    return ", ".join(part for part in named if part != "0 live").replace("1 keys", "1 key")


def contestants_table(results, rows):
    """A line for each contestant, a column for each row: ratio to vessa and time."""
    r = goals.Results(results)
    lines = []
    for contestant, name in CONTESTANTS.items():
        cells = []
        for row in rows:
            try:
                time = duration(r.value(contestant, row))
                ratio = r.ratio((contestant, row), ("ours", row))
                cells.append(f"{ratio:.3g} ({time})")
            except goals.Missing:
                cells.append("")
        if any(cells):
            lines.append([name] + cells)
    return table(["times vessa (absolute)"] + [readable(row) for row in rows], lines)


def threads_table(results):
    """Wall time for an operation of all threads together over that of one."""
    r = goals.Results(results)
    lines = []
    for contestant, name in CONTESTANTS.items():
        cells = []
        for row in (ONE_KEY, MANY_KEYS, MANY_LIVE):
            for threads in (2, 4):
                try:
                    ratio = r.ratio((contestant, row.format(threads)), (contestant, row.format(1)))
                    cells.append(f"{ratio:.2f} ({duration(r.value(contestant, row.format(threads)))})")
                except goals.Missing:
                    cells.append("")
        if any(cells):
            lines.append([name] + cells)
    header = [f"{name}, {threads} threads" for name in ("1 key", "10,000 keys", "100,000 live")
              for threads in (2, 4)]
    return table(["over 1 thread (absolute)"] + header, lines)


def others_table(results):
    """Every other row: whoever is in it, with its counters."""
    r = goals.Results(results)
    lines = []
    for row in sorted(results["rows"], key=natural):
        if row.startswith("create/") or row == "load":
            continue
        for contestant in CONTESTANTS:
            figures = results["rows"][row].get(contestant)
            if figures is None:
                continue
            ratio = ""
            if contestant != "floor" and "floor" in results["rows"][row]:
                ratio = f"{r.ratio((contestant, row), ('floor', row)):.2f}"
            counters = ", ".join(f"{figure.replace('_', ' ')} {r.value(contestant, row, figure):,.0f}"
                                 for figure in figures if figure != "ns")
            # Of memory the time says nothing.
            time = "" if row.startswith("memory") else duration(r.value(contestant, row))
            lines.append([readable(row), CONTESTANTS[contestant], ratio, time, counters])
    return table(["row", "contestant", "times floor", "absolute", "besides"], lines)


def load_table(results):
    r = goals.Results(results)
    lines = []
    for contestant, name in CONTESTANTS.items():
        try:
            over = r.value(contestant, "load", "over_bare_ns")
            bare = r.value(contestant, "load", "bare_ns")
        except goals.Missing:
            continue
        lines.append([name, f"{1 + over / bare:.2f}", f"{over / 1000:+.2f} µs", duration(bare)])
    return table(["first load of a module", "times bare dlopen", "over it", "bare"], lines)


def preface(results):
    machine = results["machine"]
    return (f"{machine['cpu']}, {machine['cores']} cores, Linux {machine['kernel']}, "
            f"load {machine['load at start']} at the start. {results['compiler']}. "
            f"Commit {results['commit']}. Medians of {results['rounds']} rounds.")


def versions(results):
    return "Debian's " + ", ".join(f"{name} {version}"
                                   for name, version in results["packages"].items()) + ".\n"


def table_text(results):
    rows = [row for row in results["rows"] if row.startswith("create/") and row.endswith("threads:1")]
    by_keys = sorted((row for row in rows if "/live:0/" in row), key=natural)
    by_live = sorted((row for row in rows if "/live:0/" not in row), key=natural)
    sections = [
        ("Goals", goals_table(results)),
        ("Create and destroy, by number of keys", contestants_table(results, by_keys)),
        ("Create and destroy, by number of live instances", contestants_table(results, by_live)),
        ("Create and destroy, by number of threads", threads_table(results)),
        ("First load of a module", load_table(results)),
        ("Everything else", others_table(results)),
    ]
    text = "# Benchmarks\n\nWritten by `bench/run.py`. " + preface(results) + "\n\n"
    text += versions(results)
    return text + "".join(f"\n## {title}\n\n{body}" for title, body in sections)


def draw_times(axes, results, row, title):
    r = goals.Results(results)
    bars = []
    for contestant, name in CONTESTANTS.items():
        try:
            bars.append((r.value(contestant, row), name, contestant))
        except goals.Missing:
            continue
    bars.sort(reverse=True)
    colour = {"ours": OURS_COLOUR, "floor": FLOOR_COLOUR}
    drawn = axes.barh([name for _, name, _ in bars], [ns for ns, _, _ in bars],
                      color=[colour.get(contestant, PEER_COLOUR) for _, _, contestant in bars])
    axes.bar_label(drawn, [duration(ns) for ns, _, _ in bars], padding=3, fontsize=8)
    if bars:
        axes.set_xscale("log")
        axes.set_xlim(min(ns for ns, _, _ in bars) / 2, max(ns for ns, _, _ in bars) * 8)
    axes.set_title(title, fontsize=10, loc="left")


def draw_goals(axes, results):
    judged = [(name, part) for name, _, _, _, part in goals.judged(results)
              if part is not None and part != float("inf")][::-1]
    drawn = axes.barh([name for name, _ in judged], [part for _, part in judged],
                      color=[OURS_COLOUR if part <= 1 else MISSED_COLOUR for _, part in judged])
    axes.bar_label(drawn, [f"{part:.2f}" for _, part in judged], padding=3, fontsize=8)
    axes.axvline(1, color="black", linewidth=1)
    axes.set_xscale("log")
    axes.set_title("vessa: each figure as a part of what its goal allows (left of the line: reached)",
                   fontsize=10, loc="left")


def draw(results, file):
    import matplotlib

    matplotlib.use("svg")
    # The same results give the same file.
    matplotlib.rcParams["svg.hashsalt"] = "vessa"
    matplotlib.rcParams["font.size"] = 8
    from matplotlib import pyplot

    figure, panels = pyplot.subplots(4, 1, figsize=(10, 19), layout="constrained",
                                     height_ratios=[1, 1, 1, 2.2])
    draw_times(panels[0], results, ONE_KEY.format(1), "create and destroy, 1 key")
    draw_times(panels[1], results, MANY_KEYS.format(1), "create and destroy, 10,000 keys")
    draw_times(panels[2], results, MANY_LIVE.format(1), "create and destroy, 100,000 live")
    draw_goals(panels[3], results)
    for axes in panels:
        axes.spines[["top", "right"]].set_visible(False)
    figure.suptitle(preface(results), fontsize=7, wrap=True)
    figure.savefig(file, metadata={"Date": None})


def write(results, folder):
    (folder / "table.md").write_text(table_text(results))
    draw(results, folder / "chart.svg")


if __name__ == "__main__":
    folder = Path(sys.argv[1]) if len(sys.argv) > 1 else Path(__file__).parent.parent / "docs/performance"
    write(json.loads((folder / "results.json").read_text()), folder)
