"""What people use instead of the launcher to start two programs, see their output and stop them:
process runners of the terminal, on the same two child programs.

A runner is started on a terminal of its own and stopped with Ctrl-C there, as its user does it."""

import os
import pty
import select
import shutil
import signal
import subprocess
import time
from dataclasses import dataclass

import psutil
from Xlib.ext import damage

from desktop import Desktop, Launcher
from figures import Series, take_turns
from stage import NGINX, RPC, Bundle
from window import PATIENCE, Watcher, memory, milliseconds, now, press, settle

SETTLED = 0.3  # seconds without output after which a runner has said all it has to say


@dataclass
class Run:
    """What one run showed; times in milliseconds, memory in MiB."""

    both_run: float
    line_shown: list
    resident: float
    stopped: float  # both children have ended, and the runner takes the next command
    left: int  # processes still there after the stop


class Terminal:
    """A process runner on a terminal, and what it shows there."""

    def __init__(self, command, directory):
        self.shown = b""
        self.pid, self.descriptor = pty.fork()
        if self.pid == 0:
            os.chdir(directory)
            os.execvpe(command[0], command, {**os.environ, "TERM": "dumb"})

    def read(self, seconds):
        """Whether something more was shown."""
        if not select.select([self.descriptor], [], [], seconds)[0]:
            return False
        try:
            self.shown += os.read(self.descriptor, 65536)
        except OSError:  # nobody has the terminal open any more
            return False
        return True

    def when_shown(self, text):
        """When the text was on the terminal."""
        deadline = time.monotonic() + PATIENCE
        while text not in self.shown:
            if time.monotonic() > deadline:
                raise TimeoutError(f"not shown: {text}; shown was: {self.shown[-500:]}")
            self.read(0.1)
        return now()

    def drain(self):
        while self.read(SETTLED):
            pass

    def interrupt(self):
        os.write(self.descriptor, b"\x03")

    def when_ended(self):
        """When the runner gave the terminal back."""
        ended = os.pidfd_open(self.pid)
        deadline = time.monotonic() + PATIENCE
        readable = [self.descriptor]
        while not select.select([ended], [], [], 0)[0]:
            if time.monotonic() > deadline:
                raise TimeoutError("the runner does not end")
            # It may wait until what it shows is read.
            if self.descriptor in select.select([ended, *readable], [], [], 1)[0]:
                readable = [self.descriptor] if self.read(0) else []
        at = now()
        os.close(ended)
        return at

    def end(self):
        os.kill(self.pid, signal.SIGKILL)
        os.waitpid(self.pid, 0)
        os.close(self.descriptor)


def line_times(bundle, count, shown):
    """`count` times from the RPC child's write to shown(number), which waits and says when."""
    times = []
    for number in range(1000, 1000 + count):
        time.sleep(0.25)
        bundle.rpc.order("line", number)
        seen = shown(number)
        stamp, _ = bundle.rpc.report("line")
        times.append(milliseconds(seen - stamp))
    return times


def resident(pid, children):
    """What the runner needs in all its processes, without the two children, in MiB."""
    tree = [pid] + [process.pid for process in psutil.Process(pid).children(recursive=True)]
    total = 0
    for process in set(tree) - set(children):
        try:
            total += memory(process)[0]
        except (OSError, KeyError):
            continue  # a zombie has no memory
    return total


class Children:
    """The two children of one run, to be seen ending."""

    def __init__(self, bundle):
        stamps = [child.report("start") for child in bundle.children]
        self.last = max(stamp for stamp, _ in stamps)
        self.pids = [pid for _, pid in stamps]
        self._descriptors = [os.pidfd_open(pid) for pid in self.pids]

    def when_ended(self):
        """When the later one ended."""
        for descriptor in self._descriptors:
            if not select.select([descriptor], [], [], PATIENCE)[0]:
                raise TimeoutError("a child does not end")
            os.close(descriptor)
        return now()


def run_runner(bundle, command, lines):
    bundle.forget()
    before = now()
    terminal = Terminal(command, bundle.root)
    try:
        children = Children(bundle)
        terminal.drain()
        shown = line_times(bundle, lines,
                           lambda number: terminal.when_shown(f"{number} ".encode()))
        size = resident(terminal.pid, children.pids)
        stop = now()
        terminal.interrupt()
        ended = max(children.when_ended(), terminal.when_ended())
    finally:
        terminal.end()
    return Run(milliseconds(children.last - before), shown, size, milliseconds(ended - stop),
               bundle.end_services())


