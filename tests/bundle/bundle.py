"""Throw-away copies of the bundle's nginx, and what the launcher does with them."""

import http.client
import os
import pwd
import shutil
import subprocess
import tempfile
import unittest
from pathlib import Path

import psutil

from drive.bundle import port_open
from drive.processes import GONE, processes_below, wait_for

PORT = 4200
SHIPPED = Path(os.environ["ORVANE_NGINX"])
ME = os.getuid()
USER = pwd.getpwnam("nobody").pw_uid if ME == 0 else ME  # an ordinary user
PLAIN = {"PATH": "/usr/local/bin:/usr/bin:/bin"}  # an environment without a home


def has_ipv6():
    try:
        return "0" * 31 + "1 " in Path("/proc/net/if_inet6").read_text(encoding="ascii")
    except FileNotFoundError:
        return False


def get(path="/", host="localhost"):
    """Status and body of a request to the site."""
    connection = http.client.HTTPConnection(host, PORT, timeout=10)
    try:
        connection.request("GET", path)
        answer = connection.getresponse()
        return answer.status, answer.read().decode()
    finally:
        connection.close()


def with_mount(mount):
    """A command that makes one mount, seen by nobody else, and then runs the words behind it."""
    return ["unshare", "--mount", *([] if ME == 0 else ["--map-root-user"]), "/bin/sh", "-c",
            f'mount {mount} && exec "$@"', "sh"]


def can_mount():
    probe = [*with_mount("--bind /dev/null /usr/bin/env"), "/bin/true"]
    return subprocess.run(probe, check=False, stderr=subprocess.DEVNULL).returncode == 0


def listening(process):
    """The addresses of the site's port that this process listens on."""
    try:
        return {c.laddr.ip for c in process.connections()
                if c.status == psutil.CONN_LISTEN and c.laddr.port == PORT}
    except GONE:
        return set()


class Nginx:
    """The nginx of a bundle, started and stopped by one user with the launcher's commands."""

    def __init__(self, directory, user=ME, environment=None, writable=True):
        self.directory = directory
        self.user = user
        self.environment = PLAIN if environment is None else environment
        self.children = []
        shutil.copytree(SHIPPED, directory, ignore=shutil.ignore_patterns("run"))
        if writable:
            os.chown(directory, user, -1)
        else:
            directory.chmod(0o555)
        # A file that nginx may open again as its own user, as it may the launcher's pipe.
        self.output_file = directory.with_name(directory.name + ".output")
        self.output_file.touch()
        self.output_file.chmod(0o666)

    @property
    def child(self):
        return self.children[-1]

    @property
    def output(self):
        """What all children have written so far."""
        return self.output_file.read_text(encoding="utf-8")

    @property
    def pid_file(self):
        return self.directory / "run/nginx.pid"

    def _as_user(self):
        user = {"user": self.user, "group": self.user, "extra_groups": []} if ME == 0 else {}
        return {"env": self.environment, "stdin": subprocess.DEVNULL,
                "stderr": subprocess.STDOUT, **user}

    def _finish(self, command, cwd):
        with tempfile.NamedTemporaryFile(dir=self.directory.parent) as output:
            os.chmod(output.name, 0o666)
            done = subprocess.run(command, cwd=cwd, stdout=output, timeout=30, check=False,
                                  **self._as_user())
            return done.returncode, Path(output.name).read_text(encoding="utf-8")

    def run(self, *arguments, script="sbin/nginx", cwd=None, before=()):
        """Runs the script to its end; returns its exit status and its output."""
        return self._finish([*before, script, *arguments], cwd or self.directory)

    def start(self, stdout=None, command="cd {} && sbin/nginx"):
        """The launcher's start command; does not wait."""
        with open(self.output_file, "ab") as output:
            self.children.append(subprocess.Popen(
                ["/bin/bash", "-c", command.format(self.directory)], cwd="/",
                stdout=stdout or output, **self._as_user()))

    def deploy(self, **how):
        """Starts it and waits until it serves."""
        self.start(**how)
        wait_for("nginx serves", lambda: self.serves() or self.child.poll() is not None)
        if not self.serves():
            raise AssertionError("nginx has ended: " + self.output)

    def serves(self):
        return any(listening(process) for process in self.left())

    def stop_command(self):
        """The launcher's stop command; returns its exit status and its output."""
        return self._finish(
            ["/bin/sh", "-c", f"cd {self.directory} && sbin/nginx -s stop"], "/")

    def kill(self):
        self.child.kill()
        self.child.wait()

    def stop(self):
        """What the launcher does: the stop command, then SIGKILL whatever it answered."""
        answer = self.stop_command()
        self.kill()
        return answer

    def left(self):
        """The running processes of this bundle."""
        return processes_below(self.directory)

    def close(self):
        for child in self.children:
            child.kill()
            child.wait()
        for process in self.left():
            process.kill()
        self.directory.chmod(0o755)


class BundleTest(unittest.TestCase):
    """A test with a scratch directory that every user can look into."""

    def setUp(self):
        self.scratch = Path(tempfile.mkdtemp(prefix="orvane-bundle-"))
        self.scratch.chmod(0o755)
        self.addCleanup(shutil.rmtree, self.scratch)

    def directory(self, name, user=USER, mode=0o700):
        """A new directory of that user in the scratch directory."""
        made = self.scratch / name
        made.mkdir(parents=True)
        os.chown(made, user, -1)
        made.chmod(mode)
        return made

    def nginx(self, name="orvane.app", **how):
        made = Nginx(self.scratch / name / "nginx", **how)
        self.addCleanup(made.close)
        return made

    def deployed(self, name="orvane.app", **how):
        made = self.nginx(name, **how)
        made.deploy()
        return made

    def assert_nothing_left(self, nginx):
        wait_for("no process is left", lambda: not nginx.left())
        wait_for("the port is closed", lambda: not port_open(PORT))

    def assert_one_line(self, output, *words):
        self.assertEqual(output.count("\n"), 1, output)
        for word in words:
            self.assertIn(word, output)


__all__ = ["BundleTest", "ME", "Nginx", "PLAIN", "PORT", "USER", "can_mount", "get", "has_ipv6",
           "listening", "port_open", "wait_for", "with_mount"]
