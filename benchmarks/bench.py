"""Measures the launcher against its floors; scripts/bench builds everything and calls this.

Rows that cost the machine next to nothing and take their time run beside the others: the flood and
the two resting launchers."""

import argparse
import shutil
import sys
from contextlib import ExitStack
from dataclasses import dataclass
from pathlib import Path

PROJECT = Path(__file__).resolve().parent.parent
sys.path[:0] = [str(PROJECT), str(PROJECT / "drive")]

import inside  # noqa: E402
import pressing  # noqa: E402
import report  # noqa: E402
import resting  # noqa: E402
import runners  # noqa: E402
import size  # noqa: E402
import starting  # noqa: E402
from figures import Progress  # noqa: E402
from processes import exit_on_signals  # noqa: E402


@dataclass
class Context:
    """What every row needs to know."""

    quick: bool
    build: Path
    npm: Path
    version: str
    progress: Progress

    @property
    def programs(self):
        return self.build / "benchmarks"

    @property
    def launcher(self):
        return self.build / "orvane.app/Contents/MacOS/orvane"

    @property
    def landmarks(self):
        return self.build / "landmarks"


def measure(context):
    """All rows, and the comparison with the process runners."""
    with ExitStack() as stack:
        def beside(running):
            stack.callback(running.end)
            return running

        flood = beside(inside.Flood(context))
        quiet = beside(resting.Resting(context, ended=False))
        ended = beside(resting.Resting(context, ended=True))
        rows = [*starting.rows(context), *pressing.rows(context), *inside.line_rows(context)]
        compared = runners.compare(
            context, next(row for row in rows if row.name == "start").launcher.median)
        rows += inside.sink_rows(context)
        context.progress.say("idle")
        rows += resting.rows(quiet, ended)
        rows += size.rows(context)
        context.progress.say("throughput")
        rows += flood.rows()
        context.progress.end()
    return rows, compared


def main():
    arguments = argparse.ArgumentParser(description=__doc__)
    arguments.add_argument("--quick", action="store_true")
    arguments.add_argument("--build", type=Path, required=True)
    arguments.add_argument("--results", type=Path, required=True)
    arguments.add_argument("--npm", type=Path, required=True)
    arguments.add_argument("--version", required=True)
    arguments.add_argument("--load", type=float, required=True, help="before anything was built")
    given = arguments.parse_args()
    exit_on_signals()
    if given.load > 0.5:
        print(f"The machine is busy (load {given.load:.1f}): the figures will show it.")
    progress = Progress(150 if given.quick else 480)
    rows, compared = measure(
        Context(given.quick, given.build, given.npm, given.version, progress))
    document = PROJECT / "docs/performance.md"
    if given.quick:  # too coarse to be published
        document = Path(shutil.copy(document, given.results))
    report.write(rows, compared, given.load, given.results, document)
    print("\n".join(report.table(rows) + [""] + report.runner_table(compared)))
    print(f"\nWritten: {document}, {given.results}/results.md, {given.results}/results.json")


if __name__ == "__main__":
    main()
