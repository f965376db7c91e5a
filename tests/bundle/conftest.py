"""Throw-away copies of the services."""

import os
import subprocess

import pytest
from machine import USER

from drive.bundle import Nginx


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
    def start(program=build / "orvane.app/rpcServer/MacOs/rpcServer", **how):
        server = ending.enter_context(subprocess.Popen(
            [program], env={}, stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, **how))
        ending.callback(server.kill)
        return server

    return start
