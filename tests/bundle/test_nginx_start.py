"""What sbin/nginx does when it is started."""

import os
import re
import shutil
import signal
import socket
import stat
import subprocess
import urllib.request
from pathlib import Path
from typing import NamedTuple

import psutil
import pytest
from machine import (ME, USERS, assert_nothing_left, assert_one_line, has_ipv6, is_locked,
                     takes_a_mount, takes_ipv6, waits_for_the_port, with_mount)

from drive.bundle import SITE, SITE_PORT, Nginx, ask
from drive.processes import wait_for

CONTENT_TYPES = {
    "html": "text/html", "css": "text/css", "js": "text/javascript", "mjs": "text/javascript",
    "json": "application/json", "wasm": "application/wasm", "svg": "image/svg+xml",
    "png": "image/png", "jpg": "image/jpeg", "jpeg": "image/jpeg", "ico": "image/x-icon",
    "mp4": "video/mp4", "woff2": "font/woff2", "x": "application/octet-stream"}
SHELL_STAYS = "cd {} && sbin/nginx; exit"  # in front of nginx, as one older than bash 5.1 does


def assert_test_is_clean(nginx):
    """It can be started, and has nothing to warn of."""
    test = nginx.run("-t")
    assert test.status == 0, test.output
    assert re.fullmatch(r"nginx: the configuration file \S+ syntax is ok\n"
                        r"nginx: configuration file \S+ test is successful\n", test.output)


def assert_fails(nginx, *words):
    """The start ends, after one line with the words."""
    status = nginx.child.wait(30)
    assert_one_line(nginx.output, *words)
    assert status == 1


def make_program(path, command):
    """Writes a script that runs this command."""
    path.write_text(f"#!/bin/sh\n{command}\n", encoding="ascii")
    path.chmod(0o755)


@pytest.mark.parametrize("user", USERS)
def test_serves_the_page(deploy_nginx, user):
    nginx = deploy_nginx(user=user)
    answer = ask()
    assert answer == (200, (nginx.directory / "html/index.html").read_text(encoding="utf-8"))


def test_says_what_each_file_is(deploy_nginx):
    html = deploy_nginx().directory / "html"
    seen = {}
    for ending in CONTENT_TYPES:
        (html / f"file.{ending}").touch()
        with urllib.request.urlopen(f"{SITE}file.{ending}") as answer:
            seen[ending] = answer.headers["Content-Type"]
    assert seen == CONTENT_TYPES


def test_is_the_one_process_that_was_started(deploy_nginx):
    nginx = deploy_nginx()
    assert nginx.pids() == [nginx.child.pid]


def test_may_open_more_connections_than_a_page_does(deploy_nginx):
    process, = deploy_nginx().left()
    soft, hard = process.rlimit(psutil.RLIMIT_NOFILE)
    assert soft == min(4096, hard)


def test_keeps_none_of_the_descriptors_that_came_along(make_nginx):
    nginx = make_nginx()
    nginx.deploy(command="exec 77</dev/zero && cd {} && sbin/nginx")
    kept = [link.resolve() for link in Path(f"/proc/{nginx.child.pid}/fd").iterdir()]
    assert Path("/dev/zero") not in kept


def test_listens_on_loopback_only(deploy_nginx):
    assert deploy_nginx().addresses() == ({"127.0.0.1", "::1"} if has_ipv6() else {"127.0.0.1"})


takes_a_network = pytest.mark.skipif(
    ME != 0 or os.environ.get("ORVANE_ISOLATED") != "network",
    reason="takes a network of its own, as root")


@takes_ipv6
@takes_a_network
def test_serves_where_there_is_no_ipv6(deploy_nginx, ending):
    switch = Path("/proc/sys/net/ipv6/conf/lo/disable_ipv6")
    switch.write_text("1", encoding="ascii")
    ending.callback(switch.write_text, "0", encoding="ascii")
    assert deploy_nginx().addresses() == {"127.0.0.1"}


def test_serves_on_when_nobody_reads_its_output(make_nginx):
    reading, writing = os.pipe()
    nginx = make_nginx()
    nginx.deploy(stdout=writing)
    os.close(writing)
    os.close(reading)
    assert [ask()[0] for _ in range(3)] == [200, 200, 200]


