"""Deploys, looks at each tab, redeploys and stops in a real window, on and on; chance decides when.
Exits with 0 if the launcher never crashed (at most once in 1,000 aimed stops), each cycle left the
designed number of descriptors, and nothing was left running."""

import argparse
import os
import pwd
import random
import resource
import subprocess
import sys
import tempfile
import time
from pathlib import Path

import psutil
from Xlib.error import XError

from drive.bundle import SITE_PORT, Bundle, Nginx, ThrowAway, port_open, site_answers
from drive.desktop import Desktop, Launcher
from drive.processes import GONE, existing, exit_on_signals, wait_for

KINDS = {"chatty": "services that flood their output",
         "real": "the services of the bundle",
         "nginx": "the bundle's nginx alone, stopped or killed while it starts",
         "aimed": "stops in the very moment in which a row arrives"}
PROJECT = Path(__file__).resolve().parents[2]
FLOOD = "exec yes 'a line of output that a service writes as fast as the launcher reads it'"
DESCRIPTORS = 4  # a cycle: two deploys of two services leave the read ends of their pipes open
SPARE_DESCRIPTORS = 100
MANY_DESCRIPTORS = 65536
LONGEST_LOOK = 0.3  # seconds
LONGEST_PAUSE = 0.4  # seconds between a deploy and a stop; the launcher reads every 0.2
LONGEST_START = 0.06  # seconds; nginx serves after about half of it
STARTS_OF_NGINX = 4  # a cycle
REPORT_EVERY = 50  # cycles


