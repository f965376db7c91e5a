"""Throw-away bundles for the benchmarks, and the talk with the services in them."""

import os
import select
import shutil
import signal
import subprocess
import tempfile
import time
from contextlib import suppress
from pathlib import Path

from desktop import port_open, wait_for

PATIENCE = 30  # seconds
NGINX = "nginx/sbin/nginx"
RPC = "rpcServer/MacOs/rpcServer"


def pids_of(*programs):
    """The processes that run one of these programs. A zombie no longer does."""
    found = []
    for pid in filter(str.isdigit, os.listdir("/proc")):
        try:
            if os.readlink(f"/proc/{pid}/exe") in map(str, programs):
                found.append(int(pid))
        except OSError:
            pass  # it has gone, is another user's, or lies deeper than a link can say
    return found


def end_all_of(*programs):
    """Ends the processes that run one of these programs; how many there were."""
    left = pids_of(*programs)
    for pid in left:
        with suppress(ProcessLookupError):
            os.kill(pid, signal.SIGKILL)
    return len(left)


class Child:
    """The benchmarks' service program at `path`: its orders, and what it reports."""

    def __init__(self, path):
        self.path = path
        os.mkfifo(f"{path}.orders")
        os.mkfifo(f"{path}.stamps")
        # Open for both, so that neither waits for the child, and nothing is lost between two.
        self._orders = os.open(f"{path}.orders", os.O_RDWR)
        self._stamps = os.open(f"{path}.stamps", os.O_RDWR)
        self._received = ""

    def close(self):
        os.close(self._orders)
        os.close(self._stamps)

    def order(self, what, number=0):
        os.write(self._orders, f"{what} {number}\n".encode())

    def report(self, what):
        """Waits for the child's next report of this kind: its stamp (ns) and the process id."""
        deadline = time.monotonic() + PATIENCE
        while True:
            while "\n" in self._received:
                line, self._received = self._received.split("\n", 1)
                kind, stamp, pid = line.split()
                if kind == what:
                    return int(stamp), int(pid)
            if not select.select([self._stamps], [], [], max(0, deadline - time.monotonic()))[0]:
                raise TimeoutError(f"{self.path} does not report: {what}")
            self._received += os.read(self._stamps, 4096).decode()

    def forget(self):
        """Drops what was reported so far."""
        self._received = ""
        while select.select([self._stamps], [], [], 0)[0]:
            os.read(self._stamps, 4096)


class Bundle:
    """A bundle of its own with `program` as its executable and the child as both services."""

    def __init__(self, programs, program):
        self._directory = tempfile.TemporaryDirectory(prefix="orvane-bench-")
        self.root = Path(self._directory.name) / "orvane.app"
        self.executable = self.root / "Contents/MacOS" / Path(program).name
        for source, target in ((program, self.executable), (programs / "Child", self.root / NGINX),
                               (programs / "Child", self.root / RPC)):
            target.parent.mkdir(parents=True)
            shutil.copy2(source, target)
        self.nginx, self.rpc = Child(self.root / NGINX), Child(self.root / RPC)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    @property
    def children(self):
        return self.nginx, self.rpc

    def forget(self):
        for child in self.children:
            child.forget()

    def started(self):
        """Waits until both children run; the stamp of the later one and the RPC server's id."""
        stamps = [child.report("start") for child in self.children]
        return max(stamp for stamp, _ in stamps), stamps[1][1]

    def end_services(self):
        """Ends the services that still run; how many there were."""
        return end_all_of(self.root / NGINX, self.root / RPC)

    def close(self):
        self.end_services()
        for child in self.children:
            child.close()
        self._directory.cleanup()


class SampleBundle:
    """A copy of the bundle that was built, with the sample services, which hold fixed ports."""

    PORTS = 4200, 4201

    def __init__(self, built):
        self._directory = tempfile.TemporaryDirectory(prefix="orvane-bench-")
        self.root = Path(self._directory.name) / "orvane.app"
        shutil.copytree(built, self.root, ignore=shutil.ignore_patterns("run"))
        self.executable = self.root / "Contents/MacOS/orvane"

    def __enter__(self):
        return self

    def __exit__(self, *_):
        # Beside a run that was cut short there may be an nginx; it is not called after the bundle.
        subprocess.run([self.root / NGINX, "-s", "stop"], stderr=subprocess.DEVNULL, check=False)
        end_all_of(self.root / RPC)
        self._directory.cleanup()

    def forget(self):
        """Waits until the services of before have let go of their ports."""
        wait_for("the ports are free", lambda: not any(map(port_open, self.PORTS)))

    def started(self):
        """Waits until both services answer; no stamp, and the RPC server's id."""
        wait_for("the services answer", lambda: all(map(port_open, self.PORTS)))
        return None, pids_of(self.root / RPC)[0]
