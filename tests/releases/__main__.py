"""Runs the tests on each system that is named and prints one table; see scripts/releases."""

import subprocess
import sys
import time
from pathlib import Path

from releases.systems import SYSTEMS
from releases.table import Outcome, lines

HERE = Path(__file__).resolve().parent
WORK = HERE.parents[1] / "build/releases"
# Mounts and processes that nobody else sees and that end with this process, however it ends.
APART = ["setpriv", "--pdeathsig", "KILL",
         "unshare", "--mount", "--pid", "--fork", "--kill-child", "--mount-proc"]


def run(system, options):
    """Makes the system and runs the tests in it, with these options of CTest."""
    directory = WORK / system.name
    results = directory / "results"
    results.mkdir(parents=True, exist_ok=True)
    for old in results.iterdir():
        old.unlink()
    began = time.monotonic()
    with open(directory / "log", "wb") as log:
        status = subprocess.run(
            [*APART, HERE / "inside", directory, system.release,
             "emulated" if system.emulated else " ".join(system.desktop), *options],
            stdin=subprocess.DEVNULL, stdout=log, stderr=log, check=False).returncode
    return Outcome.read(system.name, directory, status, time.monotonic() - began)


def main(words):
    """Returns the exit status: 0 if the tests passed on every system."""
    names, options = words, []
    if "--" in words:
        dashes = words.index("--")
        names, options = words[:dashes], words[dashes + 1:]
    unknown = [name for name in names if name not in SYSTEMS]
    if unknown:
        print(f"scripts/releases: no such system: {' '.join(unknown)}. "
              f"There are: {' '.join(SYSTEMS)}.", file=sys.stderr)
        return 2
    outcomes = []
    for name in names or SYSTEMS:
        print(f"== {name}: see build/releases/{name}/log", flush=True)
        outcomes.append(run(SYSTEMS[name], options))
    print("\n".join(lines(outcomes)))
    return 0 if all(outcome.passed for outcome in outcomes) else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
