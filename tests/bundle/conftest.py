"""Throw-away copies of the services."""

import os
import socket
import subprocess

import pytest
from machine import USER

from drive.bundle import SITE_PORT, Nginx, port_open
from drive.processes import wait_for


@pytest.fixture
def make_directory(directory):
    """make_directory(name, user, mode): a new directory of that user."""
    def make(name, user=USER, mode=0o700):
        made = directory / name
        made.mkdir(parents=True)
        os.chown(made, user, -1)
        made.chmod(mode)
        return made

    return make


@pytest.fixture
def make_nginx(directory, ending, project):
    """make_nginx(name, ...): a copy of the shipped nginx below that name, as drive.bundle.Nginx."""
    return lambda name="", **how: ending.enter_context(
        Nginx(directory / name, project / "bundle/nginx", **how))


@pytest.fixture
def deploy_nginx(make_nginx):
    """The same, and it serves already."""
    def deploy(name="", **how):
        nginx = make_nginx(name, **how)
        nginx.deploy()
        return nginx

    return deploy


@pytest.fixture
def start_rpc_server(build, ending):
    """start_rpc_server(...): the RPC server as the launcher starts it, a subprocess.Popen."""
    def start(**how):
        how = {"stdout": subprocess.PIPE, "stderr": subprocess.STDOUT, **how}
        server = ending.enter_context(subprocess.Popen(
            [build / "orvane.app/rpcServer/MacOs/rpcServer"], env={}, stdin=subprocess.DEVNULL,
            text=True, **how))
        ending.callback(server.kill)
        return server

    return start


@pytest.fixture
def hold(ending):
    """hold(port, ...): a socket of another program that listens there."""
    def listen(port, address="127.0.0.1", family=socket.AF_INET):
        holder = ending.enter_context(socket.socket(family))
        holder.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        holder.bind((address, port))
        holder.listen(128)
        return holder

    return listen


@pytest.fixture
def assert_nothing_left():
    """assert_nothing_left(nginx): its processes end, and the port is closed."""
    def check(nginx):
        wait_for("no process is left", lambda: not nginx.left())
        wait_for("the port is closed", lambda: not port_open(SITE_PORT))

    return check


@pytest.fixture
def assert_one_line():
    """assert_one_line(output, *words): it is one line, which has the words."""
    def check(output, *words):
        assert output.count("\n") == 1, output
        for word in words:
            assert word in output

    return check