class Run:
    """Cycles of one kind in a window. A launcher that crashed is counted and replaced."""

    def __init__(self, kind, build, directory):
        self.kind = kind
        self.landmarks = build / "landmarks"
        if kind == "real":
            self.program = Bundle.copy_of(build / "orvane.app", directory).program
            self.services = ["nginx", "rpcServer"]  # what their processes are called
        else:
            self.program = ThrowAway(directory, build / "orvane.app/Contents/MacOS/orvane",
                                     nginx=FLOOD, rpc=FLOOD, stop="").program
            self.services = ["yes", "yes"]
        self.failures = []  # crashes and hangs
        self.launcher = None
        self.ended = 0  # how many of the launcher's children had ended when it was last looked at

    def children(self):
        """Returns the process ids in the order of their start; ended ones too: none is reaped."""
        path = Path(f"/proc/{self.launcher.pid}/task/{self.launcher.pid}/children")
        return list(map(int, path.read_text().split()))

    def running(self):
        """Returns the names of the launcher's children that run, sorted."""
        names = []
        for child in existing(self.children()[self.ended:]):
            try:
                if child.status() != psutil.STATUS_ZOMBIE:
                    names.append(child.name())
            except GONE:
                pass  # the stop command
        return sorted(names)

    def wait(self, what, condition):
        """As wait_for(); raises ChildProcessError when the launcher ends."""
        def happened_or_crashed():
            if self.launcher.process.poll() is not None:
                raise ChildProcessError(f"the launcher ended with {self.launcher.wait()}: {what}")
            return condition()

        return wait_for(what, happened_or_crashed)

    def look(self, tab):
        """Brings a tab to the front."""
        before = self.launcher.picture("tabs").tobytes()
        self.launcher.click(tab)
        self.wait(f"the tab {tab}", lambda: self.launcher.picture("tabs").tobytes() != before)

    def cycle(self):
        """Raises what wait() does."""
        self.launcher.click("deploy")
        self.wait("the services", lambda: self.running() == self.services)
        if self.kind == "real":
            self.wait("the site", site_answers)
        self.look("nginx")
        self.look("rpc")
        time.sleep(random.uniform(0, LONGEST_LOOK))  # rows arrive in the list in front
        self.look("directions")
        self.launcher.click("deploy")
        time.sleep(random.uniform(0, LONGEST_PAUSE))
        self.launcher.click("stop")
        deployed = self.ended + 4
        self.wait("four services, all ended",
                  lambda: len(self.children()) == deployed and not self.running())
        self.ended = deployed

    def life_of_a_launcher(self, desktop, cycles):
        """Up to so many cycles. Returns how many there were."""
        self.ended = done = 0
        with Launcher(desktop, self.program, cwd="/", landmarks=self.landmarks) as self.launcher:
            process = psutil.Process(self.launcher.pid)
            try:
                while done < cycles:
                    done += 1
                    self.cycle()
                    if done == 1:
                        expected = process.num_fds() + DESCRIPTORS * (cycles - 1)
                    if done in (1, cycles) or done % REPORT_EVERY == 0:
                        memory = process.memory_info().rss // 1024
                        print(f"{self.kind}: {done} cycles of this launcher, {memory} KiB",
                              flush=True)
                self.wait(f"{expected} descriptors", lambda: process.num_fds() == expected)
                self.launcher.close()
                if status := self.launcher.wait():
                    raise ChildProcessError(f"ended with {status} when it was closed")
                if left := self.launcher.started():
                    raise ChildProcessError(f"left running: {left}")
            except (ChildProcessError, TimeoutError, subprocess.TimeoutExpired, XError,
                    *GONE) as why:
                self.failures.append(str(why))
                print(f"{self.kind}: {why}\n{self.launcher.errors[-500:]}")
        return done

    def go(self, cycles):
        """Returns whether all went well, and prints what it cost."""
        begin, done = time.monotonic(), 0
        descriptors = resource.getrlimit(resource.RLIMIT_NOFILE)[0] - SPARE_DESCRIPTORS
        with Desktop() as desktop:
            while done < cycles:
                done += self.life_of_a_launcher(
                    desktop, min(cycles - done, descriptors // DESCRIPTORS))
        print(f"{self.kind}: {cycles} cycles, {(time.monotonic() - begin) / cycles:.2f} s each; "
              f"{len(self.failures)} crashes, hangs and leftovers {self.failures or ''}")
        return not self.failures and not port_open(SITE_PORT)


def start_nginx(cycles, directory, user=None, writable=True):
    """Returns whether the nginx of this user left nothing behind in any of its starts."""
    with Nginx(directory, PROJECT / "bundle/nginx", user, writable=writable) as nginx:
        nginx.environment = {**nginx.environment, "XDG_STATE_HOME": str(directory)}
        try:
            for _ in range(cycles * STARTS_OF_NGINX):
                nginx.start()
                time.sleep(random.uniform(0, LONGEST_START))
                random.choice((nginx.stop, nginx.kill))()
                wait_for("the end of nginx", lambda: not nginx.left())
                wait_for("a closed port", lambda: not port_open(SITE_PORT))
            nginx.deploy()
            good = [process.pid for process in nginx.left()] == [nginx.child.pid]
        except (ChildProcessError, TimeoutError) as why:
            print(f"nginx: {why}")
            return False
        return good and "taken" not in nginx.output and "held" not in nginx.output


def go(kind, cycles, build, directory, seed):
    """Returns whether all went well."""
    random.seed(seed)
    if kind == "aimed":
        bundle = Bundle(directory, build / "AimedStops", *[build / "ToldService"] * 2)
        return subprocess.run([bundle.program, str(cycles), str(seed)], check=False).returncode == 0
    if kind != "nginx":
        return Run(kind, build, directory).go(cycles)
    user = None if os.getuid() else pwd.getpwnam("nobody").pw_uid
    theirs = directory / "theirs"
    theirs.mkdir()
    os.chown(theirs, -1 if user is None else user, -1)
    good = start_nginx(cycles, directory) and start_nginx(cycles, theirs, user, writable=False)
    print(f"nginx: {cycles * STARTS_OF_NGINX} starts as each of two users, "
          f"{'nothing' if good else 'something'} left")
    return good


def main():
    """Exits as the docstring above says."""
    parser = argparse.ArgumentParser(prog="scripts/soak", description=__doc__, epilog="; ".join(
        f"{kind}: {what}" for kind, what in KINDS.items()))
    parser.add_argument("cycles", type=int)
    parser.add_argument("kinds", nargs="*", metavar="kind", help=", ".join(KINDS))
    parser.add_argument("--seed", type=int, default=random.randrange(2 ** 31))
    parser.add_argument("--build", type=Path, default=PROJECT / "build/release")
    options = parser.parse_args()
    if set(options.kinds) - set(KINDS) or options.cycles < 1:
        parser.error(f"the kinds are {', '.join(KINDS)}, and the cycles 1 or more")
    # Every deploy leaves two descriptors open for the launcher's life.
    hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (min(hard, MANY_DESCRIPTORS), hard))
    exit_on_signals()
    print(f"soak: --seed {options.seed}", flush=True)
    bad = []
    for kind in options.kinds or KINDS:
        with tempfile.TemporaryDirectory(prefix="orvane-soak-") as directory:
            os.chmod(directory, 0o755)
            if not go(kind, options.cycles, options.build.resolve(), Path(directory), options.seed):
                bad.append(kind)
    sys.exit(f"soak: failed: {', '.join(bad)}" if bad else 0)


if __name__ == "__main__":
    main()
