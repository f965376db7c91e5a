"""The launcher, or the floor in its place, on a screen of its own, driven and timed from outside.

Moments are nanoseconds of the monotonic clock, which the children read as well.
"""

import os
import select
import signal
import tempfile
import time
from contextlib import ExitStack, contextmanager, suppress
from pathlib import Path
from time import monotonic_ns as now

import psutil
from Xlib import X
from Xlib.ext import damage
from Xlib.protocol import event

from drive.bundle import Bundle
from drive.desktop import Desktop, Launcher
from drive.processes import PATIENCE, wait_for

LONGER_THAN_A_PAUSE = 0.25  # seconds; a reader pauses for 0.2 s


def milliseconds(nanoseconds):
    """Returns them as milliseconds."""
    return nanoseconds / 1e6


def threads(pid):
    """Returns the state of each thread of a process, and how often it went to sleep by itself."""
    found = {}
    for status in Path(f"/proc/{pid}/task").glob("*/status"):
        fields = dict(line.partition(":\t")[::2] for line in status.read_text().splitlines())
        found[status.parent.name] = fields["State"][0], int(fields["voluntary_ctxt_switches"])
    return found


class Screen(Desktop):
    """A desktop that tells when something happens on it."""

    def __init__(self):
        super().__init__()
        self.root.change_attributes(event_mask=X.SubstructureNotifyMask)
        self.display.damage_query_version()

    def forget(self):
        """Drops the events of what has happened so far."""
        self.display.sync()
        while self.display.pending_events():
            self.display.next_event()

    def when(self, what, wanted, seconds=PATIENCE):
        """Returns when the first event came for which wanted(event) is true. Raises TimeoutError:
        `what` did not happen."""
        deadline = time.monotonic() + seconds
        while (left := deadline - time.monotonic()) > 0:
            if not self.display.pending_events():
                select.select([self.display], [], [], left)
            while self.display.pending_events():
                if wanted(self.display.next_event()):
                    return now()
        raise TimeoutError(f"not within {seconds} s: {what}")

    def when_drawn(self):
        """Returns when the last change of those that come now was drawn. Raises TimeoutError."""
        def is_drawing(seen):
            return seen.type == self.display.extension_event.DamageNotify

        drawn = self.when("a change of the window", is_drawing)
        with suppress(TimeoutError):
            while True:
                drawn = self.when("another change", is_drawing, 0.1)
        return drawn


class Child:
    """The benchmarks' child where its program lies: takes its orders, and hears its reports."""

    def __init__(self, program):
        for ending in ("orders", "reports"):
            os.mkfifo(f"{program}.{ending}")
        # Open for both directions, so that neither side waits for the other to open it.
        self._orders = os.open(f"{program}.orders", os.O_RDWR)
        self._reports = os.open(f"{program}.reports", os.O_RDWR)
        self._heard = []

    def __enter__(self):
        return self

    def __exit__(self, *_):
        os.close(self._orders)
        os.close(self._reports)

    def order(self, what, number=0):
        """Tells it what to do."""
        os.write(self._orders, f"{what} {number}\n".encode())

    def report(self, what):
        """Waits for its next report of this kind. Returns when it was, and its process id; raises
        TimeoutError."""
        while True:
            if not self._heard:
                if not select.select([self._reports], [], [], PATIENCE)[0]:
                    raise TimeoutError(f"a child does not report: {what}")
                self._heard = os.read(self._reports, select.PIPE_BUF * 16).decode().splitlines()
            kind, stamp, pid = self._heard.pop(0).split()
            if kind == what:
                return int(stamp), int(pid)


class Services:
    """The two children of a bundle, in nginx's place and in the RPC server's."""

    def __init__(self, bundle, stack):
        self.bundle = bundle
        self.nginx, self.rpc = (stack.enter_context(Child(path))
                                for path in (bundle.nginx, bundle.rpc))

    def started(self):
        """Waits until both run. Returns when the later one's first instruction was, and the process
        ids; raises TimeoutError."""
        stamps, pids = zip(self.nginx.report("start"), self.rpc.report("start"))
        return max(stamps), pids

    def line(self, number, when_shown):
        """Has the RPC server's child write the number. Returns the milliseconds until it was shown,
        which when_shown() waits for."""
        self.rpc.order("line", number)
        shown = when_shown()
        return milliseconds(shown - self.rpc.report("line")[0])


