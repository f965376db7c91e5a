"""What a row of the table is made of: samples that were taken in turns, and what they say."""

import statistics
import sys
import time
from dataclasses import asdict, dataclass, field


@dataclass
class Series:
    """The samples of one thing, in the row's unit."""

    samples: list

    @property
    def median(self):
        return statistics.median(self.samples)

    @property
    def spread(self):
        """The quartiles."""
        if len(self.samples) < 4:
            return min(self.samples), max(self.samples)
        low, _, high = statistics.quantiles(self.samples, n=4)
        return low, high


@dataclass
class Row:
    """One row: the launcher against its floor. Without a floor it is a plain figure."""

    name: str
    what: str
    unit: str
    launcher: Series
    floor: Series = None
    aim: str = ""
    limit: float = None
    held: bool = None
    by: str = "ratio"  # or "difference": in the row's unit
    note: str = ""

    @property
    def value(self):
        """The figure that the aim is about."""
        if self.floor is None:
            return None
        launcher, floor = self.launcher.median, self.floor.median
        return launcher / floor if self.by == "ratio" else launcher - floor

    def aim_at_most(self, limit, text=None):
        self.limit, self.held = limit, self.value <= limit
        self.aim = text or f"at most {limit:.2f}"
        return self

    def as_json(self):
        return {**asdict(self), "launcher_median": self.launcher.median,
                "floor_median": self.floor.median if self.floor else None, "value": self.value}


def take_turns(count, *measures, done=lambda number: None):
    """`count` samples of each measure: A B, B A, A B ..., so that a drift hits all alike."""
    series = [Series([]) for _ in measures]
    for number in range(count):
        turns = list(zip(measures, series))
        for measure, samples in turns if number % 2 == 0 else reversed(turns):
            samples.samples.append(measure())
        done(number + 1)
    return series


@dataclass
class Progress:
    """One line on the terminal that says what runs and for how long already."""

    expected: int  # seconds
    started: float = field(default_factory=time.monotonic)

    def say(self, what, number=0, count=0):
        seconds = int(time.monotonic() - self.started)
        line = f"[{seconds // 60}:{seconds % 60:02} of about {self.expected // 60} min] {what}"
        if sys.stdout.isatty():
            print(f"\r\033[K{line} {number}/{count}" if count else f"\r\033[K{line}", end="",
                  flush=True)
        elif number == 0:
            print(line, flush=True)

    def counted(self, what, count):
        self.say(what)
        return lambda number: self.say(what, number, count)

    def end(self):
        self.say("done")
        print()
