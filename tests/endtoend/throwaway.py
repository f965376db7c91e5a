"""Throw-away bundles, whose services write down in a journal what happens to them, in order."""

import shutil
from pathlib import Path

NGINX = """#!/bin/bash
if [ "$*" = "-s stop" ]; then
{stop}
    exit
fi
echo "nginx started $$" >>"{journal}"
{nginx}
"""

RPC = """#!/bin/bash
echo "rpc started $$" >>"{journal}"
{rpc}
"""

STAY = "exec sleep infinity"
NOTE_STOP = 'echo "nginx asked to stop" >>"{journal}"'

# Notes whether the services still run. A killed process may take its time to go.
NOTE_WHO_RUNS = """
    runs() {{
        local pid=$(grep "^$1 started" "{journal}" | tail -n1 | cut -d' ' -f3)
        [ -e /proc/$pid ] && ! grep -q '^State:.Z' /proc/$pid/status 2>/dev/null
    }}
    for _ in {{1..50}}; do runs rpc || break; sleep 0.1; done
    runs rpc && rpc=runs || rpc=ended
    runs nginx && nginx=runs || nginx=ended
    echo "nginx asked to stop: rpc $rpc, nginx $nginx" >>"{journal}"
"""


class Bundle:
    """An orvane.app in `directory` with a copy of the launcher.

    `nginx` and `rpc` are the lines of shell that the services consist of, once they have noted
    their start; None leaves the program out. `stop` are those of nginx's stop command.
    """

    def __init__(self, launcher, directory, nginx=STAY, rpc=STAY, stop=NOTE_STOP):
        self.journal = Path(directory) / "journal"
        self.path = Path(directory) / "orvane.app"
        self.program = self.path / "Contents/MacOS/orvane"
        self.nginx = self.path / "nginx/sbin/nginx"
        self.rpc = self.path / "rpcServer/MacOs/rpcServer"
        self.program.parent.mkdir(parents=True)
        shutil.copy(launcher, self.program)
        stop = stop.format(journal=self.journal)
        if nginx is not None:
            self._write(self.nginx, NGINX.format(journal=self.journal, nginx=nginx, stop=stop))
        if rpc is not None:
            self._write(self.rpc, RPC.format(journal=self.journal, rpc=rpc))

    @staticmethod
    def _write(program, script):
        program.parent.mkdir(parents=True)
        program.write_text(script)
        program.chmod(0o755)

    def lines(self):
        """The journal, a line each; a line is complete or not there."""
        return self.journal.read_text().splitlines() if self.journal.exists() else []

    def events(self):
        """The journal without process ids, in order."""
        return [line.rstrip(" 0123456789") for line in self.lines()]

    def pids(self, service):
        """The process ids of a service ("nginx", "rpc"), one for each of its starts."""
        return [int(line.split()[2]) for line in self.lines() if line.startswith(f"{service} sta")]

    def deployed(self, times=1):
        """Whether both services have started so often, at least."""
        return min(len(self.pids("nginx")), len(self.pids("rpc"))) >= times