@contextmanager
def staged(program, context):
    """A bundle with this program in the launcher's place, as its Services."""
    with ExitStack() as stack:
        directory = stack.enter_context(tempfile.TemporaryDirectory(prefix="orvane-bench-"))
        child = context.programs / "Child"
        yield Services(Bundle(directory, program, child, child), stack)


class Subject:
    """The launcher or its floor, in its window, where it is pressed with the mouse."""

    def __init__(self, services, screen, launcher):
        self.services, self.screen, self.launcher = services, screen, launcher
        self.pid = launcher.pid
        self._children = ()
        # The window manager's place, which the answer of a window goes to.
        screen.root.change_attributes(event_mask=X.SubstructureRedirectMask)
        self.settle()

    def settle(self):
        """Waits until it has had nothing to do for a while. Raises TimeoutError."""
        def quiet():
            before = threads(self.pid)
            time.sleep(LONGER_THAN_A_PAUSE)
            # On a busy machine a thread may have to wait until it runs.
            return threads(self.pid) == before and all(s == "S" for s, _ in before.values())

        wait_for("the window comes to rest", quiet)

    def end_services(self):
        """Ends both services, and waits until their last row is shown. Raises TimeoutError."""
        for child in (self.services.nginx, self.services.rpc):
            child.order("end")
        wait_for("the services end", lambda: not self.launcher.started())
        time.sleep(1)

    def memory(self):
        """Returns its memory, as psutil tells it: `rss` is resident, and of it `uss` private."""
        return psutil.Process(self.launcher.pid).memory_full_info()

    def wake_ups(self):
        """Returns how often its threads have gone to sleep by themselves, so will have woken up."""
        return sum(count for _, count in threads(self.pid).values())

    def _press(self, button):
        self.launcher.point_at(button)
        self.settle()
        before = now()
        self.screen.press()
        return before

    def deploy(self):
        """Returns the milliseconds from the press to the later child's first instruction."""
        before = self._press("deploy")
        last, self._children = self.services.started()
        self.screen.release()
        return milliseconds(last - before)

    def stop(self):
        """Returns the milliseconds from the press until the event loop answers again.

        The question must not be asked before the slot runs: the toolkit collects what the server
        sent and answers a question at once, but delivers a press afterwards. The first thing that
        the slot does is to kill the RPC server; so the question is asked when that one has ended,
        and waits in the queue while the stop command runs. Raises TimeoutError.
        """
        nginx, rpc = self._children
        ended = os.pidfd_open(rpc)
        before = self._press("stop")
        if not select.select([ended], [], [], PATIENCE)[0]:
            raise TimeoutError("the RPC server does not end")
        back = self._answers()
        os.close(ended)
        self.screen.release()
        with suppress(ProcessLookupError):
            os.kill(nginx, signal.SIGKILL)  # the stop command has left it alone
        return milliseconds(back - before)

    def _answers(self):
        """When the window has answered a window manager's question whether it is alive."""
        window = self.launcher.window
        ping, protocols = map(self.screen.display.intern_atom, ("_NET_WM_PING", "WM_PROTOCOLS"))
        window.send_event(event.ClientMessage(
            window=window, client_type=protocols,
            data=(32, [ping, X.CurrentTime, window.id, 0, 0])))
        self.screen.display.flush()
        return self.screen.when("an answer of the window", lambda seen: (
            seen.type & 0x7f == X.ClientMessage and seen.client_type == protocols
            and seen.data[1][0] == ping))

    def lines(self, count):
        """Returns the milliseconds from the child's write until the row is on the screen, for so
        many lines, each into an idle reader."""
        self.launcher.click("rpc")
        self.launcher.window.damage_create(damage.DamageReportRawRectangles)
        times = []
        for number in range(count):
            self.settle()
            self.screen.forget()
            times.append(self.services.line(number, self.screen.when_drawn))
        return times


@contextmanager
def in_window(context, program):
    """This program in the launcher's place, as a Subject."""
    with staged(program, context) as services, Screen() as screen, Launcher(
            screen, services.bundle.program, landmarks=context.landmarks) as launcher:
        yield Subject(services, screen, launcher)
