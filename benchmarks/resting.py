"""The rows of a launcher that is deployed and has nothing to do: wake-ups and processor time.

It costs the machine next to nothing, so it goes on beside the other rows."""

import os
import threading
import time
from contextlib import ExitStack
from pathlib import Path

from desktop import Desktop, Launcher, wait_for
from figures import Row, Series
from stage import Bundle
from window import now, processor_time, settle

# Wake-ups a second
DESIGNED = 10.0  # two readers, one turn every 200 ms each
BOUNDARY = 0.1  # one turn more at either end of the time
CACHES = 0.1  # the toolkit looks after its caches every 10 and every 30 seconds while they are warm


def wake_ups(pid):
    """How often each thread has gone to sleep by itself, so how often it will have woken up."""
    counted = {}
    for task in os.listdir(f"/proc/{pid}/task"):
        for line in Path(f"/proc/{pid}/task/{task}/status").read_text("ascii").splitlines():
            if line.startswith("voluntary_ctxt_switches:"):
                counted[task] = int(line.split()[1])
    return counted


class Resting:
    """One deployed launcher that is left alone; with `ended` services, both have ended."""

    def __init__(self, context, ended):
        with ExitStack() as stack:  # if this is cut short, what there is already is ended
            desktop = stack.enter_context(Desktop())
            bundle = stack.enter_context(Bundle(context.programs, context.launcher))
            self.launcher = stack.enter_context(
                Launcher(desktop, bundle.executable, landmarks=context.landmarks))
            self.launcher.click("deploy")
            bundle.started()
            settle(self.launcher.pid)
            if ended:
                for child in bundle.children:
                    child.order("end")
                wait_for("the services end", lambda: not self.launcher.started())
                time.sleep(1)  # the last rows
            self._before = self._counters()
            self._timer = threading.Timer(15 if context.quick else 60, self._read)  # seconds
            self._timer.daemon = True
            self._timer.start()
            self.end = stack.pop_all().close

    def _counters(self):
        return now(), wake_ups(self.launcher.pid), processor_time(self.launcher.pid)

    def _read(self):
        self._after = self._counters()

    def result(self):
        """Wake-ups of the readers and of the other threads, and processor time, each a second."""
        self._timer.join()
        (began, woken, ran), (ended, woken_since, ran_since) = self._before, self._after
        seconds = (ended - began) / 1e9
        per_thread = {task: (count - woken[task]) / seconds for task, count in woken_since.items()}
        readers = sorted(per_thread, key=int)[-2:]  # the threads that were made last
        return {"readers": sum(per_thread[task] for task in readers),
                "others": sum(rate for task, rate in per_thread.items() if task not in readers),
                "microseconds": (ran_since - ran) / 1000 / seconds}


def rows(quiet, ended):
    for state, resting in (("quiet", quiet), ("after both services ended", ended)):
        seen = resting.result()
        yield Row(f"idle, {state}", "wake-ups a second while deployed; floor: the designed pace "
                  "of both readers", "/s", Series([seen["readers"] + seen["others"]]),
                  Series([DESIGNED]), aim="no others",
                  held=seen["readers"] <= DESIGNED + BOUNDARY and seen["others"] <= CACHES,
                  note=f"readers {seen['readers']:.2f}, other threads {seen['others']:.2f}; "
                       f"{seen['microseconds']:.0f} µs of processor time a second")
