"""The rows that are measured inside a process: the sink, its memory, and the road to the view."""

import json
import statistics
import subprocess
from contextlib import ExitStack

from desktop import Desktop
from figures import Row, Series
from stage import Bundle

ROWS = (100, 1_000, 10_000, 20_000)
PACE = 2560  # bytes a second: one chunk of 512 bytes every 200 ms
BYTES_A_ROW = 8


def microseconds(samples):
    return Series([sample / 1000 for sample in samples])


def run_sink(context, screen):
    """One run of all benchmarks of the sink: counters by name."""
    done = subprocess.run(
        [context.programs / "Sink", "--benchmark_format=json"], env=screen.environment,
        stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, check=True)
    benchmarks = json.loads(done.stdout)["benchmarks"]
    for benchmark in benchmarks:
        if "error_message" in benchmark:
            raise RuntimeError(f"{benchmark['name']}: {benchmark['error_message']}")
    return {benchmark["name"].split("/iterations")[0]: benchmark for benchmark in benchmarks}


def sink_rows(context):
    count = 1 if context.quick else 5
    done = context.progress.counted("sink", count)
    runs = []
    with Desktop() as screen:
        for number in range(count):
            runs.append(run_sink(context, screen))
            done(number + 1)

    def series(name, counter):
        return [run[name][counter] for run in runs]

    for visible, place in enumerate(("hidden", "visible")):
        for rows in ROWS:
            name = f"message/{rows}/{visible}"
            yield Row(f"sink, {place}, {rows:,} rows", "one message, on the reader's thread; "
                      "floor: the same list and model operations written bare", "µs",
                      microseconds(series(name, "launcher_ns")),
                      microseconds(series(name, "bare_ns"))).aim_at_most(1.05)
    for rows in ROWS:
        name = f"message/{rows}/1"
        yield Row(f"drawing, {rows:,} rows", "what the window does after one message into a "
                  "visible list; floor: the bare list", "ms",
                  *(Series([value / 1e6 for value in series(name, counter)])
                    for counter in ("screen_launcher_ns", "screen_bare_ns")))
    for rows in ROWS:
        bare = statistics.median(series(f"memory/bare/{rows}", "resident_bytes")) / 1024
        yield Row(f"memory a row, {rows:,} rows", "resident growth with each message; floor: 8 "
                  "bytes a row for the model that is kept", "KiB",
                  Series([value / 1024 for value in
                          series(f"memory/launcher/{rows}", "resident_bytes")]),
                  Series([BYTES_A_ROW * rows / 1024]),
                  note=f"bare list and model operations: {bare:.1f} KiB").aim_at_most(1.30)


class Reader:
    """One run of the program Reader in a bundle of its own."""

    def __init__(self, context, what, amount):
        self._ended = False
        with ExitStack() as stack:  # if this is cut short, what there is already is ended
            desktop = stack.enter_context(Desktop())
            bundle = stack.enter_context(Bundle(context.programs, context.programs / "Reader"))
            self.result = bundle.root / "result"
            self.process = subprocess.Popen(
                [bundle.executable, what, str(amount), self.result],
                env=desktop.environment, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                stderr=subprocess.DEVNULL)
            self._close = stack.pop_all().close

    def lines(self):
        """Waits for the result."""
        try:
            if self.process.wait(900) != 0:
                raise RuntimeError(f"Reader ended with {self.process.returncode}")
            return self.result.read_text(encoding="ascii").splitlines()
        finally:
            self.end()

    def end(self):
        """Ends it and all it has. Once is enough, twice does no harm."""
        if not self._ended:
            self._ended = True
            self.process.kill()
            self.process.wait()
            self._close()


def line_rows(context):
    """The first line after a while of silence."""
    rounds, lines = (2, 5) if context.quick else (6, 10)
    done = context.progress.counted("first line", rounds)
    samples = {"lines": [], "bare": []}
    for number in range(rounds):
        for what in samples if number % 2 == 0 else reversed(samples):
            samples[what] += map(int, Reader(context, what, lines).lines())
        done(number + 1)
    yield Row("first line", "a child's write to the row being in the view's model, reader idle; "
              "floor: a bare blocking read in a thread", "ms",
              *(Series([sample / 1e6 for sample in samples[what]]) for what in ("lines", "bare")),
              by="difference").aim_at_most(1.0, "within 1 ms")


class Flood:
    """The flood, which takes its time: a mebibyte at the designed pace."""

    def __init__(self, context):
        self._reader = Reader(context, "flood", 64 * 1024 if context.quick else 1024 * 1024)
        self.end = self._reader.end

    def rows(self):
        line, *failures = self._reader.lines()
        received, first, nanoseconds, in_order = map(int, line.split())
        row = Row("throughput", "under a flooding child; floor: the designed pace", "bytes/s",
                  Series([(received - first) / (nanoseconds / 1e9)]), Series([PACE]))
        complete = in_order == 1 and not failures
        row.aim, row.held = "at least 0.97, nothing lost", row.value >= 0.97 and complete
        row.note = (f"{received:,} bytes, " + ("every one in its place" if complete
                                               else f"NOT in order {failures}"))
        yield row
