"""Measures all rows; scripts/bench builds what is measured and calls this."""

import argparse
import shutil
import time
from contextlib import ExitStack
from dataclasses import dataclass
from pathlib import Path

from benchmarks import report, rows, runners
from drive.processes import exit_on_signals

PROJECT = Path(__file__).resolve().parent.parent


@dataclass
class Context:
    """What every row needs to know: `subjects` are the launcher and its floor."""

    quick: bool
    programs: Path
    landmarks: Path
    subjects: tuple


def measure(context):
    """Returns all rows, and the comparison with the process runners."""
    began = time.monotonic()
    found = []

    def take(what, measured):
        print(f"[{time.monotonic() - began:.0f} s] {what}", flush=True)
        found.extend(measured)

    with ExitStack() as stack:
        aside = rows.Aside(context, stack)
        take("start", rows.start(context))
        take("memory, deploy, stop, first line", rows.press(context))
        take("sink", rows.sink(context))
        take("process runners", ())
        compared = runners.compare(context, found)
        take("idle", aside.idle())
        take("throughput", aside.throughput())
    take("done", ())
    return found, compared


def main():
    """Measures, writes the results down and prints them.

    Raises what the rows raise, and leaves nothing running.
    """
    arguments = argparse.ArgumentParser(description=__doc__)
    arguments.add_argument("--quick", action="store_true")
    arguments.add_argument("--build", type=Path, required=True)
    arguments.add_argument("--results", type=Path, required=True)
    arguments.add_argument("--load", type=float, required=True, help="before anything was built")
    given = arguments.parse_args()
    exit_on_signals()
    how = f"load {given.load:.2f} before the run"
    if given.load > 0.5:
        how += ": the machine was busy, and the times say little"
    if given.quick:
        how += " (--quick)"
    print(how, flush=True)
    programs = given.build / "benchmarks"
    found, compared = measure(Context(
        given.quick, programs, given.build / "landmarks",
        (given.build / "orvane.app/Contents/MacOS/orvane", programs / "Floor")))
    document = PROJECT / "docs/performance.md"
    if given.quick:  # too coarse to be published
        document = Path(shutil.copy(document, given.results))
    print(report.write(found, compared, how, given.results, document))
    print(f"\nWritten: {document}, {document.with_suffix('.svg')}, {given.results}/results.json")


if __name__ == "__main__":
    main()
