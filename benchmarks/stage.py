"""Throw-away bundles for the benchmarks, and the talk with the children in them."""

import os
import select
import shutil
import tempfile
import time
from pathlib import Path

PATIENCE = 30  # seconds
NGINX = "nginx/sbin/nginx"
RPC = "rpcServer/MacOs/rpcServer"


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
            if not select.select([self._stamps], [], [], deadline - time.monotonic())[0]:
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

    def close(self):
        for child in self.children:
            child.close()
        self._directory.cleanup()
