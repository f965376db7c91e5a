"""The rows that are measured on the whole program, in a real window with real presses."""

import os
import select
import signal
import subprocess
import tempfile
import time
from pathlib import Path

from Xlib import X, display
from Xlib.protocol import event

import desktop
from figures import Row, Series, take_turns
from stage import Bundle

PATIENCE = 30  # seconds
SILENT = [(os.POSIX_SPAWN_OPEN, fd, os.devnull, os.O_RDWR, 0) for fd in (0, 1, 2)]
MEBIBYTE = 1024.0


def now():
    return time.clock_gettime_ns(time.CLOCK_MONOTONIC)


def milliseconds(nanoseconds):
    return nanoseconds / 1e6


class Watcher:
    """A client of its own that hears what the X server tells about the windows of the screen."""

    def __init__(self, on):
        self.display = display.Display(on.name)
        self.root = self.display.screen().root
        self.root.change_attributes(event_mask=X.SubstructureNotifyMask)
        self.display.sync()
        self.ping = self.display.intern_atom("_NET_WM_PING")
        self.protocols = self.display.intern_atom("WM_PROTOCOLS")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.display.close()

    def forget(self):
        """Drops the events that are there, and those that the server still has for us."""
        self.display.sync()
        while self.display.pending_events():
            self.display.next_event()

    def wait(self, wanted, what):
        """The first event for which wanted(event) is true, and when it came."""
        deadline = time.monotonic() + PATIENCE
        while True:
            while self.display.pending_events():
                seen = self.display.next_event()
                if wanted(seen):
                    return now(), seen
            if not select.select([self.display], [], [], deadline - time.monotonic())[0]:
                raise TimeoutError(what)

    def manage(self):
        """Takes the window manager's place, which the answers to a ping go to. The windows must be
        mapped already: nobody maps them from here on."""
        self.root.change_attributes(
            event_mask=X.SubstructureNotifyMask | X.SubstructureRedirectMask)
        self.display.sync()

    def answer_to_ping(self, window):
        """Asks the window for a sign of life, which its event loop gives; returns when it came."""
        message = event.ClientMessage(window=window.id, client_type=self.protocols,
                                      data=(32, [self.ping, X.CurrentTime, window.id, 0, 0]))
        self.display.create_resource_object("window", window.id).send_event(message)
        self.display.flush()
        return self.wait(lambda seen: seen.type & 0x7f == X.ClientMessage
                         and seen.client_type == self.protocols
                         and seen.data[1][0] == self.ping, "the window does not answer")[0]


def memory(pid):
    """Resident and private memory of a process, in MiB."""
    kilobytes = {}
    for line in Path(f"/proc/{pid}/smaps_rollup").read_text(encoding="ascii").splitlines()[1:]:
        name, amount = line.split()[:2]
        kilobytes[name] = int(amount)
    private = kilobytes["Private_Clean:"] + kilobytes["Private_Dirty:"]
    return kilobytes["Rss:"] / MEBIBYTE, private / MEBIBYTE


def processor_time(pid):
    """The nanoseconds that all threads of a process have run."""
    return sum(int(Path(f"/proc/{pid}/task/{task}/schedstat").read_text("ascii").split()[0])
               for task in os.listdir(f"/proc/{pid}/task"))


def settle(pid):
    """Waits until the process has had nothing to do for a while."""
    def quiet():
        before = processor_time(pid)
        time.sleep(0.2)
        return processor_time(pid) == before

    desktop.wait_for("the process comes to rest", quiet)


class Started:
    """A window program that is started bare, without any preparation in the new process."""

    def __init__(self, watcher, on, program, scratch):
        environment = {**on.environment, "XDG_RUNTIME_DIR": scratch}
        watcher.forget()
        before = now()
        self.pid = os.posix_spawn(program, [str(program)], environment, file_actions=SILENT)
        mapped, self.event = watcher.wait(
            lambda seen: seen.type == X.MapNotify and not seen.override, f"a window of {program}")
        self.took = milliseconds(mapped - before)

    def end(self):
        os.kill(self.pid, signal.SIGKILL)
        os.waitpid(self.pid, 0)


