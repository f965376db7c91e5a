"""Where nginx writes when the bundle is not its user's to write in."""

import os
import stat

import pytest
from machine import (ME, USER, assert_nothing_left, assert_one_line, takes_a_mount, takes_root,
                     with_mount)

from drive.bundle import Nginx, ask

STRANGER = 12345  # a user who is neither root nor the ordinary one


def with_variables(**variables):
    """Returns an environment with these and without a home."""
    return {**Nginx.PLAIN, **{name: str(value) for name, value in variables.items()}}


@pytest.fixture
def shipped(make_nginx):
    """shipped(name, ...): one that the ordinary user cannot write in, and its environment."""
    return lambda name="", **variables: make_nginx(
        name, user=USER, writable=False, environment=with_variables(**variables))


def assert_refuses(nginx):
    """It ends and says that there is no place to write in."""
    nginx.start()
    assert nginx.child.wait(30) != 0
    assert_one_line(nginx.output, "no place to write", str(nginx.directory / "run"),
                    "[Deploy Service]")


@pytest.mark.parametrize(("variables", "base"), [
    ({}, ".local/state"), ({"XDG_STATE_HOME": "{}/state"}, "state"),
    ({"XDG_STATE_HOME": "html"}, ".local/state"),  # which would lie in the bundle
    ({"XDG_RUNTIME_DIR": "{}"}, ".local/state")])  # which goes with the session
def test_is_below_the_state_directory_and_nowhere_else(shipped, make_directory, variables, base):
    home = make_directory("home")
    nginx = shipped(HOME=home, **{name: at.format(home) for name, at in variables.items()})
    os.chown(nginx.directory / "html", USER, -1)
    nginx.deploy()
    line, = nginx.output.splitlines()
    assert f"{nginx.directory}/run is not a directory that only this user may write in" in line
    assert f"nginx writes in {home}/{base}/orvane/" in line
    made, = (home / base / "orvane").iterdir()
    assert "-orvane-app-nginx-" in made.name
    assert (made / "run/nginx.pid").exists()
    for directory in (home / base, home / base / "orvane", made, made / "run"):
        assert stat.S_IMODE(directory.stat().st_mode) == 0o700, directory
        assert directory.stat().st_uid == USER
    assert [path.name for path in home.iterdir()] == [base.split("/")[0]]
    assert not (nginx.directory / "run").exists()
    assert ask()[0] == 200
    assert nginx.stop_command() == (0, "")
    assert_nothing_left(nginx)


def test_is_not_made_where_the_bundle_can_be_written(deploy_nginx, make_directory):
    state = make_directory("state")
    nginx = deploy_nginx(user=USER, environment=with_variables(XDG_STATE_HOME=state))
    assert nginx.output == ""
    assert nginx.pid_file.exists()
    assert list(state.iterdir()) == []


def test_differs_from_bundle_to_bundle(shipped, make_directory):
    state = make_directory("state")
    # These differ in characters that no directory's name keeps, and only far from their ends.
    for name in ("a9.app", "a9-app", "1" + "x" * 80, "2" + "x" * 80):
        assert shipped(name, XDG_STATE_HOME=state).run("-t")[0] == 0
    made = [path.name for path in (state / "orvane").iterdir()]
    assert len(made) == 4 and max(map(len, made)) < 100
    assert ["-a9-app-" in name for name in made].count(True) == 2


@pytest.mark.parametrize("mode", [0o707, 0o770])
def test_is_not_one_that_others_may_write_in(shipped, make_directory, mode):
    state = make_directory("state")
    make_directory("state/orvane", mode=mode)
    assert_refuses(shipped(XDG_STATE_HOME=state))


@pytest.mark.parametrize("target", ["elsewhere", "nowhere"])
def test_is_no_symbolic_link(shipped, make_directory, directory, target):
    state, elsewhere = make_directory("state"), make_directory("elsewhere")
    (state / "orvane").symlink_to(directory / target)
    assert_refuses(shipped(XDG_STATE_HOME=state))
    assert list(elsewhere.iterdir()) == []


def test_says_so_when_no_directory_can_be_written(shipped, make_directory, ending):
    closed = make_directory("closed", mode=0o500)
    ending.callback(closed.chmod, 0o700)
    assert_refuses(shipped(XDG_STATE_HOME=closed, HOME=closed))


@takes_root
@pytest.mark.parametrize(("user", "inner"), [(STRANGER, None), (USER, STRANGER)])
def test_is_nobody_elses(shipped, make_directory, user, inner):
    base = make_directory("base", user, 0o777)
    if inner:
        make_directory("base/orvane", inner, 0o777)
    assert_refuses(shipped(XDG_STATE_HOME=base))
    assert [path.name for path in base.iterdir()] == (["orvane"] if inner else [])


@pytest.mark.parametrize(("user", "mode"), [
    pytest.param(STRANGER, 0o700, marks=takes_root), (USER, 0o720), (USER, 0o702), (USER, None)])
def test_is_used_where_the_run_directory_is_not_this_users_alone(
        make_nginx, make_directory, directory, user, mode):
    nginx = make_nginx(user=USER, environment=with_variables(HOME=make_directory("home")))
    found = make_directory("run" if mode is None else "orvane.app/nginx/run", user, mode or 0o700)
    if mode is None:
        (nginx.directory / "run").symlink_to(found)
    nginx.deploy()
    assert f"nginx writes in {directory}/home/.local/state/orvane/" in nginx.output
    assert list(found.iterdir()) == []


def test_takes_nothing_over_that_it_finds_in_the_run_directory(make_nginx, make_directory):
    nginx, elsewhere = make_nginx(), make_directory("elsewhere", ME)
    kept = elsewhere / "kept"
    kept.write_text("mine")
    run = make_directory("orvane.app/nginx/run", ME, 0o755)
    for name in ("nginx.pid", "nginx.lock"):
        (run / name).symlink_to(kept)
    for name in ("ipv6.conf", "proxy"):
        (run / name).symlink_to(elsewhere)
    (run / "ipv6x.conf").write_text("nonsense;")
    nginx.deploy()
    assert nginx.output == ""
    assert (list(elsewhere.iterdir()), kept.read_text()) == ([kept], "mine")
    assert not any(path.is_symlink() for path in run.iterdir())
    assert stat.S_IMODE(run.stat().st_mode) == 0o700
    nginx.stop()


@takes_root
@takes_a_mount
@pytest.mark.parametrize(("variable", "value", "status"), [
    ("HOME", "{}", 0), ("XDG_STATE_HOME", "{}/state/of/mine", 1)])
def test_is_not_made_by_root_in_the_home_of_a_user(
        make_nginx, make_directory, variable, value, status):
    home = make_directory("home")
    nginx = make_nginx(environment=with_variables(**{variable: value.format(home)}))
    make_directory("orvane.app/nginx/run", STRANGER)
    assert nginx.run("-t", before=with_mount("-t tmpfs tmpfs /root"))[0] == status
    assert list(home.iterdir()) == []


@takes_root
@takes_a_mount
def test_serves_root_from_a_read_only_disk(make_nginx, make_directory):
    home = make_directory("home", ME)
    nginx = make_nginx(environment=with_variables(HOME=home))
    assert nginx.run("-t")[0] == 0
    assert list(home.iterdir()) == []
    read_only = with_mount(f"--bind -o ro {nginx.directory} {nginx.directory}")
    status, output = nginx.run("-t", before=read_only, cwd="/",
                               script=nginx.directory / "sbin/nginx")
    assert status == 0, output
    assert list(home.glob(".local/state/orvane/*/run/nginx.pid"))
