"""What sbin/nginx does when it is started."""

import os
import re
import socket
import stat
import subprocess
import urllib.request
from pathlib import Path

import psutil
import pytest
from machine import (JSON, ME, USERS, assert_one_line, has_ipv6, takes_a_mount, takes_ipv6,
                     with_mount)

from drive.bundle import SITE, SITE_PORT, Nginx, ask
from drive.processes import wait_for


def assert_test_is_clean(nginx):
    """It can be started, and has nothing to warn of."""
    status, output = nginx.run("-t")
    assert status == 0, output
    assert re.fullmatch(r"nginx: the configuration file \S+ syntax is ok\n"
                        r"nginx: configuration file \S+ test is successful\n", output)


def make_program(path, command):
    """Writes a script that runs this command."""
    path.write_text(f"#!/bin/sh\n{command}\n", encoding="ascii")
    path.chmod(0o755)


@pytest.mark.parametrize("user", USERS)
def test_serves_the_page(deploy_nginx, user):
    nginx = deploy_nginx(user=user)
    page = (nginx.directory / "html/index.html").read_text(encoding="utf-8")
    assert ask() == (200, page)


def test_says_what_each_file_is(deploy_nginx):
    html = deploy_nginx().directory / "html"
    for kind, *endings in map(str.split, (
            "text/html html", "text/css css", "text/javascript js mjs", "image/jpeg jpg jpeg",
            "application/json json", "application/wasm wasm", "image/svg+xml svg", "image/png png",
            "image/x-icon ico", "font/woff2 woff2", "video/mp4 mp4", "application/octet-stream x")):
        for ending in endings:
            (html / f"file.{ending}").touch()
            with urllib.request.urlopen(f"{SITE}file.{ending}") as answer:
                assert answer.headers["Content-Type"] == kind


def test_is_the_one_process_that_was_started_and_listens_on_loopback_only(deploy_nginx):
    nginx = deploy_nginx()
    process, = nginx.left()
    assert process.pid == nginx.child.pid
    soft, hard = process.rlimit(psutil.RLIMIT_NOFILE)
    assert soft == min(4096, hard)  # more than a browser's page opens
    assert nginx.addresses() == ({"127.0.0.1", "::1"} if has_ipv6() else {"127.0.0.1"})


@takes_ipv6
@pytest.mark.skipif(ME != 0 or os.environ.get("ORVANE_ISOLATED") != "network",
                    reason="takes a network of its own, as root")
def test_serves_where_there_is_no_ipv6(deploy_nginx, ending):
    switch = Path("/proc/sys/net/ipv6/conf/lo/disable_ipv6")
    switch.write_text("1", encoding="ascii")
    ending.callback(switch.write_text, "0", encoding="ascii")
    assert deploy_nginx().addresses() == {"127.0.0.1"}
    assert ask()[0] == 200


def test_writes_one_line_for_each_request(deploy_nginx):
    nginx = deploy_nginx()
    for path in ("/", "/missing", "/" + "x" * 4000, "/two%0alines"):
        ask(path)
    ask("/rpc", "{}", headers=JSON)  # of the RPC server, which does not answer
    wait_for("five lines", lambda: nginx.output.count("\n") >= 5)
    expected_lines = (" 200 GET /", " 404 GET /missing", " 404 GET /" + "x" * 59,
                      " 404 GET /two%0alines", " 502 POST /rpc")
    for line, expected in zip(nginx.output.splitlines(), expected_lines, strict=True):
        assert re.fullmatch(r"\d\d:\d\d:\d\d" + re.escape(expected), line)


def test_serves_on_when_nobody_reads_its_output(make_nginx):
    reading, writing = os.pipe()
    nginx = make_nginx()
    nginx.deploy(stdout=writing)
    os.close(writing)
    os.close(reading)
    for _ in range(3):
        assert ask()[0] == 200


def test_writes_in_its_run_directory_only(make_nginx, directory):
    nginx = make_nginx()
    before = sorted(nginx.directory.rglob("*"))
    nginx.deploy()
    ask()
    run = nginx.directory / "run"
    assert {path.name for path in run.iterdir()} == {
        "nginx.pid", "ipv6.conf", "client_body", "proxy", "fastcgi", "uwsgi", "scgi"}
    assert stat.S_IMODE(run.stat().st_mode) == 0o700
    nginx.stop()
    assert sorted(p for p in nginx.directory.rglob("*") if run not in [p, *p.parents]) == before
    assert list(directory.iterdir()) == [nginx.bundle.path]


@pytest.mark.parametrize(("name", "value"), [
    ("HOME", ""), ("CDPATH", "/usr:/"), ("NGINX", "99;"), ("IFS", "n/"),
    ("BASH_ENV", "{}/bash_env"), ("SHELLOPTS", "noexec"), ("BASH_SOURCE", "{}/sbin/nginx")])
