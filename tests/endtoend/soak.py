"""soak.py CYCLES [chatty] [real] [aimed]: deploy, look at each tab, redeploy and stop, on and on.

In a real window, against services that flood their output and against the bundle's real ones. The
third kind is AimedStops, which stops in the very moment in which a row arrives.

ORVANE_LAUNCHER and ORVANE_LANDMARKS name the programs. Exits with 0 if the launcher never crashed
(at most once in 1,000 aimed stops), each cycle left the designed number of descriptors, and nothing
was left running.
"""

import os
import random
import resource
import subprocess
import sys
import tempfile
import time
from pathlib import Path

from Xlib.error import XError
from drive.bundle import SITE_PORT, Bundle, ThrowAway, port_open, site_answers
from drive.desktop import Desktop, Launcher
from drive.processes import exit_on_signals, wait_for
from launchertest import LAUNCHER, copy_real_bundle


DESCRIPTORS = 4  # a cycle: two deploys of two services leave the read ends of their pipes open
REPORT_EVERY = 50  # cycles, where there is no terminal
SPARE_DESCRIPTORS = 100
MANY_DESCRIPTORS = 65536
FLOOD = "exec yes 'a line of output that a service writes as fast as the launcher reads it'"


def chatty_bundle(directory):
    return ThrowAway(directory, LAUNCHER, nginx=FLOOD, rpc=FLOOD, stop="").program


def aim(cycles, directory, seed):
    """Returns whether few enough of the aimed stops ended the launcher; prints how many did."""
    aimed, told = (Path(os.environ["ORVANE_LANDMARKS"]).with_name(name)
                   for name in ("AimedStops", "ToldService"))
    bundle = Bundle(directory, aimed, nginx=told, rpc=told)
    return subprocess.run([bundle.program, str(cycles), str(seed)], check=False).returncode == 0


def children(pid):
    """In the order of their start. The launcher reaps no service: an ended one is a zombie."""
    return Path(f"/proc/{pid}/task/{pid}/children").read_text().split()


def stat(pid):
    """The name of the program and the state letter; both empty when there is no such process."""
    try:
        name, _, rest = Path(f"/proc/{pid}/stat").read_text().partition("(")[2].rpartition(")")
    except (FileNotFoundError, ProcessLookupError):
        return "", ""
    return name, rest.split()[0]


def works(pid, programs):
    name, state = stat(pid)
    return name in programs and state != "Z"


def ended(pid):
    return stat(pid)[1] in ("Z", "")


