"""An assistive technology walks the window while rows arrive in the list in front."""

import subprocess
import time

from Xlib.error import XError

from drive.assistive import AccessibleDesktop, Walker
from drive.bundle import ThrowAway
from drive.desktop import Launcher
from drive.processes import GONE, wait_for

LISTS = ("rpc", "nginx")
ROWS = 5  # in front, each time; the launcher shows five a second at most
WALKS = 5  # meanwhile
ROW = "a row"
ROW_EVERY = 0.2  # seconds
CYCLES_OF_A_DEPLOY = 100  # then both lists begin anew: a long one keeps the window busy


class Walks:
    """The launcher, its services and what was counted."""

    def __init__(self, job):
        self.job = job
        self.written = {name: job.directory / f"{name} rows" for name in LISTS}
        services = {name: f"while echo {ROW} | tee -a '{file}'; do sleep {ROW_EVERY}; done"
                    for name, file in self.written.items()}
        self.bundle = ThrowAway(job.directory, job.launcher, **services)
        self.launcher = None
        self.walker = None

    def go(self):
        """Returns what went wrong, and prints what was done."""
        wrong, begin, cycles = [], time.monotonic(), 0
        with AccessibleDesktop() as desktop, \
                Launcher(desktop, self.bundle.program, cwd="/",
                         landmarks=self.job.landmarks) as self.launcher, \
                Walker(desktop, self.launcher.pid) as self.walker:
            try:
                for cycles in range(self.job.cycles):
                    if cycles % CYCLES_OF_A_DEPLOY == 0:
                        self.deploy(cycles // CYCLES_OF_A_DEPLOY + 1)
                    for name in LISTS:
                        self.watch(name)
                self.launcher.close()
                if status := self.launcher.wait():
                    wrong.append(f"ended with {status} when it was closed")
            except (ChildProcessError, TimeoutError, subprocess.TimeoutExpired, XError,
                    *GONE) as why:
                wrong.append(f"cycle {cycles + 1}: {why}\n{self.launcher.errors[-500:]}")
            rows = {name: self.rows(name) for name in LISTS}
            print(f"assistive: {self.walker.walks} walks in {time.monotonic() - begin:.0f} s, "
                  f"rows {rows}", flush=True)
        return wrong

    def deploy(self, times):
        """Presses deploy and waits until both services have started so often."""
        self.launcher.click("deploy")
        self.wait("both services", lambda: self.bundle.deployed(times))

    def watch(self, name):
        """Leaves the list in front while rows come and the client walks."""
        self.launcher.click(name)
        rows, walks = self.rows(name) + ROWS, self.walker.walks + WALKS
        self.wait(f"{ROWS} rows and {WALKS} walks, the {name} list in front",
                  lambda: self.rows(name) >= rows and self.walker.walks >= walks)

    def rows(self, name):
        """Returns how many rows the service has written."""
        file = self.written[name]
        return file.stat().st_size // len(f"{ROW}\n") if file.exists() else 0

    def wait(self, what, condition):
        """As wait_for(); raises ChildProcessError when the launcher ends."""
        def happened_or_crashed():
            if self.launcher.process.poll() is not None:
                raise ChildProcessError(f"the launcher ended with {self.launcher.wait()}: {what}")
            return condition()

        wait_for(what, happened_or_crashed)


def soak(job):
    """Returns what went wrong."""
    return Walks(job).go()
