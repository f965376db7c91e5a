"""A virtual X server, the launcher in its real window there, and real clicks."""

import json
import os
import resource
import signal
import subprocess
import tempfile
from pathlib import Path

import psutil
from PIL import ImageGrab
from Xlib import X, Xatom, display, error
from Xlib.ext import xtest
from Xlib.protocol import event

from drive.bundle import RPC_PORT, SITE, SITE_PORT, port_open, site_answers, wait_for_closed_ports
from drive.processes import (PATIENCE, adopt_orphans, descendants, end, existing, kill_all,
                             lies_below, running, session, wait_for)

FIRST_DISPLAY = 100  # far above the numbers that real desktops take
WINDOW_TITLE = "MainWindow"
# Where dbus-x11 is installed, a program would start a bus of its own, which stays.
NO_BUS = {"DBUS_SESSION_BUS_ADDRESS": "disabled:"}
TABS = ("directions", "rpc", "nginx")


class Desktop:
    """A virtual X server, with the mouse of whoever sits in front of it.

    Raises RuntimeError when none starts.
    """

    def __init__(self, width=1024, height=768):
        self.variables = {}  # further ones for the environment of the programs
        self.server, self.name = self._start_server(f"{width}x{height}x24")
        try:
            self.display = display.Display(self.name)
        except BaseException:
            end(self.server)
            raise
        self.root = self.display.screen().root

    @staticmethod
    def _start_server(screen):
        # Reachable only through its abstract socket, so that servers in different network
        # namespaces do not meet in the file system. Xlib prefers a socket file, if there is one.
        for number in range(FIRST_DISPLAY, FIRST_DISPLAY + 900):
            if os.path.exists(f"/tmp/.X11-unix/X{number}"):
                continue
            ready, ready_end = os.pipe()
            with open(ready, encoding="ascii") as answer:
                server = subprocess.Popen(
                    ["Xvfb", f":{number}", "-screen", "0", screen, "-dpi", "96",
                     "-displayfd", str(ready_end), "-noreset",
                     "-nolisten", "tcp", "-nolisten", "unix"],
                    pass_fds=[ready_end], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                    stderr=subprocess.DEVNULL, start_new_session=True)
                os.close(ready_end)
                try:
                    if answer.readline():
                        return server, f":{number}"
                except BaseException:
                    end(server)
                    raise
            end(server)  # the number was taken
        raise RuntimeError("Xvfb does not start")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        """Ends the X server."""
        self.display.close()
        end(self.server)

    @property
    def environment(self):
        """The environment variables of a program that is to show itself here."""
        return {**os.environ, **NO_BUS, "DISPLAY": self.name, "QT_QPA_PLATFORM": "xcb",
                **self.variables}

    def move(self, x, y):
        """Puts the mouse pointer there."""
        xtest.fake_input(self.display, X.MotionNotify, x=x, y=y)
        self.display.sync()

    def press(self):
        """Presses the left button of the mouse, where it points."""
        xtest.fake_input(self.display, X.ButtonPress, 1)
        self.display.sync()

    def release(self):
        """Releases it."""
        xtest.fake_input(self.display, X.ButtonRelease, 1)
        self.display.sync()

    def picture(self, box=None):
        """Returns what the screen shows (left, top, right, bottom), as a PIL image."""
        return ImageGrab.grab(bbox=box, xdisplay=self.name)

    def find_window(self, pid):
        """Returns the launcher's window on the screen, or None."""
        owner = self.display.intern_atom("_NET_WM_PID")
        waiting = [self.root]
        while waiting:
            window = waiting.pop()
            try:
                pids = window.get_full_property(owner, Xatom.CARDINAL)
                if (pids and pids.value[0] == pid and window.get_wm_name() == WINDOW_TITLE
                        and window.get_attributes().map_state == X.IsViewable):
                    return window
                waiting += window.query_tree().children
            except (error.BadWindow, error.BadDrawable):
                continue  # it went away meanwhile
        return None

    def box(self, window):
        """Returns where the window is: left, top, width, height."""
        place, size = window.translate_coords(self.root, 0, 0), window.get_geometry()
        return -place.x, -place.y, size.width, size.height

    def picture_of(self, window):
        """Returns a window as the screen shows it, as a PIL image."""
        left, top, width, height = self.box(window)
        return self.picture((left, top, left + width, top + height))

    def close_window(self, window):
        """Closes the window as its frame's button would."""
        atom = self.display.intern_atom
        message = event.ClientMessage(window=window, client_type=atom("WM_PROTOCOLS"),
                                      data=(32, [atom("WM_DELETE_WINDOW"), X.CurrentTime, 0, 0, 0]))
        window.send_event(message)
        self.display.sync()