def test_writes_in_its_run_directory(deploy_nginx):
    nginx = deploy_nginx()
    assert {path.name for path in nginx.run_directory.iterdir()} == {
        "nginx.pid", "serving", "ipv6.conf", "client_body", "proxy", "fastcgi", "uwsgi", "scgi"}


def test_lets_nobody_else_look_into_its_run_directory(deploy_nginx):
    assert stat.S_IMODE(deploy_nginx().run_directory.stat().st_mode) == 0o700


def test_writes_nowhere_else_in_its_bundle(make_nginx):
    nginx = make_nginx()
    before = sorted(nginx.bundle.path.rglob("*"))
    nginx.deploy()
    ask()
    nginx.stop()
    run = nginx.run_directory
    assert sorted(p for p in nginx.bundle.path.rglob("*") if run not in [p, *p.parents]) == before


def test_writes_nothing_beside_its_bundle(deploy_nginx, directory):
    nginx = deploy_nginx()
    assert list(directory.iterdir()) == [nginx.bundle.path]


@pytest.mark.parametrize(("name", "value"), [
    pytest.param(name, value, id=name) for name, value in {
        "HOME": "", "CDPATH": "/usr:/", "NGINX": "99;", "IFS": "n/", "BASH_ENV": "{}/bash_env",
        "SHELLOPTS": "noexec", "BASH_SOURCE": "{}/sbin/nginx", "EUID": "1", "UID": "1",
        "PPID": "1", "PERL5OPT": "-Mnowhere", "PERL5LIB": "{}"}.items()])
def test_takes_no_harm_from_the_environment(make_nginx, directory, name, value):
    (directory / "bash_env").write_text("exit 3\n", encoding="ascii")
    (directory / "Fcntl.pm").write_text("exit 3;\n", encoding="ascii")
    assert_test_is_clean(make_nginx(environment={**Nginx.PLAIN, name: value.format(directory)}))


@pytest.mark.parametrize(("script", "cwd"), [
    pytest.param("{}/sbin/nginx", "/", id="by its full path"),
    pytest.param("nginx", "sbin", id="by its name"),
    pytest.param("../sbin/nginx", "html", id="from another directory")])
def test_runs_from_any_directory_and_in_a_path_with_blanks_and_quotes(make_nginx, script, cwd):
    nginx = make_nginx("an 'odd' \"path\"; $(touch x) *")
    version = nginx.run("-v", script=script.format(nginx.directory),
                        cwd=nginx.directory / cwd, before=["/bin/bash"])
    assert version.output.startswith("nginx version: nginx/"), version
    assert version.status == 0


def test_takes_the_first_nginx_in_the_path_that_is_not_itself(make_nginx, make_directory):
    nginx = make_nginx()
    first, link, other = (make_directory(name, ME) for name in ("bin", "link", "other"))
    (link / "nginx").symlink_to(nginx.directory / "sbin/nginx")
    make_program(other / "nginx", "echo where no pattern leads")
    make_program(nginx.directory / "html/nginx", "echo a part of the site")
    make_program(first / "nginx", "echo the first one")
    nginx.environment = {
        "PATH": f"html:sbin::{nginx.directory}/sbin:{link}:{other}*:{first}:/usr/sbin"}
    assert nginx.run("-v").output == "the first one\n"


@pytest.mark.parametrize("path", [
    pytest.param(None, id="no path"), pytest.param("", id="empty"),
    pytest.param("html", id="relative"), pytest.param("/nowhere:html", id="two entries")])
def test_takes_all_tools_from_the_system_and_none_from_the_bundle(make_nginx, path):
    nginx = make_nginx(environment={} if path is None else {"PATH": path})
    for name in ("find", "mkdir", "perl"):
        for directory in (nginx.directory, nginx.directory / "html"):
            make_program(directory / name, "exit 3")
    assert_test_is_clean(nginx)


@takes_a_mount
@pytest.mark.parametrize(("system", "command"), [
    pytest.param("linux", "sudo apt-get install nginx && sudo update-rc.d nginx disable && "
                 "sudo service nginx stop", id="Linux"),
    pytest.param("darwin22", "brew install nginx", id="macOS")])
def test_says_how_to_install_nginx(make_nginx, system, command):
    nginx = make_nginx(environment={**Nginx.PLAIN, "OSTYPE": system})
    start = nginx.run(before=with_mount("--bind /dev/null /usr/sbin/nginx"))
    assert_one_line(start.output, "nginx is not installed", f"({command})", "[Deploy Service]")
    assert start.status == 1


