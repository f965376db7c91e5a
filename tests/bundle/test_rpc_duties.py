"""What docs/bundling.md asks of an RPC server: the sample does it, and the example as well."""

import os
import resource
import shutil
import signal
import socket
import subprocess
import time
from contextlib import suppress
from http.client import RemoteDisconnected
from pathlib import Path
from typing import NamedTuple

import psutil
import pytest
from machine import JSON, OPEN, USER, takes_root

from drive.bundle import RPC_PORT, SITE_PORT, ask
from drive.processes import PATIENCE, adopt_orphans, kill_all, processes_below, running, wait_for

MANY = 480  # connections: half a minute of 16 a second, at once
MOST_HELD = 130  # connections: the limit of 64, as many that are about to go, two of its own

EXAMPLE = pytest.mark.parametrize("program", ["example"], indirect=True)


class Program(NamedTuple):
    """An RPC server, the name that its rows begin with, and the row that a good call gets."""

    path: Path
    name: str
    row: str
    taken: str  # what it says of a port that is taken

    @property
    def listening(self):
        """The row that it begins with."""
        return f"{self.name}: listening on 127.0.0.1:{RPC_PORT}\n"


@pytest.fixture(params=["sample", "example"])
def program(request, build, project, make_directory):
    """A copy of the server that everybody may start. Its lock is its own."""
    copy = make_directory("server", mode=0o755) / "rpcServer"
    if request.param == "sample":
        shutil.copy(build / "orvane.app/rpcServer/MacOs/rpcServer", copy)
        return Program(copy, "rpcServer", row="channel.open\n", taken=(
            " is taken by another program, or by the server of another launcher. "
            "Close that, then press [Deploy Service] again."))
    shutil.copy(project / "docs/example/rpcServer", copy)
    return Program(copy, "mine", row="", taken=": Address already in use")


@pytest.fixture
def start(program, start_rpc_server):
    """start(...): a server that listens, a subprocess.Popen."""
    def started(**how):
        server = start_rpc_server(program=program.path, **how)
        assert server.stdout.readline() == program.listening
        return server

    return started


@pytest.fixture
def server(start):
    """A server that listens."""
    return start()


@pytest.fixture
def launched(program, ending):
    """A server that listens, below a launcher of its own: a subprocess.Popen, which is a shell."""
    launcher = ending.enter_context(subprocess.Popen(
        ["/bin/sh", "-c", '"$0" & wait', program.path], stdout=subprocess.PIPE, text=True))
    ending.callback(kill_all, lambda: processes_below(program.path.parent))
    ending.callback(launcher.kill)
    assert launcher.stdout.readline() == program.listening
    return launcher


@pytest.fixture
def open_silent(ending):
    """open_silent(number): so many connections that say nothing."""
    def opened(number):
        for _ in range(number):
            ending.enter_context(socket.create_connection(("127.0.0.1", RPC_PORT), PATIENCE))

    return opened


def allow_few_threads(server):
    """Leaves the server room for the stacks of about thirty."""
    most = psutil.Process(server.pid).memory_info().vms + 256 * 1024 * 1024
    resource.prlimit(server.pid, resource.RLIMIT_AS, (most, most))


def call(**headers):
    """Returns the HTTP status of a call with these headers as well."""
    return ask("/rpc", OPEN, port=RPC_PORT, host="127.0.0.1", headers={**JSON, **headers})[0]


def test_answers_its_own_page(server):
    assert call(Origin=f"http://localhost:{SITE_PORT}", **{"Sec-Fetch-Site": "same-origin"}) == 200


class Stranger(NamedTuple):
    """What is refused, and how."""

    status: int
    headers: dict


STRANGERS = {
    "another name": Stranger(403, {"Host": f"other.example:{RPC_PORT}"}),
    "a name that begins like ours": Stranger(403, {"Host": f"localhost.example:{RPC_PORT}"}),
    "another page": Stranger(403, {"Origin": "http://other.example"}),
    "a page without a name": Stranger(403, {"Origin": "null"}),
    "another port's page": Stranger(403, {"Sec-Fetch-Site": "same-site"}),
    "a form": Stranger(415, {"Content-Type": "text/plain"}),
    "a large body": Stranger(413, {"Content-Length": "9" * 9})}


@pytest.mark.parametrize("stranger", STRANGERS.values(), ids=STRANGERS)
def test_refuses_a_stranger(server, stranger):
    assert call(**stranger.headers) == stranger.status


def test_refuses_a_stranger_without_a_row(server):
    for _ in range(3):
        call(Origin="null")
    server.kill()
    assert server.stdout.read() == ""


@EXAMPLE
def test_writes_no_row_for_a_poll(server):
    for _ in range(3):
        call()
    server.kill()
    assert server.stdout.read() == ""


@EXAMPLE
def test_writes_at_most_one_row_a_second_about_its_own_mistakes(program, start):
    text = program.path.read_text(encoding="utf-8")
    mistaken = text.replace("= refusal(", "= mistake(")
    assert mistaken != text
    program.path.write_text(mistaken, encoding="utf-8")
    server, begin = start(), time.monotonic()
    for _ in range(50):
        with pytest.raises(RemoteDisconnected):
            call()
    seconds = time.monotonic() - begin
    server.kill()
    rows = server.stdout.readlines()
    assert set(rows) == {"mine: NameError(\"name 'mistake' is not defined\")\n"}
    assert len(rows) <= seconds + 1


