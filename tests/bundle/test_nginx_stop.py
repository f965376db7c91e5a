"""What "sbin/nginx -s stop" does, and what a SIGKILL leaves."""

import fcntl
import http.client
import os
import shutil
import signal
import subprocess

import pytest
from machine import ME, USER, USERS, assert_nothing_left, assert_one_line, is_locked, locked

from drive.bundle import SITE_PORT, ask, port_open
from drive.processes import wait_for


@pytest.mark.parametrize("user", USERS)
def test_succeeds_and_says_nothing(deploy_nginx, user):
    nginx = deploy_nginx(user=user)
    assert nginx.stop_command() == (0, "")


def test_returns_when_the_process_has_ended(deploy_nginx):
    nginx = deploy_nginx()
    nginx.stop_command()
    assert nginx.pids() == []


def test_returns_when_the_port_is_closed(deploy_nginx):
    deploy_nginx().stop_command()
    assert not port_open(SITE_PORT)


def test_lets_nginx_clean_up_as_it_ends(deploy_nginx):
    nginx = deploy_nginx()
    wait_for("it has noted its process id", (nginx.run_directory / "nginx.pid").exists)
    nginx.stop_command()
    assert not (nginx.run_directory / "nginx.pid").exists()


def test_returns_when_the_lock_is_free(deploy_nginx):
    nginx = deploy_nginx()
    nginx.child.send_signal(signal.SIGSTOP)  # so that it takes a SIGKILL
    nginx.stop_command()
    assert not is_locked(nginx.serving_file)


@pytest.mark.parametrize("name", ["stop", "quit", "reopen"])
def test_says_that_nothing_is_running(make_nginx, name):
    answer = make_nginx().run("-s", name)
    assert_one_line(answer.output, "not running")
    assert answer.status == 1


def test_stops_when_the_configuration_is_broken_by_now(deploy_nginx):
    nginx = deploy_nginx()
    (nginx.directory / "conf/nginx.conf").write_text("nonsense", encoding="ascii")
    nginx.stop_command()
    assert_nothing_left(nginx)


def test_stops_where_the_shell_stays_in_front_of_nginx(make_nginx):
    nginx = make_nginx()
    nginx.deploy(command="cd {} && sbin/nginx; exit")  # as an older bash runs it
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
    nginx.stop_command()
    assert_nothing_left(nginx)


def test_kills_an_nginx_that_does_not_heed_it(deploy_nginx):
    nginx = deploy_nginx()
    nginx.child.send_signal(signal.SIGSTOP)
    nginx.stop_command()
    assert_nothing_left(nginx)


def test_hands_the_signal_to_open_files_again_to_nginx(deploy_nginx):
    nginx = deploy_nginx()
    assert nginx.run("-s", "reopen").status == 0
    assert ask()[0] == 200


def test_hands_the_signal_to_quit_to_nginx(deploy_nginx):
    nginx = deploy_nginx()
    nginx.run("-s", "quit")
    assert_nothing_left(nginx)


def test_refuses_to_reload(deploy_nginx):
    answer = deploy_nginx().run("-s", "reload")
    assert_one_line(answer.output, "cannot reload", "Stop it and start it again")
    assert answer.status == 1


def test_serves_on_after_it_was_to_reload(deploy_nginx):
    deploy_nginx().run("-s", "reload")
    assert ask()[0] == 200


def test_does_not_stop_the_nginx_of_another_bundle(make_nginx, deploy_nginx):
    deploy_nginx("other")
    make_nginx().stop_command()
    assert ask()[0] == 200


def test_does_not_wait_for_a_queue_in_place_of_the_locked_file(make_nginx):
    nginx = make_nginx()
    nginx.run_directory.mkdir()
    os.mkfifo(nginx.serving_file)
    assert_one_line(nginx.stop_command().output, "not running")


