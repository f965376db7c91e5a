"""Where nginx writes when the bundle is not its user's to write in."""

import os
import stat

import pytest
from machine import (ME, USER, assert_nothing_left, assert_one_line, is_locked, takes_a_mount,
                     takes_root, with_mount)

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
    start = nginx.run()
    assert_one_line(start.output, "no place to write", f"{nginx.directory}/run ",
                    "[Deploy Service]")
    assert start.status == 1


STATE = pytest.mark.parametrize(("variables", "base"), [
    pytest.param({}, ".local/state", id="of the home"),
    pytest.param({"XDG_STATE_HOME": "{}/state"}, "state", id="of the environment"),
    # which would lie in the bundle
    pytest.param({"XDG_STATE_HOME": "html"}, ".local/state", id="not a relative one"),
    # which goes with the session
    pytest.param({"XDG_RUNTIME_DIR": "{}"}, ".local/state", id="not that of the session")])


@pytest.fixture
def home(make_directory):
    """The user's home."""
    return make_directory("home")


@pytest.fixture
def deploy_shipped(shipped, home):
    """deploy_shipped(variables): one that serves; {} in a value is the home."""
    def deploy(variables):
        nginx = shipped(HOME=home, **{name: at.format(home) for name, at in variables.items()})
        os.chown(nginx.directory / "html", USER, -1)
        nginx.deploy()
        return nginx

    return deploy


@STATE
def test_is_below_the_state_directory_as_the_row_says(deploy_shipped, home, variables, base):
    nginx = deploy_shipped(variables)
    assert_one_line(
        nginx.output, f"{nginx.directory}/run is not a directory that only this user may write in",
        f"nginx writes in {home}/{base}/orvane/nginx")


@STATE
def test_is_the_only_thing_that_is_made_in_the_home(deploy_shipped, home, variables, base):
    deploy_shipped(variables)
    assert [path.name for path in home.iterdir()] == [base.split("/")[0]]


def test_is_made_instead_of_one_in_the_bundle(deploy_shipped):
    assert not deploy_shipped({}).run_directory.exists()


def test_is_where_nginx_keeps_its_lock(deploy_shipped, home):
    deploy_shipped({})
    made, = (home / ".local/state/orvane").iterdir()
    assert is_locked(made / "run/serving")


def test_is_this_users_alone(deploy_shipped, home):
    deploy_shipped({})
    made, = (home / ".local/state/orvane").iterdir()
    seen = {path: (stat.S_IMODE(path.stat().st_mode), path.stat().st_uid)
            for path in (home / ".local/state", made.parent, made, made / "run")}
    assert seen == dict.fromkeys(seen, (0o700, USER))


def test_leads_to_the_page_of_the_bundle(deploy_shipped):
    nginx = deploy_shipped({})
    assert ask()[1] == (nginx.directory / "html/index.html").read_text(encoding="utf-8")


def test_is_where_a_stop_looks(deploy_shipped):
    nginx = deploy_shipped({})
    assert nginx.stop_command() == (0, "")
    assert_nothing_left(nginx)


def test_is_not_made_where_the_bundle_can_be_written(deploy_nginx, make_directory):
    state = make_directory("state")
    nginx = deploy_nginx(user=USER, environment=with_variables(XDG_STATE_HOME=state))
    assert list(state.iterdir()) == []
    assert nginx.serving_file.exists()


@pytest.mark.parametrize(("one", "other"), [
    pytest.param("a9.app", "a9-app", id="in a character that no directory keeps"),
    pytest.param("1" + "x" * 80, "2" + "x" * 80, id="far from the end")])
def test_differs_between_bundles_whose_paths_differ(shipped, make_directory, one, other):
    state = make_directory("state")
    for name in (one, other):
        shipped(name, XDG_STATE_HOME=state).run("-t")
    assert len(list((state / "orvane").iterdir())) == 2


def test_has_a_short_name(shipped, make_directory):
    state = make_directory("state")
    shipped("x" * 200, XDG_STATE_HOME=state).run("-t")
    made, = (state / "orvane").iterdir()
    assert len(made.name) < 100


def test_has_the_letters_and_digits_of_the_path(shipped, make_directory):
    state = make_directory("state")
    shipped("a9.b", XDG_STATE_HOME=state).run("-t")
    made, = (state / "orvane").iterdir()
    assert "-a9-b-orvane-app-nginx-" in made.name


@pytest.mark.parametrize("mode", [pytest.param(0o707, id="everybody"),
                                  pytest.param(0o770, id="the group")])
def test_is_not_one_that_others_may_write_in(shipped, make_directory, mode):
    state = make_directory("state")
    make_directory("state/orvane", mode=mode)
    assert_refuses(shipped(XDG_STATE_HOME=state))


@pytest.mark.parametrize("target", ["elsewhere", "nowhere"], ids="to {}".format)
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
def test_is_not_made_in_what_belongs_to_another_user(shipped, make_directory):
    base = make_directory("base", STRANGER, 0o777)
    assert_refuses(shipped(XDG_STATE_HOME=base))
    assert list(base.iterdir()) == []


