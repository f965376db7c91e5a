"""What "sbin/nginx -s stop" does, and what a SIGKILL leaves."""

import http.client
import os
import signal
import subprocess

import pytest
from machine import ME, USER, USERS, assert_nothing_left, assert_one_line

from drive.bundle import SITE_PORT, ask, port_open
from drive.processes import wait_for


@pytest.mark.parametrize("user", USERS)
def test_returns_when_nginx_has_gone(deploy_nginx, user):
    nginx = deploy_nginx(user=user)
    assert nginx.stop_command() == (0, "")
    assert nginx.left() == []
    assert not port_open(SITE_PORT)
    assert not nginx.pid_file.exists()


@pytest.mark.parametrize("name", ["stop", "quit", "reopen"])
def test_says_that_nothing_is_running(make_nginx, name):
    status, output = make_nginx().run("-s", name)
    assert status == 1
    assert_one_line(output, "not running")


def test_stops_when_the_configuration_is_broken_by_now(deploy_nginx):
    nginx = deploy_nginx()
    (nginx.directory / "conf/nginx.conf").write_text("nonsense", encoding="ascii")
    assert nginx.stop_command() == (0, "")
    assert_nothing_left(nginx)


def test_stops_where_the_shell_stays_in_front_of_nginx(make_nginx):
    nginx = make_nginx()
    nginx.deploy(command="cd {} && sbin/nginx; exit")  # as an older bash runs it
    assert len(nginx.left()) == 2
    nginx.stop()
    assert_nothing_left(nginx)


def test_stops_an_nginx_whose_output_nobody_reads(make_nginx, ending):
    reading, writing = os.pipe()
    ending.callback(os.close, reading)
    os.fchown(writing, USER if ME == 0 else -1, -1)
    os.set_blocking(writing, False)
    os.write(writing, bytes(2 ** 20))  # as much of it as fits
    os.set_blocking(writing, True)
    nginx = make_nginx(user=USER)
    nginx.deploy(stdout=writing)
    os.close(writing)
    asking = [http.client.HTTPConnection("127.0.0.1", SITE_PORT) for _ in range(50)]
    for connection in asking:
        ending.callback(connection.close)
        connection.request("GET", "/")
    assert asking[0].getresponse().status == 200  # and now nginx waits to write that down
    assert nginx.stop_command()[0] == 0
    assert_nothing_left(nginx)


def test_kills_an_nginx_that_does_not_heed_it(deploy_nginx):
    nginx = deploy_nginx()
    nginx.child.send_signal(signal.SIGSTOP)
    assert nginx.stop_command()[0] == 0
    assert_nothing_left(nginx)


def test_hands_the_other_signals_to_nginx(deploy_nginx):
    nginx = deploy_nginx()
    assert nginx.run("-s", "reopen")[0] == 0
    assert ask()[0] == 200
    assert nginx.run("-s", "quit")[0] == 0
    assert_nothing_left(nginx)


def test_refuses_to_reload(deploy_nginx):
    status, output = deploy_nginx().run("-s", "reload")
    assert status == 1
    assert_one_line(output, "cannot reload", "Stop it and start it again")
    assert ask()[0] == 200


def assert_not_signalled(nginx, process, text):
    """A stop with this pid file spares the process."""
    nginx.pid_file.parent.mkdir(exist_ok=True)
    nginx.pid_file.write_text(text, encoding="ascii")
    status, output = nginx.stop_command()
    assert status == 1
    assert_one_line(output, "not running")
    assert process.poll() is None


def test_does_not_signal_the_nginx_of_another_bundle(make_nginx, deploy_nginx):
    other = deploy_nginx("other")
    assert_not_signalled(make_nginx(), other.child, f"{other.child.pid}\n")
    assert ask()[0] == 200


@pytest.mark.parametrize("text", ["{}\n", "", "\n", "0\n", "-1\n", "-{}\n", "99999999\n", "self\n",
                                  "1 $(kill 1)\n", "a[$(kill $PPID)]\n"])
def test_does_not_signal_what_is_no_nginx(make_nginx, ending, text):
    nginx = make_nginx()
    foreign = ending.enter_context(subprocess.Popen(["sleep", "600"], start_new_session=True))
    ending.callback(foreign.kill)
    assert_not_signalled(nginx, foreign, text.format(foreign.pid))
    nginx.deploy()
    assert foreign.poll() is None


def test_a_killed_nginx_is_replaced_at_once(deploy_nginx):
    nginx = deploy_nginx()
    os.kill(nginx.child.pid, signal.SIGKILL)  # and not waited for, as the launcher does
    wait_for("it has ended", lambda: not nginx.left())
    assert nginx.stop_command()[0] == 1
    assert nginx.pid_file.exists()
    nginx.deploy()
    assert ask()[0] == 200
