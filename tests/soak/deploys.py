"""Deploys, looks at each tab, redeploys and stops in a real window, on and on."""

import random
import resource
import subprocess
import time
from pathlib import Path

import psutil
from Xlib.error import XError

from drive.bundle import SITE_PORT, Bundle, ThrowAway, port_open, site_answers
from drive.desktop import Desktop, Launcher
from drive.processes import GONE, existing, running, wait_for

FLOOD = "exec yes 'a line of output that a service writes as fast as the launcher reads it'"
DESCRIPTORS = 4  # a cycle: two deploys of two services leave the read ends of their pipes open
SERVICES = 4  # a cycle, for the same reason
SPARE_DESCRIPTORS = 100
LONGEST_LOOK = 0.3  # seconds
LONGEST_PAUSE = 0.4  # seconds between a deploy and a stop; the launcher reads every 0.2
REPORT_EVERY = 50  # cycles


def chatty(job):
    """Returns what went wrong with services that flood their output."""
    bundle = ThrowAway(job.directory, job.launcher, nginx=FLOOD, rpc=FLOOD, stop="")
    return Deploys("chatty", job, bundle, ["yes", "yes"]).go()


def real(job):
    """Returns what went wrong with the services of the bundle."""
    bundle = Bundle.copy_of(job.build / "orvane.app", job.directory)
    wrong = Deploys("real", job, bundle, ["nginx", "rpcServer"], served=site_answers).go()
    return wrong + (["the site's port is still open"] if port_open(SITE_PORT) else [])


class Deploys:
    """Cycles in a window. A launcher that crashes is noted and replaced.

    `services` are the names of the two processes, sorted; served() is whether they are ready.
    """

    def __init__(self, name, job, bundle, services, served=lambda: True):
        self.name = name
        self.job = job
        self.bundle = bundle
        self.services = services
        self.served = served
        self.wrong = []  # crashes, hangs and what stayed behind
        self.launcher = None
        self.ended = 0  # how many of the launcher's children had ended when it was last looked at

    def go(self):
        """Returns what went wrong, and prints what it cost."""
        begin, done = time.monotonic(), 0
        descriptors = resource.getrlimit(resource.RLIMIT_NOFILE)[0] - SPARE_DESCRIPTORS
        with Desktop() as desktop:
            while done < self.job.cycles:
                left = self.job.cycles - done
                done += self.life_of_a_launcher(desktop, min(left, descriptors // DESCRIPTORS))
        print(f"{self.name}: {done} cycles, {(time.monotonic() - begin) / done:.2f} s each; "
              f"{len(self.wrong)} crashes, hangs and leftovers", flush=True)
        return self.wrong

    def life_of_a_launcher(self, desktop, cycles):
        """Up to so many cycles. Returns how many there were."""
        self.ended = done = 0
        with Launcher(desktop, self.bundle.program, cwd="/",
                      landmarks=self.job.landmarks) as self.launcher:
            process = psutil.Process(self.launcher.pid)
            try:
                while done < cycles:
                    done += 1
                    self.cycle()
                    if done == 1:
                        expected = process.num_fds() + DESCRIPTORS * (cycles - 1)
                    if done in (1, cycles) or done % REPORT_EVERY == 0:
                        memory = process.memory_info().rss // 1024
                        print(f"{self.name}: {done} cycles of this launcher, {memory} KiB",
                              flush=True)
                self.wait(f"{expected} descriptors", lambda: process.num_fds() == expected)
                self.close()
            except (ChildProcessError, TimeoutError, subprocess.TimeoutExpired, XError,
                    *GONE) as why:
                self.wrong.append(f"{why}\n{self.launcher.errors[-500:]}")
        return done

    def cycle(self):
        """Raises what wait() does."""
        self.launcher.click("deploy")
        self.wait("the services", lambda: self.running() == self.services)
        self.wait("their answer", self.served)
        self.look("nginx")
        self.look("rpc")
        time.sleep(random.uniform(0, LONGEST_LOOK))  # rows arrive in the list in front
        self.look("directions")
        self.launcher.click("deploy")
        time.sleep(random.uniform(0, LONGEST_PAUSE))
        self.launcher.click("stop")
        deployed = self.ended + SERVICES
        self.wait("four services, all ended",
                  lambda: len(self.children()) == deployed and not self.running())
        self.ended = deployed

    def close(self):
        """Raises ChildProcessError or subprocess.TimeoutExpired when it does not end well."""
        self.launcher.close()
        if status := self.launcher.wait():
            raise ChildProcessError(f"ended with {status} when it was closed")
        if left := self.launcher.started():
            raise ChildProcessError(f"left running: {left}")

    def look(self, tab):
        """Brings a tab to the front."""
        before = self.launcher.picture("tabs").tobytes()
        self.launcher.click(tab)
        self.wait(f"the tab {tab}", lambda: self.launcher.picture("tabs").tobytes() != before)

    def wait(self, what, condition):
        """As wait_for(); raises ChildProcessError when the launcher ends."""
        def happened_or_crashed():
            if self.launcher.process.poll() is not None:
                raise ChildProcessError(f"the launcher ended with {self.launcher.wait()}: {what}")
            return condition()

        return wait_for(what, happened_or_crashed)

    def children(self):
        """Returns the process ids in the order of their start; ended ones too: none is reaped."""
        path = Path(f"/proc/{self.launcher.pid}/task/{self.launcher.pid}/children")
        return list(map(int, path.read_text().split()))

    def running(self):
        """Returns the names of the launcher's children that run, sorted."""
        names = []
        for child in filter(running, existing(self.children()[self.ended:])):
            try:
                names.append(child.name())
            except GONE:
                pass  # the stop command
        return sorted(names)