@takes_root
def test_is_not_one_of_another_user(shipped, make_directory):
    make_directory("base", USER, 0o777)
    theirs = make_directory("base/orvane", STRANGER, 0o777)
    assert_refuses(shipped(XDG_STATE_HOME=theirs.parent))
    assert list(theirs.iterdir()) == []


@pytest.mark.parametrize(("user", "mode"), [
    pytest.param(STRANGER, 0o700, marks=takes_root, id="another user's"),
    pytest.param(USER, 0o720, id="the group's as well"),
    pytest.param(USER, 0o702, id="everybody's")])
def test_is_used_where_the_run_directory_is_not_this_users_alone(
        make_nginx, make_directory, directory, user, mode):
    nginx = make_nginx(user=USER, environment=with_variables(HOME=make_directory("home")))
    found = make_directory("orvane.app/nginx/run", user, mode)
    nginx.deploy()
    assert_one_line(nginx.output, f"nginx writes in {directory}/home/.local/state/orvane/")
    assert list(found.iterdir()) == []


def test_is_used_where_the_run_directory_is_a_link(make_nginx, make_directory, directory):
    nginx = make_nginx(user=USER, environment=with_variables(HOME=make_directory("home")))
    elsewhere = make_directory("elsewhere")
    nginx.run_directory.symlink_to(elsewhere)
    nginx.deploy()
    assert_one_line(nginx.output, f"nginx writes in {directory}/home/.local/state/orvane/")
    assert list(elsewhere.iterdir()) == []


@pytest.fixture
def elsewhere(make_directory):
    """A directory, with a file in it."""
    elsewhere = make_directory("elsewhere", ME)
    (elsewhere / "kept").write_text("mine")
    return elsewhere


@pytest.fixture
def run_with_links(make_nginx, make_directory, elsewhere):
    """The run directory of an nginx that serves. Links had nginx's names there, and led there."""
    nginx = make_nginx()
    run = make_directory("orvane.app/nginx/run", ME, 0o755)
    for name in ("nginx.pid", "nginx.lock", "serving"):
        (run / name).symlink_to(elsewhere / "kept")
    for name in ("ipv6.conf", "proxy"):
        (run / name).symlink_to(elsewhere)
    (run / "ipv6x.conf").write_text("nonsense;")
    nginx.deploy()
    assert nginx.output == ""
    return run


def test_has_no_link_left_that_was_in_it(run_with_links):
    assert [path for path in run_with_links.iterdir() if path.is_symlink()] == []


def test_has_nothing_made_where_a_link_in_it_led(run_with_links, elsewhere):
    assert [path.name for path in elsewhere.iterdir()] == ["kept"], run_with_links


def test_has_nothing_written_where_a_link_in_it_led(run_with_links, elsewhere):
    assert (elsewhere / "kept").read_text() == "mine", run_with_links


def test_is_closed_to_everybody_else(run_with_links):
    assert stat.S_IMODE(run_with_links.stat().st_mode) == 0o700


@takes_root
@takes_a_mount
@pytest.mark.parametrize(("variable", "value"), [
    pytest.param("HOME", "{}", id="which HOME names"),
    pytest.param("XDG_STATE_HOME", "{}/state/of/mine", id="which XDG_STATE_HOME names")])
def test_is_not_made_by_root_in_the_home_of_a_user(make_nginx, make_directory, variable, value):
    home = make_directory("home")
    nginx = make_nginx(environment=with_variables(**{variable: value.format(home)}))
    make_directory("orvane.app/nginx/run", STRANGER)
    nginx.run("-t", before=with_mount("-t tmpfs tmpfs /root"))
    assert list(home.iterdir()) == []


@takes_root
@takes_a_mount
def test_is_that_of_root_when_home_is_a_users(make_nginx, make_directory):
    nginx = make_nginx(environment=with_variables(HOME=make_directory("home")))
    make_directory("orvane.app/nginx/run", STRANGER)
    test = nginx.run("-t", before=with_mount("-t tmpfs tmpfs /root"))
    assert "/root/.local/state/orvane/" in test.output
    assert test.status == 0


@takes_root
@takes_a_mount
def test_serves_root_from_a_read_only_disk(make_nginx, make_directory):
    home = make_directory("home", ME)
    nginx = make_nginx(environment=with_variables(HOME=home))
    read_only = with_mount(f"--bind -o ro {nginx.directory} {nginx.directory}")
    test = nginx.run("-t", before=read_only, cwd="/", script=nginx.directory / "sbin/nginx")
    assert f"{home}/.local/state/orvane/" in test.output
    assert test.status == 0


@takes_a_mount
def test_says_that_the_disk_may_be_full(make_nginx, make_directory):
    state = make_directory("state", ME)
    nginx = make_nginx(environment=with_variables(XDG_STATE_HOME=state))
    nginx.run_directory.symlink_to(state)
    start = nginx.run(before=with_mount(
        f"-t tmpfs -o mode=700,nr_inodes=1 tmpfs {state}"))
    assert_one_line(start.output, "no place to write", "disk has room", "[Deploy Service]")