class Launcher:
    """The launcher in its window on a Desktop or a drive.compositor.Compositor. `options` are its
    own, for the toolkit; `landmarks` is the program that tells where its widgets lie, beside the
    bundle if it is not given; `prepare` is called in the process that becomes the launcher.

    Its standard output and error go into files (`output`, `errors`). Raises RuntimeError when it
    ends at once or has another size, TimeoutError when no window comes, and what `landmarks`
    raises: subprocess.CalledProcessError, subprocess.TimeoutExpired.
    """

    def __init__(self, desktop, program, options=(), cwd=None, landmarks=None, prepare=None):
        self.desktop = desktop
        self.program = os.path.abspath(program)
        adopt_orphans()
        self._scratch = tempfile.TemporaryDirectory(prefix="orvane-run-")
        scratch = Path(self._scratch.name)
        self._output, self._errors = scratch / "output", scratch / "errors"
        self.environment = {"XDG_RUNTIME_DIR": str(scratch), **desktop.environment}
        self.landmarks = self._find_landmarks(landmarks, options)
        with open(self._output, "wb") as output, open(self._errors, "wb") as errors:
            self.process = subprocess.Popen(
                [self.program, *options], cwd=cwd, env=self.environment, stdout=output,
                stderr=errors, stdin=subprocess.DEVNULL, start_new_session=True,
                preexec_fn=lambda: self._as_from_a_menu(prepare))
        try:
            self.window = wait_for("the launcher's window", self._window_or_exit)
            self._check_size()
        except BaseException:
            self.end()
            raise

    @staticmethod
    def _as_from_a_menu(prepare):
        resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
        for number in (signal.SIGINT, signal.SIGHUP):  # which nohup, or a shell, may ignore
            signal.signal(number, signal.SIG_DFL)
        if prepare:
            prepare()

    def _find_landmarks(self, program, options):
        program = program or Path(self.program).parents[3] / "landmarks"
        found = subprocess.run([program, *options], env=self.environment, check=True,
                               stdout=subprocess.PIPE, timeout=PATIENCE)
        return json.loads(found.stdout)

    def _window_or_exit(self):
        if self.process.poll() is not None:
            raise RuntimeError(f"the launcher ended at once, status {self.process.returncode}: "
                               f"{self.errors}")
        return self.desktop.find_window(self.process.pid)

    def _check_size(self):
        _, _, width, height = self.desktop.box(self.window)
        if [width, height] != self.landmarks["window"]:
            raise RuntimeError(f"the window is {width} by {height}, its landmarks are those of "
                               f"{self.landmarks['window']}")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.end()

    @property
    def pid(self):
        """Its process id."""
        return self.process.pid

    @property
    def output(self):
        """What it has written to its standard output."""
        return self._output.read_text(errors="replace")

    @property
    def errors(self):
        """What it has written to its standard error."""
        return self._errors.read_text(errors="replace")

    @property
    def bundle(self):
        """The directory that ends in orvane.app, or the program's own directory."""
        parents = Path(self.program).parents
        return next((p for p in parents if p.name == "orvane.app"), parents[0])

    def point_at(self, landmark):
        """Puts the mouse pointer in the middle of a widget."""
        left, top, _, _ = self.desktop.box(self.window)
        x, y = self.landmarks[landmark]
        self.desktop.move(left + x, top + y)

    def click(self, landmark):
        """Presses the left button of the mouse there and releases it."""
        self.point_at(landmark)
        self.desktop.press()
        self.desktop.release()

    def picture(self, landmark=None):
        """Returns the window as the screen shows it, or one of its rectangular landmarks."""
        left, top, _, _ = self.desktop.box(self.window)
        x, y, width, height = self.landmarks[landmark] if landmark else (
            0, 0, *self.landmarks["window"])
        return self.desktop.picture((left + x, top + y, left + x + width, top + y + height))

    def close(self):
        """Closes the window as its frame's button would."""
        self.desktop.close_window(self.window)

    def kill(self):
        """Kills the launcher alone."""
        self.process.kill()
        self.process.wait()

    def wait(self, seconds=PATIENCE):
        """Waits for its end. Returns its exit status, or the signal that ended it as a negative
        number; raises subprocess.TimeoutExpired."""
        return self.process.wait(seconds)

    def started(self):
        """Returns the running processes (psutil.Process) that it has started, and theirs."""
        # A daemon leaves the session; it stays a descendant of this process and in the bundle.
        daemons = [pid for pid in descendants(os.getpid()) if pid != self.pid]
        others = [pid for pid in psutil.pids() if pid != self.pid and session(pid) == self.pid]
        found = {*others, *(pid for pid in daemons if lies_below(self.bundle, pid))}
        return [process for process in existing(found) if running(process)]

    def end(self):
        """Ends the launcher and all that it started, whatever state they are in.

        Raises TimeoutError when something stays.
        """
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait()
        try:
            kill_all(self.started)
        finally:
            self._scratch.cleanup()


def use(launcher, look=lambda: None, step=lambda name: None):
    """One session of a user: deploys, calls look(), stops and closes the window.

    Calls step() before each step, with its name. Raises RuntimeError, TimeoutError or
    subprocess.TimeoutExpired when something does not happen as it should.
    """
    step("click on deploy, and wait until the services answer")
    if port_open(SITE_PORT) or port_open(RPC_PORT):
        raise RuntimeError("a port of the services is taken by another program")
    launcher.click("deploy")
    wait_for(f"an answer from {SITE}", site_answers)
    wait_for("the RPC server", lambda: port_open(RPC_PORT))
    if not launcher.started():
        raise RuntimeError("the services are no children of the launcher")
    look()
    step("click on stop, and wait until the services have ended")
    launcher.click("stop")
    wait_for("the end of the services", lambda: not launcher.started())
    wait_for_closed_ports()
    step("close the window")
    launcher.close()
    if status := launcher.wait():
        raise RuntimeError(f"the launcher's exit status is {status}")
    if left := launcher.started():
        raise RuntimeError(f"left running: {left}")