@pytest.fixture
def bystander(ending):
    """A process that has nothing to do with any nginx."""
    process = ending.enter_context(subprocess.Popen(["sleep", "600"], start_new_session=True))
    ending.callback(process.kill)
    return process


def leave(nginx, text):
    """Leaves this as what a start that has ended since has written."""
    nginx.run_directory.mkdir()
    for name in ("serving", "nginx.pid"):
        (nginx.run_directory / name).write_text(text, encoding="ascii")


LEFT = pytest.mark.parametrize("text", [
    pytest.param("{} {}\n", id="two processes"), pytest.param("{}\n", id="one process"),
    pytest.param("-{} 1\n", id="a group"), pytest.param("", id="nothing"),
    pytest.param("0 0\n", id="its own group"), pytest.param("-1 1\n", id="every process"),
    pytest.param("a[$(kill $PPID)] 1\n", id="a command in an index")])


@LEFT
def test_says_that_nothing_runs_whatever_a_killed_nginx_has_left(make_nginx, bystander, text):
    nginx = make_nginx()
    leave(nginx, text.format(bystander.pid, bystander.pid))
    assert_one_line(nginx.stop_command().output, "not running")


@LEFT
def test_signals_nobody_whatever_a_killed_nginx_has_left(make_nginx, bystander, text):
    nginx = make_nginx()
    leave(nginx, text.format(bystander.pid, bystander.pid))
    nginx.stop_command()
    nginx.deploy()
    assert bystander.poll() is None


def test_signals_nobody_while_others_look_at_what_was_left(make_nginx, bystander):
    nginx = make_nginx()
    leave(nginx, f"{bystander.pid} 1\n")
    with locked(nginx.serving_file, fcntl.LOCK_SH):  # as a second stop command does
        assert_one_line(nginx.stop_command().output, "not running")
    assert bystander.poll() is None


@pytest.mark.skipif(shutil.which("strace") is None, reason="takes strace")
def test_signals_nobody_where_no_lock_can_be_taken(make_nginx, bystander):
    nginx = make_nginx()
    leave(nginx, f"{bystander.pid} 1\n")
    nginx.run("-s", "stop", before=[
        "strace", "--follow-forks", "--output=/dev/null", "--inject=flock:error=EPERM"])
    assert bystander.poll() is None


def test_signals_nobody_that_a_locked_file_elsewhere_names(make_nginx, bystander, directory):
    nginx, elsewhere = make_nginx(), directory / "elsewhere"
    elsewhere.write_text(f"{bystander.pid} 1\n", encoding="ascii")
    nginx.run_directory.mkdir()
    nginx.serving_file.symlink_to(elsewhere)
    with locked(elsewhere):
        nginx.stop_command()
    assert bystander.poll() is None


def test_a_process_with_the_words_of_nginx_does_not_keep_it_from_starting(make_nginx, ending):
    nginx = make_nginx()
    words = [f"/usr/sbin/nginx -p {nginx.directory} -e stderr -c conf/nginx.conf",
             "-g env LAUNCHER=1;", *["x"] * 100000]
    double = ending.enter_context(subprocess.Popen(
        ["/bin/bash", "-c", "sleep 600; exit", *words], start_new_session=True,
        **({"user": 12345} if ME == 0 else {})))
    ending.callback(os.killpg, double.pid, signal.SIGKILL)
    leave(nginx, f"{double.pid}\n")
    nginx.deploy()
    assert ask()[0] == 200


def test_a_killed_nginx_is_replaced_at_once(deploy_nginx):
    nginx = deploy_nginx()
    os.kill(nginx.child.pid, signal.SIGKILL)  # and not waited for, as the launcher does
    nginx.deploy()
    assert ask()[0] == 200


def test_a_killed_nginx_is_not_running(deploy_nginx):
    nginx = deploy_nginx()
    os.kill(nginx.child.pid, signal.SIGKILL)
    wait_for("it has ended", lambda: not nginx.left())
    assert_one_line(nginx.stop_command().output, "not running")