@pytest.mark.parametrize(("address", "family"), [
    pytest.param("127.0.0.1", socket.AF_INET, id="on 127.0.0.1"),
    pytest.param("0.0.0.0", socket.AF_INET, id="on all addresses"),
    pytest.param("::1", socket.AF_INET6, id="on ::1 only", marks=takes_ipv6)])
def test_says_that_another_program_has_the_port(make_nginx, ending, address, family):
    ending.enter_context(socket.create_server((address, SITE_PORT), family=family))
    nginx = make_nginx()
    nginx.start()
    assert_fails(nginx, "port 4200", "taken by another program", "[Deploy Service]")


@takes_ipv6
@takes_a_network
def test_says_so_of_the_port_of_ipv6_on_a_machine_in_an_ipv4_network(make_nginx, ending):
    address = ["192.0.2.1/32", "dev", "lo"]
    subprocess.run(["ip", "address", "add", *address], check=True)
    ending.callback(subprocess.run, ["ip", "address", "delete", *address], check=True)
    ending.enter_context(socket.create_server(("::1", SITE_PORT), family=socket.AF_INET6))
    nginx = make_nginx()
    nginx.start()
    assert_fails(nginx, "port 4200", "taken by another program", "[Deploy Service]")


def test_says_that_a_program_has_the_port_which_hangs(make_nginx, ending):
    ending.enter_context(socket.create_server(("127.0.0.1", SITE_PORT), backlog=0))
    for _ in range(4):  # more than wait in its queue, so that one more would get no answer
        waiting = ending.enter_context(socket.socket())
        waiting.setblocking(False)
        waiting.connect_ex(("127.0.0.1", SITE_PORT))
    nginx = make_nginx()
    nginx.start()
    assert_fails(nginx, "port 4200", "taken by another program", "[Deploy Service]")


class Waiting(NamedTuple):
    """A start that waits for the port, and the socket of another program that has it."""

    nginx: Nginx
    holder: socket.socket


@pytest.fixture
def waiting(make_nginx, ending):
    """A start that waits for the port, as Waiting."""
    holder = ending.enter_context(socket.create_server(("127.0.0.1", SITE_PORT)))
    nginx = make_nginx()
    nginx.start()
    wait_for("it waits for the port", lambda: waits_for_the_port(nginx))
    return Waiting(nginx, holder)


def test_serves_when_the_port_gets_free_soon(waiting):
    waiting.holder.close()
    wait_for("nginx serves", waiting.nginx.serves)
    assert waiting.nginx.output == ""


def test_a_start_that_is_killed_gives_its_lock_back_at_once(waiting):
    waiting.nginx.kill()
    assert not is_locked(waiting.nginx.run_directory)


def test_says_that_its_run_directory_has_vanished(waiting):
    shutil.rmtree(waiting.nginx.run_directory)
    waiting.holder.close()
    assert_fails(waiting.nginx, "cannot write in", str(waiting.nginx.run_directory),
                 "[Deploy Service]")


def test_says_that_another_start_hangs(waiting):
    waiting.nginx.child.send_signal(signal.SIGSTOP)
    start = waiting.nginx.run()
    assert_one_line(start.output, "another start hangs", "[Stop Service]", "[Deploy Service]")


class Theirs(NamedTuple):
    """An nginx that another launcher has started, and its processes."""

    nginx: Nginx
    launcher: subprocess.Popen
    pids: list

    def end_launcher(self):
        """Ends it as SIGKILL does."""
        self.launcher.kill()
        self.launcher.wait()


@pytest.fixture(params=[
    pytest.param(Nginx.START, id="one process"), pytest.param(SHELL_STAYS, id="shell in front")])
def theirs(make_nginx, request):
    """One that serves for another launcher, as Theirs."""
    nginx = make_nginx()
    launcher = nginx.start_elsewhere(request.param)
    wait_for("the first one serves", nginx.serves)
    return Theirs(nginx, launcher, nginx.pids())


def test_a_start_says_that_another_launchers_nginx_has_the_port(theirs):
    theirs.nginx.start()
    assert_fails(theirs.nginx, "port 4200", "this bundle's own nginx",
                 f"(process {theirs.pids[-1]})", "another launcher runs", "[Stop Service] there",
                 "[Deploy Service] here")