class Run:
    """Cycles of one kind. A launcher that crashed is counted and replaced."""

    def __init__(self, name, program, services, dice):
        self.name = name
        self.dice = dice
        self.program = program
        self.services = services  # what the services' processes are called
        self.failures = []  # crashes and hangs
        self.left = 0
        self.figures = []  # descriptors and resident memory (KiB) after each cycle of a launcher
        self.launcher = None

    def deploy(self):
        """Returns the process ids of the two services."""
        before = set(children(self.launcher.pid))
        self.launcher.click("deploy")

        def new_ones():
            # The stop command is a child too, but has ended when the rpc server starts.
            new = [pid for pid in children(self.launcher.pid)
                   if pid not in before and works(pid, self.services)]
            return new if len(new) == 2 else None

        services = self.wait("two more services", new_ones)
        if self.name == "real":
            self.wait("the site", site_answers)
        return services

    def look(self, tab):
        before = self.launcher.picture().tobytes()
        self.launcher.click(tab)
        self.wait(f"the tab {tab}", lambda: self.launcher.picture().tobytes() != before)

    def wait(self, what, condition):
        def happened_or_crashed():
            if self.launcher.process.poll() is not None:
                raise ChildProcessError(f"the launcher ended with {self.launcher.wait()}: {what}")
            return condition()

        return wait_for(what, happened_or_crashed)

    def cycle(self):
        self.deploy()
        self.look("nginx")
        self.look("rpc")
        time.sleep(self.dice.uniform(0, 0.3))  # rows arrive in the list in front
        self.look("directions")
        services = self.deploy()
        time.sleep(self.dice.uniform(0, 0.2))  # a pause of the readers
        self.launcher.click("stop")
        self.wait("the end of the services", lambda: all(map(ended, services)))
        self.note_figures()

    def note_figures(self):
        of_launcher = Path(f"/proc/{self.launcher.pid}")
        pages = int((of_launcher / "statm").read_text().split()[1])
        self.figures.append((self.descriptors(), pages * resource.getpagesize() // 1024))

    def descriptors(self):
        return len(list(Path(f"/proc/{self.launcher.pid}/fd").iterdir()))

    def check_descriptors(self):
        expected = self.figures[0][0] + DESCRIPTORS * (len(self.figures) - 1)
        self.wait(f"{expected} descriptors", lambda: self.descriptors() == expected)

    def life_of_a_launcher(self, desktop, cycles):
        """Up to so many cycles; returns how many there were."""
        self.figures.clear()
        done = 0
        with Launcher(desktop, self.program, cwd="/",
                      landmarks=os.environ["ORVANE_LANDMARKS"]) as self.launcher:
            try:
                while done < cycles:
                    done += 1
                    self.cycle()
                    self.report(done)
                self.check_descriptors()
                self.launcher.close()
                self.wait_for_good_end()
            except (ChildProcessError, TimeoutError, subprocess.TimeoutExpired, XError) as why:
                self.failures.append(str(why))
                print(f"\n{self.name}: {why}\n{self.launcher.errors[-500:]}")
        return done

    def wait_for_good_end(self):
        if status := self.launcher.wait():
            raise ChildProcessError(f"the launcher ended with {status} when it was closed")
        self.left += len(self.launcher.started())

    def go(self, cycles):
        begin, done = time.monotonic(), 0
        descriptors = resource.getrlimit(resource.RLIMIT_NOFILE)[0] - SPARE_DESCRIPTORS
        with Desktop() as desktop:
            while done < cycles:
                done += self.life_of_a_launcher(
                    desktop, min(cycles - done, descriptors // DESCRIPTORS))
        self.summarize(cycles, time.monotonic() - begin)
        return not self.failures and not self.left and not port_open(SITE_PORT)

    def report(self, done):
        terminal = sys.stdout.isatty()
        if terminal or done % REPORT_EVERY == 0:
            descriptors, memory = self.figures[-1]
            print(f"{self.name}: {done} cycles of this launcher, {len(self.failures)} crashes, "
                  f"{descriptors} descriptors, {memory} KiB",
                  end="\r" if terminal else "\n", flush=True)

    def summarize(self, cycles, seconds):
        print(f"\n{self.name}: {cycles} cycles, {seconds / cycles:.2f} s each\n"
              f"  crashes, hangs   {len(self.failures)} {self.failures or ''}\n"
              f"  processes left   {self.left}\n"
              f"  port {SITE_PORT}        {'open' if port_open(SITE_PORT) else 'closed'}")
        if len(self.figures) > 1:
            steps = len(self.figures) - 1
            for column, unit in enumerate(("descriptors     ", "resident KiB    ")):
                first, last = self.figures[0][column], self.figures[-1][column]
                print(f"  {unit} {first} after the launcher's first cycle, {last} after its "
                      f"{len(self.figures)}th: {(last - first) / steps:.1f} a cycle")


def main():
    cycles, kinds = int(sys.argv[1]), sys.argv[2:] or ["chatty", "real", "aimed"]
    if set(kinds) - {"chatty", "real", "aimed"}:
        sys.exit(__doc__)
    # Every deploy leaves two descriptors open for the launcher's life.
    hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    many = MANY_DESCRIPTORS if hard == resource.RLIM_INFINITY else min(hard, MANY_DESCRIPTORS)
    resource.setrlimit(resource.RLIMIT_NOFILE, (many, hard))
    exit_on_signals()
    seed = int(os.environ.get("ORVANE_SEED") or random.SystemRandom().getrandbits(31))
    print(f"seed: {seed} (ORVANE_SEED={seed} draws the same again)")
    good = True
    for kind in kinds:
        with tempfile.TemporaryDirectory(prefix="orvane-soak-") as directory:
            if kind == "aimed":
                good = aim(cycles, directory, seed) and good
                continue
            if kind == "chatty":
                run = Run(kind, chatty_bundle(directory), {"yes"}, random.Random(seed))
            else:
                run = Run(kind, copy_real_bundle(directory), {"nginx", "rpcServer"},
                          random.Random(seed))
            good = run.go(cycles) and good
    sys.exit(0 if good else 1)


if __name__ == "__main__":
    main()
