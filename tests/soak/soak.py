"""Runs the launcher or its services over and over; chance decides when. Exits with 0 if no kind
found anything wrong.

A kind is a function in a module of its own here and a line of KINDS. It takes a Job, prints what it
measures, and returns what went wrong, a line each.
"""

import argparse
import os
import random
import resource
import sys
import tempfile
from pathlib import Path
from typing import Callable, NamedTuple

import aimed
import assistive
import day
import deploys
import nginx_starts
from job import Job

from drive.processes import exit_on_signals


class Kind(NamedTuple):
    """A kind of the soak."""

    about: str
    soak: Callable[[Job], "list[str]"]


KINDS = {
    "chatty": Kind("deploys of services that flood their output", deploys.chatty),
    "real": Kind("deploys of the services of the bundle", deploys.real),
    "nginx": Kind("the bundle's nginx alone, stopped or killed while it starts", nginx_starts.soak),
    "aimed": Kind("stops in the very moment in which a row arrives", aimed.soak),
    "assistive": Kind("a client of the accessibility bus that walks both lists", assistive.soak),
    "day": Kind("an open page; a cycle is one of its calls, 86,400 are a day", day.soak),
}
PROJECT = Path(__file__).resolve().parents[2]
MANY_DESCRIPTORS = 65536  # every deploy leaves two open for the launcher's life


def parse_arguments():
    """Returns the arguments; exits with 2 if they make no sense."""
    kinds = "; ".join(f"{name}: {kind.about}" for name, kind in KINDS.items())
    parser = argparse.ArgumentParser(prog="scripts/soak", description=__doc__.partition("\n\n")[0],
                                     epilog=kinds)
    parser.add_argument("cycles", type=int)
    parser.add_argument("kinds", nargs="*", metavar="kind", help=f"{', '.join(KINDS)}; or all")
    parser.add_argument("--seed", type=int, default=random.randrange(2 ** 31))
    parser.add_argument("--build", type=Path, default=PROJECT / "build/release")
    arguments = parser.parse_args()
    if set(arguments.kinds) - set(KINDS) or arguments.cycles < 1:
        parser.error(f"the kinds are {', '.join(KINDS)}, and the cycles 1 or more")
    return arguments


def soak(name, arguments):
    """Returns what went wrong in this kind."""
    random.seed(arguments.seed)
    with tempfile.TemporaryDirectory(prefix="orvane-soak-") as directory:
        os.chmod(directory, 0o755)  # some services run as another user
        return KINDS[name].soak(Job(arguments.cycles, arguments.build.resolve(), Path(directory),
                                    arguments.seed))


def main():
    """Exits as the docstring above says."""
    arguments = parse_arguments()
    hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (min(hard, MANY_DESCRIPTORS), hard))
    exit_on_signals()
    print(f"soak: --seed {arguments.seed}", flush=True)
    failed = []
    for name in arguments.kinds or KINDS:
        if wrong := soak(name, arguments):
            failed.append(name)
            for line in wrong:
                print(f"{name}: {line}", flush=True)
    sys.exit(f"soak: failed: {', '.join(failed)}" if failed else 0)


if __name__ == "__main__":
    main()
