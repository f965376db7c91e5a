"""The rows of the table: what the launcher takes, and what its floor takes in the same run."""

import json
import os
import signal
import statistics
import subprocess
import tempfile
from collections import defaultdict
from contextlib import ExitStack
from dataclasses import dataclass
from time import monotonic_ns as now

from Xlib import X

from benchmarks.subject import Screen, in_window, milliseconds

ROWS = (100, 1_000, 10_000, 20_000)
PAGE_AT_PACE = 1600  # milliseconds for 4096 bytes: 512 bytes every 200 ms
READERS_AT_PACE = 10  # wake-ups a second: two readers, one turn every 200 ms each
PIPE = 16  # pages that the kernel keeps for a reader
MIB = 1024 * 1024
SILENT = [(os.POSIX_SPAWN_OPEN, fd, os.devnull, os.O_RDWR, 0) for fd in (0, 1, 2)]


@dataclass
class Row:
    """Samples of the launcher and of its floor, in turns. The aim is a limit for the ratio of the
    medians, or for their difference."""

    name: str
    unit: str
    launcher: list
    floor: list
    limit: float
    by: str = "ratio"

    @property
    def value(self):
        """What the limit is for."""
        launcher, floor = map(statistics.median, (self.launcher, self.floor))
        return launcher / floor if self.by == "ratio" else launcher - floor

    @property
    def held(self):
        """Whether the aim is held."""
        return self.value <= self.limit


def in_turn(both, number):
    """Returns the two in this order and in that, so that a drift hits both alike."""
    return both if number % 2 else both[::-1]


def start(context):
    """Yields the row from exec to window mapped."""
    with Screen() as screen, tempfile.TemporaryDirectory() as scratch:
        environment = {**screen.environment, "XDG_RUNTIME_DIR": scratch}

        def is_mapping(seen):
            return seen.type == X.MapNotify and not seen.override

        def started(program):
            screen.forget()
            before = now()
            pid = os.posix_spawn(program, [program], environment, file_actions=SILENT)
            try:
                return milliseconds(screen.when("a window", is_mapping) - before)
            finally:
                os.kill(pid, signal.SIGKILL)
                os.waitpid(pid, 0)

        taken = [], []
        for number in range(8 if context.quick else 40):
            for program, samples in in_turn(list(zip(context.subjects, taken)), number):
                samples.append(started(program))
    yield Row("start", "ms", *taken, 1.10)


def press(context):
    """Yields the rows of a window that is pressed. Every round has new windows: with each press the
    toolkit keeps more pictures of the buttons, up to 10 MiB, and a fork copies their page tables.
    """
    taken = defaultdict(list), defaultdict(list)
    for _ in range(2 if context.quick else 12):
        with ExitStack() as stack:
            both = [(stack.enter_context(in_window(context, program)), samples)
                    for program, samples in zip(context.subjects, taken)]
            for subject, samples in both:
                samples["resident"].append(subject.memory().rss / MIB)
                samples["private"].append(subject.memory().uss / MIB)
            for number in range(5):
                for subject, samples in in_turn(both, number):
                    samples["deploy"].append(subject.deploy())
                    samples["stop"].append(subject.stop())
            for subject, samples in both:
                subject.deploy()
                samples["line"] += subject.lines(5)
                samples["deployed"].append(subject.memory().rss / MIB)

    def of_both(what):
        return [samples[what] for samples in taken]

    yield Row("memory at rest", "MiB", *of_both("resident"), 1.10)
    yield Row("memory at rest, private", "MiB", *of_both("private"), 1.10)
    yield Row("memory deployed", "MiB", *of_both("deployed"), 1.10)
    yield Row("deploy", "ms", *of_both("deploy"), 1.25)
    yield Row("stop, beyond the command", "ms", *of_both("stop"), 1.0, "difference")
    yield Row("first line", "ms", *of_both("line"), 1.0, "difference")


def sink(context):
    """Yields the rows of one message into a list. Raises subprocess.CalledProcessError."""
    with Screen() as screen:
        done = subprocess.run(
            [context.programs / "Sink", "--benchmark_format=json",
             f"--benchmark_repetitions={3 if context.quick else 25}",
             "--benchmark_enable_random_interleaving=true"],
            env=screen.environment, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, check=True)
    runs = [run for run in json.loads(done.stdout)["benchmarks"] if run["run_type"] == "iteration"]

    def of_both(rows, visible, counter, unit=1):
        return [[run[counter] / unit for run in runs
                 if run["run_name"].startswith(f"{side}/{rows}/{visible}/")]
                for side in ("launcher", "floor")]

    for rows in ROWS:
        yield Row(f"sink, {rows:,} rows", "µs", *of_both(rows, 0, "cpu_time", 1e3), 1.05)
    for rows in ROWS:
        yield Row(f"sink and drawing, {rows:,} rows", "ms", *of_both(rows, 1, "cpu_time", 1e6),
                  1.05)
    for rows in ROWS:
        yield Row(f"memory a row, {rows:,} rows", "bytes", *of_both(rows, 0, "bytes"), 64,
                  "difference")


class Aside:
    """Windows that cost the machine next to nothing and take their time, beside the other rows."""

    def __init__(self, context, stack):
        def deployed(program):
            subject = stack.enter_context(in_window(context, program))
            subject.deploy()
            return subject

        self._flooded = deployed(context.subjects[0])
        self._pages = 6 if context.quick else 40
        self._flooded.services.rpc.order("pages", PIPE + self._pages)
        quiet = [deployed(program) for program in context.subjects]
        ended = deployed(context.subjects[0])
        ended.end_services()
        self._resting = [(subject, now(), subject.wake_ups()) for subject in (*quiet, ended)]

    def idle(self):
        """Yields the rows of a deployed window that is left alone. Ended services are read at the
        designed pace."""
        launcher, floor, ended = ([(subject.wake_ups() - before) * 1e9 / (now() - since)]
                                  for subject, since, before in self._resting)
        yield Row("idle", "/s", launcher, floor, 0.1, "difference")
        yield Row("idle, both services ended", "/s", ended, [READERS_AT_PACE], 0.2, "difference")

    def throughput(self):
        """Yields the row of a child that writes faster than it is read, once the pipe is full."""
        stamps = [self._flooded.services.rpc.report("page")[0] for _ in range(PIPE + self._pages)]
        taken = [milliseconds(after - before) for before, after in zip(stamps, stamps[1:])]
        yield Row("throughput, 4 KiB", "ms", taken[PIPE:], [PAGE_AT_PACE], 1.03)
