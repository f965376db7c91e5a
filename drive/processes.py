"""Waiting for what is to happen, and which processes there are (Linux)."""

import ctypes
import os
import signal
import subprocess
import sys
import time
from contextlib import suppress
from pathlib import Path

import psutil

# Seconds until a condition that does not come true is a failure.
PATIENCE = float(os.environ.get("ORVANE_PATIENCE", "20"))
GONE = (psutil.NoSuchProcess, psutil.AccessDenied, psutil.ZombieProcess)


def wait_for(what, condition, seconds=PATIENCE):
    """Returns the first true value of condition(). Raises TimeoutError: `what` did not happen."""
    deadline = time.monotonic() + seconds
    while not (value := condition()):
        if time.monotonic() > deadline:
            raise TimeoutError(f"not within {seconds} s: {what}")
        time.sleep(0.01)
    return value


class GaveUp(Exception):
    """A step took too long. Nothing else raises it, so that no library takes it for its own."""


class Steps:
    """Prints the steps of what a user looks at, each when it is called with the step's name. A step
    that takes long is printed again every `remind` seconds, and raises GaveUp after `seconds`. For
    the main thread, since it takes SIGALRM.
    """

    def __init__(self, title, seconds=90, remind=10):
        self.title, self.seconds, self.remind = title, seconds, remind
        self.current, self._began = "start", time.monotonic()

    def __enter__(self):
        signal.signal(signal.SIGALRM, self._still_waiting)
        signal.setitimer(signal.ITIMER_REAL, self.remind, self.remind)
        return self

    def __exit__(self, *_):
        signal.setitimer(signal.ITIMER_REAL, 0)

    def __call__(self, what):  # noqa: D102
        self.current, self._began = what, time.monotonic()
        print(f"{self.title}: {what}", flush=True)
        signal.setitimer(signal.ITIMER_REAL, self.remind, self.remind)

    def _still_waiting(self, *_):
        waited = time.monotonic() - self._began
        if waited >= self.seconds:
            self._began = time.monotonic()  # what ends now may take as long again
            raise GaveUp(f"given up after {self.seconds} s")
        print(f"{self.title}: still waiting after {waited:.0f} s, gives up after {self.seconds} s: "
              f"{self.current}", flush=True)


def running(process):
    """Returns whether it runs. A child that nobody has waited for (a zombie) does not."""
    try:
        return process.status() != psutil.STATUS_ZOMBIE
    except GONE:
        return False


def existing(pids):
    """Returns the processes (psutil.Process) of those that have not gone meanwhile."""
    processes = []
    for pid in pids:
        try:
            processes.append(psutil.Process(pid))
        except GONE:
            pass
    return processes


def runs(pid):
    """Returns whether there is a running process of this id."""
    return any(map(running, existing([pid])))


def adopt_orphans():
    """Makes this process the parent of every descendant whose own parent has ended."""
    set_child_subreaper = 36
    ctypes.CDLL(None, use_errno=True).prctl(set_child_subreaper, 1, 0, 0, 0)


def descendants(pid):
    """Returns the process ids of all below this one."""
    found, threads, ended = [], [], (FileNotFoundError, ProcessLookupError)
    with suppress(*ended):
        threads = os.listdir(f"/proc/{pid}/task")
    for thread in threads:
        with suppress(*ended):
            found += map(int, Path(f"/proc/{pid}/task/{thread}/children").read_text().split())
    return found + [further for child in found for further in descendants(child)]


def session(pid):
    """Returns the id of its session, or None when it has gone."""
    try:
        return os.getsid(pid)
    except ProcessLookupError:
        return None


def lies_below(directory, pid):
    """Returns whether its program (or its script) or its working directory lies below this one."""
    below = os.path.realpath(directory) + "/"
    try:
        # A zombie has neither link; asked here first, since there may be thousands.
        places = [os.readlink(f"/proc/{pid}/exe"), os.readlink(f"/proc/{pid}/cwd") + "/"]
        places += Path(f"/proc/{pid}/cmdline").read_text(errors="replace").split("\0")[:2]
    except OSError:
        return False  # it has gone, or belongs to another user
    return any(place.startswith(below) for place in places)


def processes_below(directory):
    """Returns the running processes (psutil.Process) that lies_below() the directory."""
    return [process for process in existing(
        pid for pid in psutil.pids() if lies_below(directory, pid)) if running(process)]


def exit_on_signals():
    """From now on SIGINT, SIGTERM and SIGHUP raise SystemExit, which ends what was started.

    A SIGHUP that is ignored stays so: nohup is to outlast the terminal."""
    for ended_by in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        if ended_by != signal.SIGHUP or signal.getsignal(ended_by) != signal.SIG_IGN:
            signal.signal(ended_by, lambda number, _: sys.exit(128 + number))


def kill_all(find):
    """Kills the processes (psutil.Process) that find() returns, until there are none.

    Raises TimeoutError when one stays.
    """
    def ended():
        left = find()
        for process in left:
            with suppress(*GONE):
                process.kill()
        return not left

    wait_for("the end of all that was started", ended)


def end(process, seconds=5):
    """Ends a subprocess.Popen politely, then for certain."""
    if process.poll() is None:
        process.terminate()
        try:
            process.wait(seconds)
        except subprocess.TimeoutExpired:
            process.kill()
    process.wait()
