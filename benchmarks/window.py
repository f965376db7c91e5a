"""What the rows about the whole program share: the clock, the X server's events, /proc."""

import os
import select
import time
from pathlib import Path

from Xlib import X, display
from Xlib.ext import xtest
from Xlib.protocol import event

from desktop import wait_for

PATIENCE = 30  # seconds
KIBIBYTES_OF_MEBIBYTE = 1024


def now():
    return time.clock_gettime_ns(time.CLOCK_MONOTONIC)


def milliseconds(nanoseconds):
    return nanoseconds / 1e6


def press(screen):
    """Presses the left button where the pointer is. Returns when the press went out."""
    xtest.fake_input(screen.display, X.ButtonPress, 1)  # waits in the client's own queue
    at = now()
    screen.display.flush()
    return at


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
            if not select.select([self.display], [], [], max(0, deadline - time.monotonic()))[0]:
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
    return kilobytes["Rss:"] / KIBIBYTES_OF_MEBIBYTE, private / KIBIBYTES_OF_MEBIBYTE


def processor_time(pid):
    """The nanoseconds that all threads of a process have run."""
    return sum(int(Path(f"/proc/{pid}/task/{task}/schedstat").read_text("ascii").split()[0])
               for task in os.listdir(f"/proc/{pid}/task"))


def waiting(pid):
    """Whether no thread of the process runs or wants to: on a busy machine it may have to wait."""
    return all(Path(f"/proc/{pid}/task/{task}/stat").read_text("ascii").rsplit(")")[1].split()[0]
               not in "RD" for task in os.listdir(f"/proc/{pid}/task"))


def settle(pid):
    """Waits until the process has had nothing to do for a while."""
    def quiet():
        before = processor_time(pid)
        time.sleep(0.2)
        return waiting(pid) and processor_time(pid) == before

    wait_for("the process comes to rest", quiet)