def test_takes_no_harm_from_the_environment(make_nginx, directory, name, value):
    (directory / "bash_env").write_text("exit 3\n", encoding="ascii")
    assert_test_is_clean(make_nginx(environment={**Nginx.PLAIN, name: value.format(directory)}))


@pytest.mark.parametrize(("script", "cwd"), [
    ("{}/sbin/nginx", "/"), ("nginx", "sbin"), ("../sbin/nginx", "html")])
def test_runs_from_any_directory_and_in_a_path_with_blanks_and_quotes(make_nginx, script, cwd):
    nginx = make_nginx("an 'odd' \"path\"; $(touch x) *")
    status, output = nginx.run("-v", script=script.format(nginx.directory),
                               cwd=nginx.directory / cwd, before=["/bin/bash"])
    assert status == 0, output
    assert output.startswith("nginx version: nginx/")


def test_takes_the_first_nginx_in_the_path_that_is_not_itself(make_nginx, make_directory):
    nginx = make_nginx()
    first, link, other = (make_directory(name, ME) for name in ("bin", "link", "other"))
    (link / "nginx").symlink_to(nginx.directory / "sbin/nginx")
    make_program(other / "nginx", "echo where no pattern leads")
    make_program(nginx.directory / "html/nginx", "echo a part of the site")
    make_program(first / "nginx", "echo the first one")
    nginx.environment = {
        "PATH": f"html:sbin::{nginx.directory}/sbin:{link}:{other}*:{first}:/usr/sbin"}
    assert nginx.run("-v") == (0, "the first one\n")


@pytest.mark.parametrize("path", [None, "", "html", "/nowhere:html"])
def test_takes_all_tools_from_the_system_and_none_from_the_bundle(make_nginx, path):
    nginx = make_nginx(environment={} if path is None else {"PATH": path})
    for name in ("find", "mkdir", "mktemp"):
        for directory in (nginx.directory, nginx.directory / "html"):
            make_program(directory / name, "exit 3")
    assert_test_is_clean(nginx)


@takes_a_mount
def test_says_how_to_install_nginx(make_nginx):
    status, output = make_nginx().run(before=with_mount("--bind /dev/null /usr/sbin/nginx"))
    assert status != 0
    assert_one_line(output, "nginx is not installed",
                    "sudo systemctl mask nginx && sudo apt-get install nginx",
                    "[Deploy Service]")


@pytest.mark.parametrize(("address", "family"), [
    ("127.0.0.1", socket.AF_INET), ("0.0.0.0", socket.AF_INET),
    pytest.param("::1", socket.AF_INET6, marks=takes_ipv6)])
def test_says_that_another_program_has_the_port(make_nginx, ending, address, family):
    ending.enter_context(socket.create_server((address, SITE_PORT), family=family))
    nginx = make_nginx()
    nginx.start()
    assert nginx.child.wait(30) != 0
    assert_one_line(nginx.output, "port 4200", "taken by another program", "[Deploy Service]")
    assert nginx.left() == []


def test_waits_for_a_port_that_is_about_to_be_free(make_nginx):
    nginx = make_nginx()
    with socket.create_server(("127.0.0.1", SITE_PORT)) as holder:
        nginx.start()
        holder.accept()[0].close()  # it has looked
    wait_for("nginx serves", nginx.serves)
    assert nginx.output == ""


@pytest.mark.parametrize("command", [
    "cd {} && sbin/nginx", "cd {} && sbin/nginx; exit"])  # the shell stays, as an older bash does
def test_replaces_an_nginx_only_when_its_launcher_has_gone(make_nginx, ending, command):
    nginx = make_nginx()
    launcher = ending.enter_context(subprocess.Popen(
        ["/bin/sh", "-c", '/bin/bash -c "$0" & exec sleep infinity',
         command.format(nginx.directory)], stdout=subprocess.DEVNULL))
    ending.callback(launcher.kill)
    wait_for("the first one serves", nginx.serves)
    first = [process.pid for process in nginx.left()]
    nginx.start()
    assert nginx.child.wait(30) != 0
    assert_one_line(nginx.output, "port 4200", "this bundle's own nginx", "another launcher runs",
                    "[Stop Service]", "[Deploy Service]")
    status, output = nginx.stop_command()
    assert status == 1
    assert_one_line(output, "another launcher runs nginx", "[Stop Service]")
    assert [process.pid for process in nginx.left()] == first
    launcher.kill()
    launcher.wait()
    nginx.start()
    wait_for("the second one took its place", lambda: nginx.serves() and [
        process.pid for process in nginx.left()] == [nginx.child.pid])