def test_a_start_leaves_another_launchers_nginx_alone(theirs):
    theirs.nginx.run()
    assert theirs.nginx.pids() == theirs.pids
    assert theirs.nginx.serves()


def test_a_stop_says_that_another_launcher_runs_nginx(theirs):
    stop = theirs.nginx.stop_command()
    assert_one_line(stop.output, "another launcher runs nginx", f"(process {theirs.pids[-1]})",
                    "[Stop Service] there")
    assert stop.status == 1


def test_a_stop_leaves_another_launchers_nginx_alone(theirs):
    theirs.nginx.stop_command()
    assert theirs.nginx.pids() == theirs.pids


def test_a_start_replaces_an_nginx_whose_launcher_has_ended(theirs):
    theirs.end_launcher()
    theirs.nginx.start()
    wait_for("the second one took its place", lambda: theirs.nginx.serves() and
             theirs.nginx.pids() == [theirs.nginx.child.pid])


def test_a_stop_ends_an_nginx_whose_launcher_has_ended(theirs):
    theirs.end_launcher()
    theirs.nginx.stop_command()
    assert_nothing_left(theirs.nginx)


def test_a_start_replaces_what_the_same_launcher_has_started(deploy_nginx):
    nginx = deploy_nginx()
    nginx.start()
    wait_for("the second one took its place", lambda: nginx.pids() == [nginx.child.pid])


@pytest.fixture
def pair(make_nginx):
    """Two starts of two launchers in one instant, of which one has ended and the other serves."""
    nginx = make_nginx()
    nginx.start_elsewhere()
    nginx.start_elsewhere()
    wait_for("one has failed", lambda: "\n" in nginx.output)
    wait_for("the other serves", nginx.serves)
    return nginx


def test_the_second_of_two_starts_says_that_the_first_has_the_port(pair):
    assert_one_line(pair.output, "port 4200", "this bundle's own nginx", "another launcher runs")


def test_the_second_of_two_starts_leaves_what_the_first_has_written(pair):
    pid_file = pair.run_directory / "nginx.pid"
    wait_for("the first has noted its process id", pid_file.exists)
    assert pair.pids() == [int(pid_file.read_text(encoding="ascii"))]


def test_takes_over_from_a_start_that_was_killed(waiting):
    waiting.nginx.kill()
    waiting.holder.close()
    waiting.nginx.deploy()
    assert ask()[0] == 200


def test_nginx_has_the_lock(deploy_nginx):
    nginx = deploy_nginx()
    assert is_locked(nginx.serving_file)


def test_says_in_the_locked_file_who_serves_and_for_whom(deploy_nginx):
    nginx = deploy_nginx()
    assert nginx.serving_file.read_text(encoding="ascii") == f"{nginx.child.pid} {os.getpid()}\n"


def test_lets_the_next_start_look_once_it_serves(deploy_nginx):
    assert not is_locked(deploy_nginx().run_directory)


def on_small_disk(nginx, options):
    """Starts it with a disk of its own, of this size, as its run directory."""
    nginx.run_directory.mkdir()
    return nginx.run(before=with_mount(
        f"-t tmpfs -o mode=700,{options} tmpfs {nginx.run_directory}"))


@takes_a_mount
@pytest.mark.parametrize("options", [
    pytest.param("nr_inodes=1", id="no room for a file"),
    pytest.param("size=4k", id="room for one file")])
def test_says_that_the_disk_is_full(make_nginx, options):
    nginx = make_nginx()
    start = on_small_disk(nginx, options)
    assert_one_line(start.output, "nginx: cannot write in", str(nginx.run_directory),
                    "[Deploy Service]")


@takes_a_mount
def test_says_that_perl_does_not_run(make_nginx):
    start = make_nginx().run(before=with_mount("--bind /dev/null /usr/bin/perl"))
    assert_one_line(start.output, "perl failed", "Permission denied", "[Deploy Service]")


@pytest.mark.skipif(shutil.which("strace") is None, reason="takes strace")
@pytest.mark.parametrize(("error", "words"), [
    pytest.param("ENOLCK", "No locks available", id="a disk without locks"),
    pytest.param("EPERM", "Operation not permitted", id="a sandbox")])
def test_says_why_there_are_no_locks(make_nginx, error, words):
    start = make_nginx().run(before=[
        "strace", "--follow-forks", "--output=/dev/null", f"--inject=flock:error={error}"])
    assert_one_line(start.output, "perl failed", words, "[Deploy Service]")