def start_rows(context):
    """Exec to window mapped, and the memory after that."""
    count = 7 if context.quick else 40
    resting = 2 if context.quick else 5
    programs = context.launcher, context.programs / "EmptyWindow"
    with desktop.Desktop() as screen, Watcher(screen) as watcher, \
            tempfile.TemporaryDirectory() as scratch:
        def start(program):
            started = Started(watcher, screen, program, scratch)
            started.end()
            return started.took

        def rest(program):
            started = Started(watcher, screen, program, scratch)
            try:
                settle(started.pid)
                return memory(started.pid)
            finally:
                started.end()

        launcher, floor = take_turns(count, *(lambda p=p: start(p) for p in programs),
                                     done=context.progress.counted("start", count))
        memories = take_turns(resting, *(lambda p=p: rest(p) for p in programs),
                              done=context.progress.counted("memory at rest", resting))
    yield Row("start", "exec to window mapped; floor: an empty main window", "ms",
              launcher, floor).aim_at_most(1.10)
    for index, kind in enumerate(("resident", "private")):
        launcher, floor = (Series([pair[index] for pair in series.samples]) for series in memories)
        yield Row(f"memory at rest, {kind}", "after start; floor: an empty main window", "MiB",
                  launcher, floor).aim_at_most(1.10)


class Deployed:
    """One launcher in its window, deployed and stopped again and again with real presses."""

    def __init__(self, context, screen, bundle, watcher):
        self.bundle, self.watcher = bundle, watcher
        self.launcher = desktop.Launcher(screen, bundle.executable, landmarks=context.landmarks)
        self.screen = screen
        watcher.manage()

    def deploy(self):
        """The milliseconds from the press to the first instruction of the later child."""
        for child in self.bundle.children:
            child.forget()
        self.launcher.point_at("deploy")
        settle(self.launcher.pid)
        before = now()
        self.screen.press()
        stamps = [child.report("start") for child in self.bundle.children]
        self.screen.release()
        self.rpc = stamps[1][1]
        self.nginx = stamps[0][1]
        return milliseconds(max(stamp for stamp, _ in stamps) - before)

    def stop(self):
        """The milliseconds from the press until the event loop answers again.

        The question must not be asked before the slot runs: the toolkit collects what the server
        sent and answers a ping at once, but delivers a press afterwards. The first thing that the
        slot does is to kill the RPC server; so the question is asked when that one has ended, and
        waits in the queue while the stop command runs."""
        self.launcher.point_at("stop")
        settle(self.launcher.pid)
        self.watcher.forget()
        ended = os.pidfd_open(self.rpc)
        before = now()
        self.screen.press()
        if not select.select([ended], [], [], PATIENCE)[0]:
            raise TimeoutError("the RPC server does not end")
        back = self.watcher.answer_to_ping(self.launcher.window)
        os.close(ended)
        self.screen.release()
        return milliseconds(back - before)


class Bare:
    """The bare process of the launcher's size: two fork and exec calls, and the stop command."""

    def __init__(self, context, screen, bundle, private):
        self.bundle = bundle
        self.process = subprocess.Popen(
            [context.programs / "BareStart", bundle.root], env=screen.environment, text=True,
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        self.ask("grow 0")
        missing = private - memory(self.process.pid)[1]
        self.ask(f"grow {max(0, int(missing * 1024 * 1024))}")

    def ask(self, order):
        self.process.stdin.write(order + "\n")
        self.process.stdin.flush()
        return self.process.stdout.readline().split()

    def deploy(self):
        for child in self.bundle.children:
            child.forget()
        settle(self.process.pid)
        before = int(self.ask("start")[0])
        return milliseconds(max(child.report("start")[0] for child in self.bundle.children) - before)

    def stop(self):
        settle(self.process.pid)
        before, after, status = map(int, self.ask("stop"))
        if status != 0:
            raise RuntimeError(f"the stop command ended with {status}")
        self.ask("kill")
        return milliseconds(after - before)

    def end(self):
        self.process.stdin.close()
        self.process.stdout.close()
        self.process.kill()
        self.process.wait()


def deploy_rows(context):
    count = 10 if context.quick else 60
    with desktop.Desktop() as screen, Watcher(screen) as watcher, \
            Bundle(context.programs, context.launcher) as ours, \
            Bundle(context.programs, context.launcher) as theirs:
        launched = Deployed(context, screen, ours, watcher)
        settle(launched.launcher.pid)
        bare = Bare(context, screen, theirs, memory(launched.launcher.pid)[1])
        try:
            def cycle(one):
                return one.deploy(), one.stop()

            pairs = take_turns(count, lambda: cycle(launched), lambda: cycle(bare),
                               done=context.progress.counted("deploy and stop", count))
        finally:
            launched.launcher.end()
            bare.end()
    started, stopped = ([Series([pair[index] for pair in series.samples]) for series in pairs]
                        for index in (0, 1))
    yield Row("deploy", "left press to both children's first instruction; floor: two bare fork and "
              "exec calls from a process of the same size", "ms", *started).aim_at_most(1.25)
    yield Row("stop", "left press to control back; floor: the bare stop command", "ms",
              *stopped).aim_at_most(1.10)
