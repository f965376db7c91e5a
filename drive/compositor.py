"""A Wayland compositor without a screen, what its screen shows, and the mouse in front of it."""

import json
import os
import pwd
import socket
import struct
import subprocess
import tempfile
import time
from io import BytesIO
from pathlib import Path

from PIL import Image

from drive.desktop import NO_BUS, WINDOW_TITLE
from drive.processes import end, wait_for

WIDTH, HEIGHT = 1024, 768
# Windows keep their own size and have no frame, so that a picture of one is the launcher's alone.
CONFIGURATION = f"""
xwayland disable
output HEADLESS-1 resolution {WIDTH}x{HEIGHT} position 0 0
default_border none
default_floating_border none
for_window [title=".*"] floating enable
"""
LEFT_BUTTON = 0x110  # BTN_LEFT of linux/input-event-codes.h


class Compositor:
    """A compositor (sway) that is alone on the machine: no X server is there.

    It has the operations of drive.desktop.Desktop. Raises RuntimeError or TimeoutError when it does
    not start.
    """

    def __init__(self):
        self._scratch = tempfile.TemporaryDirectory(prefix="orvane-wayland-")
        self.runtime = Path(self._scratch.name)
        configuration = self.runtime / "configuration"
        configuration.write_text(CONFIGURATION)
        self._control = self.runtime / "control"
        command = ["sway", "--config", configuration]
        if os.geteuid() == 0:  # as which it does not run
            nobody = pwd.getpwnam("nobody")
            os.chown(self.runtime, nobody.pw_uid, nobody.pw_gid)
            command = ["setpriv", f"--reuid={nobody.pw_uid}", f"--regid={nobody.pw_gid}",
                       "--clear-groups", *command]
        self._server = subprocess.Popen(
            command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL, start_new_session=True,
            env={**self.environment, "SWAYSOCK": str(self._control), "WLR_BACKENDS": "headless",
                 "WLR_RENDERER": "pixman", "WLR_LIBINPUT_NO_DEVICES": "1"})
        try:
            wait_for("the compositor", self._control_or_exit)
            self._mouse = _Mouse(self.runtime / self.environment["WAYLAND_DISPLAY"])
        except BaseException:
            self._end()
            raise

    def _control_or_exit(self):
        if self._server.poll() is not None:
            raise RuntimeError(f"sway ended at once, status {self._server.returncode}")
        return self._control.exists()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def _end(self):
        end(self._server)
        self._scratch.cleanup()

    def close(self):
        """Ends the compositor."""
        self._mouse.close()
        self._end()

    @property
    def environment(self):
        """The environment variables of a program that is to show itself here."""
        others = {name: value for name, value in os.environ.items()
                  if name not in ("DISPLAY", "QT_QPA_PLATFORM", "SWAYSOCK")}
        return {**others, **NO_BUS, "XDG_RUNTIME_DIR": str(self.runtime),
                "WAYLAND_DISPLAY": "wayland-1", "XDG_SESSION_TYPE": "wayland"}

    def _ask(self, *words):
        return json.loads(subprocess.run(
            ["swaymsg", "--socket", self._control, "--raw", *words], check=True,
            stdout=subprocess.PIPE).stdout)

    def _windows(self):
        """Yields every node of the compositor's tree."""
        waiting = [self._ask("--type", "get_tree")]
        while waiting:
            node = waiting.pop()
            yield node
            waiting += node["nodes"] + node["floating_nodes"]

    def find_window(self, pid):
        """Returns the launcher's window on the screen, or None."""
        return next((node["id"] for node in self._windows() if node.get("pid") == pid
                     and node["visible"] and node["name"] == WINDOW_TITLE), None)

    def box(self, window):
        """Returns where the window is: left, top, width, height."""
        place = next(node["rect"] for node in self._windows() if node["id"] == window)
        return place["x"], place["y"], place["width"], place["height"]

    def close_window(self, window):
        """Closes the window as its frame's button would."""
        self._ask(f"[con_id={window}] kill")

    def move(self, x, y):
        """Puts the mouse pointer there."""
        self._mouse.move(x, y)

    def press(self):
        """Presses the left button of the mouse, where it points."""
        self._mouse.button(pressed=True)

    def release(self):
        """Releases it."""
        self._mouse.button(pressed=False)

    def picture(self, box=None):
        """Returns what the screen shows (left, top, right, bottom), as a PIL image."""
        seen = subprocess.run(["grim", "-"], check=True, env=self.environment,
                              stdout=subprocess.PIPE).stdout
        return Image.open(BytesIO(seen)).convert("RGB").crop(box)


class _Mouse:
    """A pointing device of the compositor's, by the protocol zwlr_virtual_pointer_v1.

    A message is the number of an object, the number of its operation, its length, its arguments.
    """

    DISPLAY, REGISTRY, MANAGER, POINTER = range(1, 5)  # the objects, numbered by the client
    MANAGER_NAME = b"zwlr_virtual_pointer_manager_v1"

    def __init__(self, path):
        self._socket = socket.socket(socket.AF_UNIX)
        self._socket.connect(str(path))
        self._answers = self._socket.makefile("rb")
        self._send(self.DISPLAY, 1, struct.pack("=I", self.REGISTRY))  # get_registry
        name = self._number_of_the_manager()
        self._send(self.REGISTRY, 0, struct.pack("=I", name) + self._text(self.MANAGER_NAME)
                   + struct.pack("=II", 1, self.MANAGER))  # bind its first version
        self._send(self.MANAGER, 0, struct.pack("=II", 0, self.POINTER))  # for any seat

    @staticmethod
    def _text(text):
        text += b"\0"
        return struct.pack("=I", len(text)) + text.ljust((len(text) + 3) // 4 * 4, b"\0")

    def _send(self, number, operation, arguments=b""):
        self._socket.sendall(
            struct.pack("=IHH", number, operation, 8 + len(arguments)) + arguments)

    def _number_of_the_manager(self):
        """Reads the registry's list up to it."""
        while True:
            _, _, length = struct.unpack("=IHH", self._answers.read(8))
            arguments = self._answers.read(length - 8)
            if self._text(self.MANAGER_NAME) in arguments:
                return struct.unpack_from("=I", arguments)[0]

    def move(self, x, y):
        """Puts the pointer there."""
        self._happens(1, x, y, WIDTH, HEIGHT)

    def button(self, pressed):
        """Presses the left button, or releases it."""
        self._happens(2, LEFT_BUTTON, pressed)

    def _happens(self, operation, *arguments):
        now = time.monotonic_ns() // 1_000_000 % 2 ** 32
        self._send(self.POINTER, operation, struct.pack(f"={len(arguments) + 1}I", now, *arguments))
        self._send(self.POINTER, 4)  # frame: it is told as one event

    def close(self):
        """Takes the device away."""
        self._answers.close()
        self._socket.close()
