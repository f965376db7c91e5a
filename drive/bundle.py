"""Stages bundles, and talks with the services in them.

    Bundle.copy_of(built, directory)   the bundle that was built, with its real services
    ThrowAway(directory, launcher)     scripts as services, which write down what happens to them
    Nginx(directory, shipped)          the shipped nginx alone, as one user starts and stops it
"""

import http.client
import os
import shlex
import shutil
import socket
import subprocess
import tempfile
from pathlib import Path
from typing import NamedTuple

import psutil

from drive.processes import GONE, kill_all, processes_below, wait_for

SITE_PORT = 4200
RPC_PORT = 4201
SITE = f"http://localhost:{SITE_PORT}/"


def port_open(port, host="127.0.0.1"):
    """Returns whether somebody listens there."""
    with socket.socket() as probe:
        return probe.connect_ex((host, port)) == 0


def wait_for_closed_ports():
    """Waits until nobody listens on the services' ports: a zombie may keep one for a moment."""
    for port in (SITE_PORT, RPC_PORT):
        wait_for(f"a closed port {port}", lambda port=port: not port_open(port))


def ask(path="/", body=None, method=None, port=SITE_PORT, host="localhost", headers=None):
    """Returns the status and the text of the answer: to a GET, or with a body to a POST.

    Raises OSError or http.client.HTTPException when there is none.
    """
    connection = http.client.HTTPConnection(host, port, timeout=10)
    try:
        connection.request(method or ("GET" if body is None else "POST"), path, body, headers or {})
        answer = connection.getresponse()
        return answer.status, answer.read().decode()
    finally:
        connection.close()


def site_answers():
    """Returns whether the site's first page is served."""
    try:
        return ask()[0] == http.client.OK
    except (OSError, http.client.HTTPException):
        return False


def place(program, target):
    """Copies a program to this path, or writes a script there; does nothing with None."""
    if program is None:
        return
    target.parent.mkdir(parents=True)
    if isinstance(program, str):
        target.write_text(program)
        target.chmod(0o755)
    else:
        shutil.copy2(program, target)


class Bundle:
    """An orvane.app below `directory`.

    `launcher`, `nginx` and `rpc` are programs to copy, or as a string the script that stands there;
    `nginx` may be a whole directory, and goes without what nginx wrote in it. None leaves one out.
    """

    def __init__(self, directory, launcher=None, nginx=None, rpc=None):
        self.path = Path(directory) / "orvane.app"
        name = Path(launcher).name if launcher else "orvane"
        self.program = self.path / "Contents/MacOS" / name
        self.nginx = self.path / "nginx/sbin/nginx"
        self.rpc = self.path / "rpcServer/MacOs/rpcServer"
        place(launcher, self.program)
        if isinstance(nginx, Path) and nginx.is_dir():
            shutil.copytree(nginx, self.path / "nginx", ignore=shutil.ignore_patterns("run"))
        else:
            place(nginx, self.nginx)
        place(rpc, self.rpc)

    @classmethod
    def copy_of(cls, built, directory):
        """Returns a copy of the bundle at `built` with its launcher and its real services."""
        return cls(directory, built / "Contents/MacOS/orvane", built / "nginx",
                   built / "rpcServer/MacOs/rpcServer")


STAY = "exec sleep infinity"
NOTE_STOP = 'echo "nginx asked to stop" >>"$journal"'


class ThrowAway(Bundle):
    """A bundle whose services write down in a journal what happens to them, in order.

    `nginx` and `rpc` are the lines of shell that the services consist of, once they have noted
    their start; None leaves the program out. `stop` are those of nginx's stop command. In all of
    them $journal is the journal's path.
    """

    def __init__(self, directory, launcher, nginx=STAY, rpc=STAY, stop=NOTE_STOP):
        self.journal = Path(directory) / "journal"
        begin = f"#!/bin/bash\njournal={shlex.quote(str(self.journal))}\n"
        on_stop = f'if [ "$*" = "-s stop" ]; then\n{stop}\nexit\nfi\n'
        before_nginx = begin + on_stop + 'echo "nginx started $$" >>"$journal"\n'
        before_rpc = begin + 'echo "rpc started $$" >>"$journal"\n'
        super().__init__(directory, launcher,
                         nginx=None if nginx is None else before_nginx + nginx,
                         rpc=None if rpc is None else before_rpc + rpc)

    def lines(self):
        """Returns the journal, a line each; a line is complete or not there."""
        return self.journal.read_text().splitlines() if self.journal.exists() else []

    def events(self):
        """Returns the journal without process ids, in order."""
        return [line.rstrip(" 0123456789") for line in self.lines()]

    def pids(self, service):
        """Returns the process ids of a service ("nginx", "rpc"), one for each of its starts."""
        return [int(line.split()[2]) for line in self.lines() if line.startswith(f"{service} sta")]

    def deployed(self, times=1):
        """Returns whether both services have started so often, at least."""
        return min(len(self.pids("nginx")), len(self.pids("rpc"))) >= times


