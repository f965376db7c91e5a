"""A desktop with accessibility switched on, and an assistive technology that walks a window there.

As a program it is that client: drive.assistive PID PAUSE FILE walks the windows of the process on
and on, with a pause of so many seconds between two walks. FILE holds, as JSON, how many walks it
has made and what it has read in the last one.
"""

import json
import os
import subprocess
import sys
import tempfile
import time
from pathlib import Path
from typing import NamedTuple

import psutil

from drive.desktop import Desktop
from drive.processes import GONE, PATIENCE, end, existing, kill_all, running

PROJECT = Path(__file__).resolve().parents[1]


class AccessibleDesktop(Desktop):
    """A Desktop with a session bus of its own, on which accessibility is switched on.

    Raises subprocess.CalledProcessError or subprocess.TimeoutExpired when that fails.
    """

    def __init__(self, *size):
        super().__init__(*size)
        self._directory = tempfile.TemporaryDirectory(prefix="orvane-bus-")
        place = self._directory.name
        address = f"unix:path={place}/session"
        # The switch is not kept as a setting of the user's.
        self.variables = {"DBUS_SESSION_BUS_ADDRESS": address, "XDG_RUNTIME_DIR": place,
                          "GSETTINGS_BACKEND": "memory"}
        self._bus = subprocess.Popen(
            ["dbus-daemon", "--session", "--nofork", "--print-address", f"--address={address}"],
            env=self.environment, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
            stderr=subprocess.DEVNULL, start_new_session=True)
        try:
            self._bus.stdout.readline()  # it listens now
            self._switch_on(address)
        except BaseException:
            self.close()
            raise

    def _switch_on(self, address):
        """Does what a desktop's settings do; the session bus starts what it takes."""
        subprocess.run(
            ["dbus-send", f"--bus={address}", "--print-reply", "--dest=org.a11y.Bus",
             "/org/a11y/bus", "org.freedesktop.DBus.Properties.Set", "string:org.a11y.Status",
             "string:IsEnabled", "variant:boolean:true"],
            env=self.environment, check=True, stdout=subprocess.DEVNULL, timeout=PATIENCE)

    def started(self):
        """Returns the running processes (psutil.Process) that were given its bus, or started by it.
        The bus does not stay the parent of these."""
        def ours(process):
            try:
                return process.pid != self._bus.pid and process.environ().get(
                    "XDG_RUNTIME_DIR") == self.variables["XDG_RUNTIME_DIR"]
            except GONE:
                return False

        return [p for p in existing(psutil.pids()) if running(p) and ours(p)]

    def close(self):
        """Ends the bus and all that was given it, and the X server."""
        end(self._bus)
        self._bus.stdout.close()
        kill_all(self.started)
        super().close()
        self._directory.cleanup()


class Node(NamedTuple):
    """What an assistive technology reads of one thing in a window."""

    role: str
    name: str


class Walker:
    """A client that walks the windows of a process until its `with` block is left.

    `pause` is the time between two walks, in seconds.
    """

    def __init__(self, desktop, pid, pause=0.125):
        self._directory = tempfile.TemporaryDirectory(prefix="orvane-walk-")
        self._file = Path(self._directory.name) / "walk"
        self._file.write_text(json.dumps([0, []]))
        self._client = subprocess.Popen(
            [sys.executable, "-B", "-m", "drive.assistive", str(pid), str(pause), self._file],
            cwd=PROJECT, env=desktop.environment, stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL, start_new_session=True)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        end(self._client)
        self._directory.cleanup()

    @property
    def walks(self):
        """How many walks it has made."""
        return json.loads(self._file.read_text())[0]

    @property
    def seen(self):
        """The nodes that it has read in its last walk, each before its children."""
        return [Node(*node) for node in json.loads(self._file.read_text())[1]]


def read(node, seen):
    """Appends what there is to read of the node and of all below it, as it is now."""
    node.clear_cache()
    seen.append(Node(node.getRoleName(), node.name))
    for index in range(node.childCount):
        child = node.getChildAtIndex(index)
        if child is not None:  # it may have gone meanwhile
            read(child, seen)


def walk_on(pid, pause, file):
    """Walks the windows of the process on and on."""
    import pyatspi  # for this program alone: it connects to the bus
    from gi.repository import GLib

    walks, desktop = 0, pyatspi.Registry.getDesktop(0)
    while True:
        seen = []
        desktop.clear_cache()
        try:
            for application in desktop:
                if application is not None and application.get_process_id() == pid:
                    read(application, seen)
        except GLib.Error:
            seen = []  # an application has just ended, or does not answer
        if seen:
            walks += 1
            written = file.with_suffix(".new")
            written.write_text(json.dumps([walks, seen]))
            os.replace(written, file)
        time.sleep(pause)


if __name__ == "__main__":
    walk_on(int(sys.argv[1]), float(sys.argv[2]), Path(sys.argv[3]))
