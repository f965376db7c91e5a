"""A day of an open page: its visit, its channel and its calls, as fast as they are answered."""

import http.client
import json
import subprocess
from dataclasses import dataclass
from pathlib import Path

import psutil

from drive.bundle import SITE_PORT, Bundle
from drive.desktop import Desktop, Launcher, use
from drive.processes import wait_for

FILES = ("/", "/page.css", "/page.js")
VISITED = {"Sec-Fetch-Site": "none", "Sec-Fetch-Dest": "document"}
CALLED = {"Sec-Fetch-Site": "same-origin", "Sec-Fetch-Dest": "empty",
          "Origin": f"http://localhost:{SITE_PORT}", "Content-Type": "application/json"}
MOST_ROWS = 20  # of each list
MOST_MEMORY = 5 * 1024 * 1024  # bytes more than before
SERVICES = ("nginx", "rpcServer")


@dataclass
class Cost:
    """What the launcher has taken so far."""

    rows: "dict[str, int]"  # of each service's list
    memory: int  # bytes
    descriptors: int


class Page:
    """What the page asks for, over a connection that stays open as a browser's does."""

    def __init__(self):
        self._connection = http.client.HTTPConnection("localhost", SITE_PORT, timeout=10)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._connection.close()

    def _ask(self, method, path, body=None, headers=()):
        self._connection.request(method, path, body, headers)
        answer = self._connection.getresponse()
        text = answer.read()
        if answer.status != http.client.OK:
            raise RuntimeError(f"{method} {path} was answered with {answer.status}")
        return text

    def visit(self):
        """Loads the page and what belongs to it."""
        for path in FILES:
            self._ask("GET", path, headers=VISITED if path == "/" else {
                **VISITED, "Sec-Fetch-Site": "same-origin", "Sec-Fetch-Dest": "script"})

    def call(self, method, **params):
        """Returns the result."""
        body = json.dumps({"jsonrpc": "2.0", "id": 1, "method": method, "params": params})
        return json.loads(self._ask("POST", "/rpc", body, CALLED))["result"]


class Day:
    """The launcher at a desktop where its rows are counted."""

    def __init__(self, job):
        self.job = job
        self.bundle = Bundle.copy_of(job.build / "orvane.app", job.directory)
        self.counted = job.directory / "rows"
        self.launcher = None
        self.wrong = []

    def go(self):
        """Returns what went wrong."""
        with Desktop() as desktop:
            desktop.variables = {"LD_PRELOAD": str(self.job.build / "libCountRows.so"),
                                 "ORVANE_ROWS": str(self.counted)}
            with Launcher(desktop, self.bundle.program, cwd="/",
                          landmarks=self.job.landmarks) as self.launcher:
                try:
                    use(self.launcher, look=self.watch)
                except (RuntimeError, TimeoutError, subprocess.TimeoutExpired, OSError,
                        http.client.HTTPException) as why:
                    self.wrong.append(f"{why}\n{self.launcher.errors[-500:]}")
        return self.wrong

    def rows(self):
        """Returns how many rows the list of each service has."""
        found = dict.fromkeys(SERVICES, 0)
        for line in self.counted.read_text(encoding="utf-8").splitlines():
            number, _, program = line.partition(" ")
            found[Path(program).name] = int(number)
        return found

    def cost(self):
        """Returns what the launcher takes now."""
        process = psutil.Process(self.launcher.pid)
        return Cost(self.rows(), process.memory_info().rss, process.num_fds())

    def open_page(self, page):
        """Visits the page until the visit has its row, one a second at most, then opens a channel,
        whose row may come a second later. Returns the channel."""
        before = self.rows()

        def visited():
            page.visit()
            return self.rows()["nginx"] > before["nginx"]

        wait_for("a row of the visit", visited)
        channel = page.call("channel.open")["channel"]
        wait_for("a row of the channel", lambda: self.rows()["rpcServer"] > before["rpcServer"])
        return channel

    def watch(self):
        """A day between two visits, so that the rows of the day have come when it is over."""
        with Page() as page:
            channel = self.open_page(page)
            before, last = self.cost(), 0
            for _ in range(self.job.cycles):
                frames = page.call("channel.frames", channel=channel, after=last)["frames"]
                last = frames[-1]["number"] if frames else last
            self.open_page(page)
        self.judge(before, self.cost())

    def judge(self, before, after):
        """Notes what took too much, and prints what it took."""
        memory = after.memory - before.memory
        print(f"day: {self.job.cycles} calls; rows {after.rows}; memory "
              f"{before.memory // 1024} KiB before, {after.memory // 1024} KiB after; "
              f"descriptors {before.descriptors} and {after.descriptors}", flush=True)
        for service in SERVICES:
            rows = after.rows[service]
            if rows > MOST_ROWS:
                self.wrong.append(f"{rows} rows of {service}, at most {MOST_ROWS} expected")
            # The calls come faster than a page's: even a row a second would be few of them here.
            if rows != before.rows[service] + 1:
                self.wrong.append(f"{rows - before.rows[service] - 1} rows of {service} while the "
                                  "page was open, none expected")
        if memory > MOST_MEMORY:
            self.wrong.append(f"{memory} bytes more, at most {MOST_MEMORY} expected")
        if after.descriptors != before.descriptors:
            self.wrong.append(f"{after.descriptors} descriptors, {before.descriptors} expected")


def soak(job):
    """Returns what went wrong."""
    return Day(job).go()