class Ended(NamedTuple):
    """How a command ended."""

    status: int
    output: str


class Nginx:
    """The nginx of a bundle, started and stopped by one user with the launcher's commands.

    `shipped` is the directory that becomes its own. It is the user's to write in unless `writable`
    is false. Another user than this one takes root, and a `directory` that it may look into.
    """

    START = "cd {} && sbin/nginx"
    PLAIN = {"PATH": "/usr/local/bin:/usr/bin:/bin"}  # an environment without a home

    def __init__(self, directory, shipped, user=None, environment=None, writable=True):
        self.bundle = Bundle(directory, nginx=shipped)
        self.directory = self.bundle.path / "nginx"
        self.user = os.getuid() if user is None else user
        self.environment = self.PLAIN if environment is None else environment
        self.children = []
        if writable:
            os.chown(self.directory, self.user, -1)
        else:
            self.directory.chmod(0o555)
        # A file that nginx may open again as its own user, as it may the launcher's pipe.
        self.output_file = self.bundle.path / "output"
        self.output_file.touch()
        self.output_file.chmod(0o666)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    @property
    def child(self):
        """The subprocess.Popen of the last start."""
        return self.children[-1]

    @property
    def output(self):
        """What all children have written so far."""
        return self.output_file.read_text(encoding="utf-8")

    @property
    def run_directory(self):
        """Where it writes, when its user may write in its own directory."""
        return self.directory / "run"

    @property
    def serving_file(self):
        """What is locked as long as it runs, and says which process it is."""
        return self.run_directory / "serving"

    def _as_user(self):
        user = {} if os.getuid() else {"user": self.user, "group": self.user, "extra_groups": []}
        return {"env": self.environment, "stdin": subprocess.DEVNULL,
                "stderr": subprocess.STDOUT, **user}

    def run(self, *arguments, script="sbin/nginx", cwd=None, before=()):
        """Runs the script to its end. Returns how it Ended."""
        with tempfile.NamedTemporaryFile(dir=self.bundle.path) as output:
            os.chmod(output.name, 0o666)
            done = subprocess.run([*before, script, *arguments], cwd=cwd or self.directory,
                                  stdout=output, timeout=30, check=False, **self._as_user())
            return Ended(done.returncode, Path(output.name).read_text(encoding="utf-8"))

    def _popen(self, words, stdout=None):
        with open(self.output_file, "ab") as output:
            self.children.append(subprocess.Popen(
                words, cwd="/", stdout=stdout or output, **self._as_user()))
        return self.child

    def start(self, stdout=None, command=START):
        """Runs the launcher's start command, with this process as the launcher; does not wait."""
        self._popen(["/bin/bash", "-c", command.format(self.directory)], stdout)

    def start_elsewhere(self, command=START):
        """Runs the start command as another launcher. Returns the subprocess.Popen of that.

        A shell takes the place of that launcher, since nginx goes by the process that started its
        own shell. It gets the command as its $1, where no quotes in it can end others.
        """
        other_launcher = '/bin/bash -c "$1" & exec sleep infinity'
        return self._popen(["/bin/sh", "-c", other_launcher, "other-launcher",
                            command.format(self.directory)])

    def deploy(self, **how):
        """Starts it and waits until it serves. Raises ChildProcessError if it ends instead."""
        self.start(**how)
        wait_for("nginx serves", lambda: self.serves() or self.child.poll() is not None)
        if not self.serves():
            raise ChildProcessError("nginx has ended: " + self.output)

    def addresses(self):
        """Returns where its processes listen on the site's port."""
        found = set()
        for process in self.left():
            try:
                found |= {c.laddr.ip for c in process.connections()
                          if c.status == psutil.CONN_LISTEN and c.laddr.port == SITE_PORT}
            except GONE:
                pass
        return found

    def serves(self):
        """Returns whether it listens on the site's port."""
        return bool(self.addresses())

    def stop_command(self):
        """Runs the launcher's stop command. Returns how it Ended."""
        return self.run("-c", f"cd {self.directory} && sbin/nginx -s stop", script="/bin/sh",
                        cwd="/")

    def kill(self):
        """Kills the process of the last start, as the launcher does."""
        self.child.kill()
        self.child.wait()

    def stop(self):
        """Stops it as the launcher does, by the stop command and then SIGKILL.

        Returns how the command Ended.
        """
        answer = self.stop_command()
        self.kill()
        return answer

    def pids(self):
        """Returns the ids of the running processes of this bundle."""
        return [process.pid for process in self.left()]

    def left(self):
        """Returns the running processes (psutil.Process) of this bundle."""
        return processes_below(self.directory)

    def close(self):
        """Ends all of its processes."""
        for child in self.children:
            child.kill()
            child.wait()
        kill_all(self.left)
        self.directory.chmod(0o755)