class Drawings:
    """Hears of every change of the launcher's window on the screen."""

    def __init__(self, screen, window):
        self.watcher = Watcher(screen)
        self.display = self.watcher.display
        self.display.damage_query_version()
        self.event = self.display.extension_event.DamageNotify
        self.display.create_resource_object("window", window.id).damage_create(
            damage.DamageReportRawRectangles)
        self.display.sync()

    def last(self, _number):
        """When the last change was drawn that comes now."""
        drawn, _ = self.watcher.wait(self._is_drawing, "the window draws")
        while self.display.pending_events() or select.select([self.display], [], [], 0.1)[0]:
            while self.display.pending_events():
                if self._is_drawing(self.display.next_event()):
                    drawn = now()
        return drawn

    def _is_drawing(self, seen):
        return seen.type == self.event

    def close(self):
        self.display.close()


def run_launcher(context, bundle, lines):
    """The same with the launcher: its window, the deploy button, the list, the stop button."""
    bundle.forget()
    with Desktop() as screen, Watcher(screen) as watcher:
        launcher = Launcher(screen, bundle.executable, landmarks=context.landmarks)
        watcher.manage()
        try:
            launcher.point_at("deploy")
            settle(launcher.pid)
            before = press(screen)
            children = Children(bundle)
            screen.release()
            launcher.click("rpc")
            settle(launcher.pid)
            drawings = Drawings(screen, launcher.window)
            shown = line_times(bundle, lines, drawings.last)
            drawings.close()
            size = resident(launcher.pid, children.pids)
            launcher.point_at("stop")
            settle(launcher.pid)
            stop = press(screen)
            children.when_ended()
            ended = watcher.answer_to_ping(launcher.window)
            screen.release()
            settle(launcher.pid)
            left = bundle.end_services()
        finally:
            launcher.end()
    return Run(milliseconds(children.last - before), shown, size, milliseconds(ended - stop), left)


class Supervisor:
    """Debian's supervisor, in the foreground and with its programs' output on the terminal."""

    name = "supervisor"
    program = shutil.which("supervisord")

    def command(self, bundle):
        configuration = bundle.root / "supervisord.conf"
        configuration.write_text(
            f"[supervisord]\nnodaemon=true\npidfile={bundle.root}/supervisord.pid\n"
            f"logfile=/dev/null\nlogfile_maxbytes=0\nsilent=false\n" + "".join(
                f"[program:{name}]\ncommand={bundle.root / path}\nredirect_stderr=true\n"
                "stdout_logfile=/dev/fd/1\nstdout_logfile_maxbytes=0\n"
                for name, path in (("nginx", NGINX), ("rpc", RPC))))
        return [self.program, "-c", str(configuration)]

    def version(self):
        return said_by(self.program, "--version")


class Foreman:
    """Debian's ruby-foreman."""

    name = "foreman"
    program = shutil.which("foreman")

    def command(self, bundle):
        (bundle.root / "Procfile").write_text(
            f"nginx: {bundle.root / NGINX}\nrpc: {bundle.root / RPC}\n")
        return [self.program, "start", "-f", str(bundle.root / "Procfile")]

    def version(self):
        return said_by(self.program, "--version")


class Concurrently:
    """The npm package concurrently, in a prefix of the benchmarks' own."""

    name = "concurrently"

    def __init__(self, prefix):
        self.program = shutil.which("concurrently", path=prefix / "node_modules/.bin")

    def command(self, bundle):
        return [self.program, "--names", "nginx,rpc", str(bundle.root / NGINX),
                str(bundle.root / RPC)]

    def version(self):
        return said_by(self.program, "--version")


def said_by(*command):
    return subprocess.run(command, stdout=subprocess.PIPE, text=True, check=True).stdout.strip()


def describe(name, version, runs, left_workers):
    """One row of the comparison."""
    return {"name": name, "version": version,
            "both_run_ms": Series([run.both_run for run in runs]).median,
            "line_shown_ms": Series([shown for run in runs for shown in run.line_shown]).median,
            "resident_mib": Series([run.resident for run in runs]).median,
            "stopped_ms": Series([run.stopped for run in runs]).median,
            "left": max(run.left for run in runs), "left_workers": left_workers}


def compare(context, start):
    """A row for the launcher and for each runner that is installed. `start` is the launcher's time
    until its window, in ms: a user presses the button then."""
    count, lines = (1, 3) if context.quick else (5, 6)
    runners = [runner for runner in (Supervisor(), Foreman(), Concurrently(context.npm))
               if runner.program]
    done = context.progress.counted("process runners", count)
    with Bundle(context.programs, context.launcher) as bundle:
        ways = [lambda lines: run_launcher(context, bundle, lines)] + [
            lambda lines, runner=runner: run_runner(bundle, runner.command(bundle), lines)
            for runner in runners]
        results = take_turns(count, *(lambda way=way: way(lines) for way in ways), done=done)
        for child in bundle.children:
            open(f"{child.path}.worker", "w", encoding="ascii").close()
        left_workers = [way(0).left for way in ways]
    for run in results[0].samples:
        run.both_run += start
    names = [("Orvane Launcher", context.version)] + [
        (runner.name, runner.version()) for runner in runners]
    return [describe(*name, series.samples, left)
            for name, series, left in zip(names, results, left_workers)]
