"""The rows of a launcher that was just started: the time until its window, and its memory."""

import os
import signal
import tempfile

from Xlib import X

from desktop import Desktop
from figures import Row, Series, take_turns
from window import Watcher, memory, milliseconds, now, settle

SILENT = [(os.POSIX_SPAWN_OPEN, fd, os.devnull, os.O_RDWR, 0) for fd in (0, 1, 2)]


class Started:
    """A window program that is started bare, without any preparation in the new process."""

    def __init__(self, watcher, on, command, scratch):
        environment = {**on.environment, "XDG_RUNTIME_DIR": scratch}
        watcher.forget()
        before = now()
        self.pid = os.posix_spawn(command[0], command, environment, file_actions=SILENT)
        mapped, _ = watcher.wait(
            lambda seen: seen.type == X.MapNotify and not seen.override, f"window of {command[0]}")
        self.took = milliseconds(mapped - before)

    def end(self):
        os.kill(self.pid, signal.SIGKILL)
        os.waitpid(self.pid, 0)


def rows(context):
    """Exec to window mapped, and the memory after that."""
    count = 7 if context.quick else 40
    resting = 2 if context.quick else 5
    empty = context.programs / "EmptyWindow"
    commands = [context.launcher], [empty], [empty, "text"]
    with Desktop() as screen, Watcher(screen) as watcher, \
            tempfile.TemporaryDirectory() as scratch:
        def start(command):
            started = Started(watcher, screen, command, scratch)
            started.end()
            return started.took

        def rest(command):
            started = Started(watcher, screen, command, scratch)
            try:
                settle(started.pid)
                return memory(started.pid)
            finally:
                started.end()

        starts = take_turns(count, *(lambda c=c: start(c) for c in commands),
                            done=context.progress.counted("start", count))
        memories = take_turns(resting, *(lambda c=c: rest(c) for c in commands[:2]),
                              done=context.progress.counted("memory at rest", resting))
    yield Row("start", "exec to window mapped; floor: an empty main window", "ms",
              *starts[:2]).aim_at_most(1.10)
    yield Row("start, with text", "the same; floor: a main window with one line of text", "ms",
              starts[0], starts[2])
    for index, kind in enumerate(("resident", "private")):
        yield Row(f"memory at rest, {kind}", "after start; floor: an empty main window", "MiB",
                  *(Series([pair[index] for pair in series.samples]) for series in memories)
                  ).aim_at_most(1.10)
