"""Who runs the tests of the services, what the machine lets them do, and what they share."""

import fcntl
import os
import pwd
import re
import subprocess
from contextlib import contextmanager
from pathlib import Path

import psutil
import pytest

from drive.bundle import SITE_PORT, port_open
from drive.processes import wait_for

ME = os.getuid()
USER = pwd.getpwnam("nobody").pw_uid if ME == 0 else ME  # an ordinary user
USERS = sorted({ME, USER})
JSON = {"Content-Type": "application/json"}
OPEN = '{"jsonrpc": "2.0", "id": 1, "method": "channel.open"}'


def has_ipv6():
    """Returns whether there is the address ::1."""
    try:
        return "0" * 31 + "1 " in Path("/proc/net/if_inet6").read_text(encoding="ascii")
    except FileNotFoundError:
        return False


def with_mount(mount):
    """Returns a command that makes one mount, seen by nobody else, and runs the words behind it."""
    return ["unshare", "--mount", *([] if ME == 0 else ["--map-root-user"]), "/bin/sh", "-c",
            f'mount {mount} && exec "$@"', "sh"]


def can_mount():
    """Returns whether such a command works here."""
    probe = [*with_mount("--bind /dev/null /usr/bin/env"), "/bin/true"]
    return subprocess.run(probe, check=False, stderr=subprocess.DEVNULL).returncode == 0


takes_root = pytest.mark.skipif(ME != 0, reason="takes root to give files away")
takes_ipv6 = pytest.mark.skipif(not has_ipv6(), reason="there is no IPv6 here")
takes_a_mount = pytest.mark.skipif(not can_mount(), reason="takes a mount of its own")


@contextmanager
def locked(path, how=fcntl.LOCK_EX):
    """Holds a lock of this file or directory; raises BlockingIOError if others hold one."""
    descriptor = os.open(path, os.O_RDONLY)
    try:
        fcntl.flock(descriptor, how | fcntl.LOCK_NB)
        yield
    finally:
        os.close(descriptor)


def is_locked(path):
    """Returns whether somebody holds a lock of it."""
    try:
        with locked(path):
            return False
    except BlockingIOError:
        return True


def waits_for_the_port(nginx):
    """Returns whether the start that is under way has found the port taken, and looks again."""
    return nginx.run_directory.exists() and any(
        process.name() == "perl" and str(SITE_PORT) in process.cmdline()
        for process in psutil.Process(nginx.child.pid).children(recursive=True))


def assert_one_line(output, *words):
    """It is one line, which has the words."""
    assert output.count("\n") == 1, f"one line expected, seen: {output!r}"
    missing = [word for word in words if word not in output]
    assert not missing, f"expected: {missing}, seen: {output!r}"


def rows(nginx):
    """Returns its rows without their times, once it has ended every connection: only then has it
    written all."""
    process, = nginx.left()
    wait_for("the end of nginx's connections", lambda: {
        connection.status for connection in process.connections()} == {psutil.CONN_LISTEN})
    lines = nginx.output.splitlines()
    assert [line for line in lines if not re.match("[0-9]{2}:[0-9]{2}:[0-9]{2} ", line)] == []
    return [line.partition(" ")[2] for line in lines]


def assert_nothing_left(nginx):
    """Its processes end, and the port is closed."""
    wait_for("no process is left", lambda: not nginx.left())
    wait_for("the port is closed", lambda: not port_open(SITE_PORT))
