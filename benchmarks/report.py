"""Writes the results down: Markdown, JSON, plots, and the parts of the document that a run owns."""

import json
import os
import platform
import re
import subprocess
import time
from pathlib import Path

import plots
from inside import BYTES_A_ROW, ROWS


def figure(value):
    """Three digits that mean something."""
    if value == 0:
        return "0"
    if abs(value) >= 100:
        return f"{value:,.0f}"
    return f"{value:.1f}" if abs(value) >= 10 else f"{value:.2f}" if abs(value) >= 1 else (
        f"{value:.3f}")


def samples(series, unit):
    if series is None:
        return ""
    shown = f"{figure(series.median)} {unit}"
    if len(series.samples) > 1:
        shown += " ({} – {})".format(*map(figure, series.spread))
    return shown


def compared(row):
    if row.value is None:
        return ""
    return f"{row.value:.2f}" if row.by == "ratio" else f"{row.value:+.2f} {row.unit}"


def table(rows):
    """Median of each, with the quartiles."""
    lines = ["| row | the launcher | the floor | ratio | aim | held |", "|---|---|---|---|---|---|"]
    for row in rows:
        held = {True: "yes", False: "**no**", None: ""}[row.held]
        lines.append(f"| {row.name} | {samples(row.launcher, row.unit)} | "
                     f"{samples(row.floor, row.unit)} | {compared(row)} | {row.aim} | {held} |")
    return lines


def meanings(rows):
    """What the rows measure, once for those that measure the same, and what the run noted."""
    lines = []
    for what in dict.fromkeys(row.what for row in rows):
        alike = [row for row in rows if row.what == what]
        name = alike[0].name if len(alike) == 1 else alike[0].name.split(",")[0]
        lines.append(f"- {name}: {what}.")
        lines += [f"    - {row.name}: {row.note}." for row in alike if row.note]
    return lines


def runner_table(runners):
    lines = ["| | until both children run | a line until it is shown | resident memory | stopped | "
             "left running | workers left running |", "|---|---|---|---|---|---|---|"]
    for row in runners:
        lines.append(
            f"| {row['name']} {row['version']} | {figure(row['both_run_ms'])} ms | "
            f"{figure(row['line_shown_ms'])} ms | {figure(row['resident_mib'])} MiB | "
            f"{figure(row['stopped_ms'])} ms | {row['left'] or 'nothing'} | "
            f"{row['left_workers'] or 'none'} |")
    return lines


def first_line(*command):
    return subprocess.run(command, stdout=subprocess.PIPE, text=True,
                          check=True).stdout.splitlines()[0]


def machine(busy):
    """What the figures were measured on. `busy` is the load average before the run."""
    processor = re.search(r"model name\s*:\s*(.*)", Path("/proc/cpuinfo").read_text("utf-8"))
    memory = int(re.search(r"MemTotal:\s*(\d+)", Path("/proc/meminfo").read_text("ascii"))[1])
    release = platform.freedesktop_os_release()["PRETTY_NAME"]
    return {"processor": processor[1] if processor else platform.machine(),
            "cores": os.cpu_count(), "memory": f"{memory / 1024 ** 2:.0f} GiB",
            "system": f"{release}, Linux {platform.release()}",
            "compiler": first_line("c++", "--version"),
            "Qt": first_line("qmake", "-qt=5", "-query", "QT_VERSION"),
            "display": "Xvfb, 1024 by 768, 24 bits, no window manager",
            "load before the run": f"{busy:.2f}", "measured": time.strftime("%Y-%m-%d")}


def by_rows(rows, prefix, suffix, pick):
    """The points of the rows named prefix, N rows."""
    found = {row.name: row for row in rows}
    return [(count, pick(found[f"{prefix}, {count:,} rows{suffix}"])) for count in ROWS]


def draw(rows, directory):
    """Writes the plots."""
    def sink(place, side):
        return by_rows(rows, f"sink, {place}", "", lambda row: getattr(row, side).median)

    directory.mkdir(parents=True, exist_ok=True)
    (directory / "sink.svg").write_text(plots.curves(
        "One message into the list", "rows in the list", "microseconds on the reader's thread", {
            "launcher, list hidden": (sink("hidden", "launcher"), ""),
            "bare, list hidden": (sink("hidden", "floor"), "2 4"),
            "launcher, list visible": (sink("visible", "launcher"), ""),
            "bare, list visible": (sink("visible", "floor"), "2 4")}), "utf-8")
    (directory / "drawing.svg").write_text(plots.curves(
        "What the window does after one message", "rows in the visible list",
        "milliseconds on the GUI thread", {
            "launcher": (by_rows(rows, "drawing", "", lambda row: row.launcher.median), ""),
            "bare": (by_rows(rows, "drawing", "", lambda row: row.floor.median), "2 4"),
            "time between two messages of a service": ([(count, 200) for count in ROWS], "8 4")}),
        "utf-8")
    (directory / "memory.svg").write_text(plots.curves(
        "What one message leaves in memory", "rows in the list", "KiB of resident memory", {
            "launcher, and the same for the bare operations": (
                by_rows(rows, "memory a row", "", lambda row: row.launcher.median), ""),
            "8 bytes a row": ([(count, count * BYTES_A_ROW / 1024) for count in ROWS], "8 4")}),
        "utf-8")
    (directory / "ratios.svg").write_text(plots.ratios(
        "The launcher against its floors",
        [row for row in rows if row.value is not None and row.by == "ratio" and row.limit]),
        "utf-8")


def replace_parts(document, parts):
    """Puts each part between its two markers; the text around them is the author's."""
    for name, lines in parts.items():
        begin, end = f"<!-- begin {name} -->", f"<!-- end {name} -->"
        if document.count(begin) != 1 or document.count(end) != 1:
            raise ValueError(f"the document needs the markers {begin} and {end}, once each")
        before, rest = document.split(begin)
        after = rest.split(end)[1]
        document = before + begin + "\n" + "\n".join(lines) + "\n" + end + after
    return document


def write(rows, runners, busy, results, document):
    """Everything that a run leaves: below `results`, and in the document with its plots."""
    where = machine(busy)
    parts = {"machine": [f"- {name}: {value}" for name, value in where.items()],
             "table": table(rows), "meanings": meanings(rows), "runners": runner_table(runners)}
    results.mkdir(parents=True, exist_ok=True)
    (results / "results.json").write_text(json.dumps(
        {"machine": where, "rows": [row.as_json() for row in rows], "runners": runners},
        indent=2, ensure_ascii=False) + "\n", "utf-8")
    (results / "results.md").write_text(
        "\n\n".join("\n".join(lines) for lines in parts.values()) + "\n", "utf-8")
    draw(rows, document.parent / "performance")
    document.write_text(replace_parts(document.read_text("utf-8"), parts), "utf-8")
