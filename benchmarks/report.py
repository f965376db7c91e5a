"""Writes the results down: the samples as JSON, and the part of the document that a run owns."""

import json
import os
import platform
import re
import statistics
import subprocess
import time
from dataclasses import asdict
from pathlib import Path

from benchmarks.rows import ROWS
from benchmarks.runners import COLUMNS, UNITS

PLOT = """
set terminal svg size 640,340 font "sans-serif,12" background "white"
set output "{file}"
set logscale xy
set xlabel "rows in the list"
set ylabel "ms"
set key right center
set grid
set xrange [80:25000]
set yrange [0.01:1000]
plot $sink using 1:2:3:4 with yerrorlines title "one message into the list", \\
     $drawn using 1:2:3:4 with yerrorlines title "the same, and drawn in a visible list", \\
     200 title "time until the next message of a flooding service" dashtype 2
"""


def figure(value):
    """Returns it with three digits that mean something."""
    if abs(value) >= 100:
        return f"{value:,.0f}"
    return f"{value:.1f}" if abs(value) >= 10 else f"{value:.2f}"


def quartiles(samples):
    """Returns the lower and the upper one."""
    return statistics.quantiles(samples, n=4)[::2] if len(samples) > 1 else samples * 2


def cell(samples, unit):
    """Returns the median, with the quartiles if there are any."""
    shown = f"{figure(statistics.median(samples))} {unit}"
    return shown + (" ({} – {})".format(*map(figure, quartiles(samples)))
                    if len(samples) > 1 else "")


def table(rows):
    """Returns the lines of the table of all rows."""
    lines = ["| row | the launcher | the floor | | aim | held |", "|---|---|---|---|---|---|"]
    for row in rows:
        value, aim = (f"{row.value:.2f}", f"at most {row.limit:.2f}") if row.by == "ratio" else (
            f"{row.value:+z.2f} {row.unit}", f"within {row.limit:g} {row.unit}")
        lines.append(f"| {row.name} | {cell(row.launcher, row.unit)} | {cell(row.floor, row.unit)} "
                     f"| {value} | {aim} | {'yes' if row.held else '**no**'} |")
    return lines


def runner_table(compared):
    """Returns the lines of the table of the process runners."""
    lines = [f"| | {' | '.join(COLUMNS)} |", "|---" * (len(COLUMNS) + 1) + "|"]
    for name, figures in compared.items():
        cells = (f"{figure(value)} {unit}" for value, unit in zip(figures, UNITS))
        lines.append(f"| {name} | {' | '.join(cells)} |")
    return lines


def said_by(*command):
    """Returns the first line that a command writes."""
    return subprocess.run(command, stdout=subprocess.PIPE, text=True,
                          check=True).stdout.splitlines()[0]


def machine(how):
    """Returns the lines about when, how and on what was measured."""
    processor = re.search(r"model name\s*: (.*)", Path("/proc/cpuinfo").read_text("utf-8"))
    memory = os.sysconf("SC_PAGE_SIZE") * os.sysconf("SC_PHYS_PAGES") / 1024 ** 3
    release = platform.freedesktop_os_release()["PRETTY_NAME"]
    return [f"- {time.strftime('%Y-%m-%d')}, {how}",
            f"- {os.cpu_count()} cores, {processor[1] if processor else platform.machine()}, "
            f"{memory:.0f} GiB",
            f"- {release}, Linux {platform.release().split('-')[0]}, Qt "
            f"{said_by('qmake', '-qt=5', '-query', 'QT_VERSION')}, {said_by('c++', '--version')}",
            "- Xvfb, 1024 by 768, 24 bits, no window manager"]


def plot(rows, file):
    """Draws what one message costs, by the number of rows. Raises subprocess.CalledProcessError."""
    found = {row.name: row for row in rows}
    blocks = []
    for name, prefix, unit in (("sink", "sink", 1e-3), ("drawn", "sink and drawing", 1)):
        blocks.append(f"${name} << EOD")
        for count in ROWS:
            samples = found[f"{prefix}, {count:,} rows"].launcher
            values = (statistics.median(samples), *quartiles(samples))
            blocks.append(" ".join(f"{value:g}" for value in (count, *(v * unit for v in values))))
        blocks.append("EOD")
    subprocess.run(["gnuplot"], input="\n".join(blocks) + PLOT.format(file=file), text=True,
                   check=True)


def write(rows, compared, how, results, document):
    """Writes the samples below `results`, the tables into the document between its two markers, and
    the plot beside it. Returns the tables; raises ValueError when a marker is missing."""
    where = machine(how)
    (results / "results.json").write_text(json.dumps(
        {"machine": where, "rows": [{**asdict(row), "value": row.value} for row in rows],
         "runners": compared}, indent=1, ensure_ascii=False), "utf-8")
    parts = where, table(rows), runner_table(compared)
    measured = "\n\n".join("\n".join(part) for part in parts)
    text, found = re.subn("(?s)(?<=<!-- begin -->\n).*(?=<!-- end -->)",
                          lambda _: f"{measured}\n", document.read_text("utf-8"))
    if found != 1:
        raise ValueError(f"{document} needs the markers <!-- begin --> and <!-- end -->, once each")
    document.write_text(text, "utf-8")
    plot(rows, document.with_suffix(".svg"))
    return measured