def test_listens_on_loopback_only(server):
    addresses = [c.laddr for c in psutil.Process(server.pid).connections()]
    assert addresses == [("127.0.0.1", RPC_PORT)]


def test_lets_many_connections_wait_until_it_can_accept_them(server, open_silent):
    server.send_signal(signal.SIGSTOP)
    open_silent(60)
    server.send_signal(signal.SIGCONT)
    assert call() == 200


def test_answers_while_many_connections_are_silent(server, open_silent):
    allow_few_threads(server)
    open_silent(MANY)
    assert call() == 200


def test_writes_no_row_about_many_silent_connections(program, server, open_silent):
    allow_few_threads(server)
    open_silent(MANY)
    call()
    server.kill()
    assert server.stdout.read() in ("", program.row)


def test_accepts_no_more_waiting_connections_at_once_than_it_may_open(
        program, server, open_silent):
    resource.prlimit(server.pid, resource.RLIMIT_NOFILE, (MANY // 2, MANY // 2))
    server.send_signal(signal.SIGSTOP)
    open_silent(MANY)
    server.send_signal(signal.SIGCONT)
    call()
    server.kill()
    assert server.stdout.read() in ("", program.row)


def test_lets_the_oldest_connections_make_room_for_the_newest(server, open_silent):
    open_silent(MANY)
    call()
    assert len(psutil.Process(server.pid).connections()) <= MOST_HELD


def test_closes_a_connection_that_falls_silent(server, ending):
    connection = ending.enter_context(socket.create_connection(("127.0.0.1", RPC_PORT), PATIENCE))
    connection.sendall(b"POST /rpc HTTP/1.1\r\n")
    assert connection.recv(1) == b""


def test_answers_again_after_what_is_no_http(server, ending):
    for sent in (b"nonsense\r\n\r\n", b"\0" * 100000, b"POST /rpc HTTP/1.1\r\n"):
        connection = ending.enter_context(
            socket.create_connection(("127.0.0.1", RPC_PORT), PATIENCE))
        with suppress(OSError):  # it is closed before all was sent
            connection.sendall(sent)
    assert call() == 200


def test_survives_a_closed_pipe(server):
    server.stdout.close()
    for _ in range(3):
        assert call() == 200
    assert server.poll() is None


def test_keeps_none_of_the_descriptors_that_came_along(start, ending):
    reading, writing = os.pipe()
    ending.callback(os.close, writing)
    start(pass_fds=[reading])
    os.close(reading)
    with pytest.raises(BrokenPipeError):
        os.write(writing, b"to nobody")


def test_replaces_the_server_of_a_launcher_that_was_killed(launched, program, start):
    orphan, = psutil.Process(launched.pid).children()
    launched.kill()
    wait_for("another parent", lambda: orphan.ppid() != launched.pid)
    start()
    wait_for("the end of the one before", lambda: not running(orphan))


def test_replaces_it_where_orphans_go_to_a_session_manager(launched, program, start):
    adopt_orphans()  # as that does, so that its new parent is not the first process
    orphan, = psutil.Process(launched.pid).children()
    launched.kill()
    wait_for("another parent", lambda: orphan.ppid() == os.getpid())
    start()
    wait_for("the end of the one before", lambda: not running(orphan))


def test_replaces_it_after_a_new_build(launched, program, start):
    orphan, = psutil.Process(launched.pid).children()
    launched.kill()
    wait_for("another parent", lambda: orphan.ppid() != launched.pid)
    shutil.copy(program.path, program.path.with_name("newer"))
    program.path.with_name("newer").replace(program.path)
    start()
    wait_for("the end of the one before", lambda: not running(orphan))


def test_is_not_ended_by_a_signal_while_its_launcher_lives(server):
    server.send_signal(signal.SIGURG)
    assert call() == 200
    assert server.poll() is None


def test_leaves_the_port_to_a_server_whose_launcher_lives(launched, program, start_rpc_server):
    second = start_rpc_server(program=program.path)
    output = second.communicate()[0]
    assert second.returncode == 1
    assert output == f"{program.name}: port {RPC_PORT}{program.taken}\n"
    assert call() == 200


@takes_root
def test_leaves_another_users_server_alone(launched, program, start_rpc_server):
    launched.kill()
    assert start_rpc_server(program=program.path, user=USER).wait() == 1
    assert call() == 200


def test_waits_for_a_port_that_is_about_to_be_free(start_rpc_server, program):
    with socket.create_server(("127.0.0.1", RPC_PORT)):
        server = start_rpc_server(program=program.path)
        started = psutil.Process(server.pid)
        wait_for("it sleeps after a try", lambda: sum(started.num_ctx_switches()) > 2
                 and started.status() == psutil.STATUS_SLEEPING)
    assert server.stdout.readline() == program.listening


def test_is_replaced_at_once_when_it_was_killed(start):
    for _ in range(5):
        server = start()
        assert call() == 200
        server.kill()
