"""What people use in the launcher's place to start two programs, see what they write and stop them:
process runners of the terminal, on the same children, stopped with Ctrl-C as their user does it."""

import os
import shutil
import statistics
import subprocess
import time
from time import monotonic_ns as now

import pexpect
import psutil

from benchmarks.rows import MIB
from benchmarks.subject import LONGER_THAN_A_PAUSE, milliseconds, staged
from drive.processes import PATIENCE, runs, wait_for

COLUMNS = ("both children run", "a line is shown", "resident memory", "stopped")
UNITS = ("ms", "ms", "MiB", "ms")
RUNNERS = {  # the Debian package, and its command in the bundle's directory
    "supervisor": ["supervisord", "-c", "supervisord.conf"],
    "ruby-foreman": ["foreman", "start"],
    "parallel": ["parallel", "--will-cite", "--ungroup", ":::", "nginx/sbin/nginx",
                 "rpcServer/MacOs/rpcServer"],
}
SUPERVISOR = """[supervisord]
nodaemon=true
logfile=/dev/null
logfile_maxbytes=0
[program:nginx]
command=%(here)s/nginx/sbin/nginx
stdout_logfile=/dev/fd/1
stdout_logfile_maxbytes=0
[program:rpc]
command=%(here)s/rpcServer/MacOs/rpcServer
stdout_logfile=/dev/fd/1
stdout_logfile_maxbytes=0
"""
NUMBER = 10_000_000  # above all process ids, which runners show as well


def run(services, command, lines):
    """Returns what one run of this command took, in the order of COLUMNS. Raises TimeoutError, or
    pexpect.TIMEOUT."""
    directory = services.bundle.path
    before = now()
    with pexpect.spawn(command[0], command[1:], cwd=directory, timeout=PATIENCE,
                       env={**os.environ, "TERM": "dumb", "HOME": directory}) as terminal:
        last, pids = services.started()

        def when_shown(number):
            terminal.expect(rf"{number}\s")
            return now()

        shown = []
        for number in range(NUMBER, NUMBER + lines):
            time.sleep(LONGER_THAN_A_PAUSE)
            shown.append(services.line(number, lambda n=number: when_shown(n)))
        process = psutil.Process(terminal.pid)
        resident = sum(one.memory_info().rss for one in
                       (process, *process.children(recursive=True)) if one.pid not in pids)
        stop = now()
        terminal.sendintr()
        terminal.expect(pexpect.EOF)
        wait_for("the children end", lambda: not any(map(runs, pids)))
        return (milliseconds(last - before), statistics.median(shown), resident / MIB,
                milliseconds(now() - stop))


def version(package):
    """Returns the version of an installed Debian package."""
    return subprocess.run(["dpkg-query", "-W", "-f", "${Version}", package], text=True,
                          stdout=subprocess.PIPE, check=True).stdout


def compare(context, rows):
    """Returns for the launcher, whose `rows` tell, and for each runner that is here the medians in
    the order of COLUMNS."""
    of_launcher = {row.name: statistics.median(row.launcher) for row in rows}
    compared = {"Orvane Launcher": (
        of_launcher["start"] + of_launcher["deploy"], of_launcher["first line"],
        of_launcher["memory deployed"], of_launcher["stop, beyond the command"])}
    with staged(context.subjects[0], context) as services:
        (services.bundle.path / "supervisord.conf").write_text(SUPERVISOR)
        (services.bundle.path / "Procfile").write_text(
            "nginx: nginx/sbin/nginx\nrpc: rpcServer/MacOs/rpcServer\n")
        for package, command in RUNNERS.items():
            if shutil.which(command[0]):
                taken = [run(services, command, 3) for _ in range(1 if context.quick else 5)]
                name = f"{package} {version(package)}"
                compared[name] = tuple(map(statistics.median, zip(*taken)))
    return compared
