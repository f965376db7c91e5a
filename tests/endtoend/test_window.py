"""What the window shows, and where its bundle may lie."""

import resource
import shutil
import signal
from typing import NamedTuple

import pytest
from steps import close, deploy, stop

from drive.bundle import ThrowAway
from drive.desktop import Launcher
from drive.processes import wait_for

both_services = pytest.mark.parametrize("service", ["nginx", "rpc"])


class Window(NamedTuple):
    """A launcher in its window, and the services of its bundle."""

    launcher: Launcher
    services: ThrowAway


@pytest.fixture
def idle(throw_away, launch):
    """A launcher that nobody has pressed a button of."""
    services = throw_away()
    return Window(launch(services.program), services)


@pytest.fixture
def deploy_once():
    """deploy_once(window): deploys services that end by themselves, and waits for that."""
    def deploy_once_more(window):
        deploy(window.launcher, window.services)
        wait_for("the end of the services", lambda: not window.launcher.started())

    return deploy_once_more


@pytest.fixture
def deployed(directory, throw_away, launch, deploy_once):
    """A launcher in a path of many letters, started by a link; its services have ended."""
    services = throw_away("Übergröße", nginx='echo "→ $$"; exit 3', rpc='echo "→ $$" >&2; exit 4')
    (directory / "link").symlink_to(services.program)
    window = Window(launch(directory / "link"), services)
    deploy_once(window)
    return window


@pytest.fixture
def outside(directory, build, launch):
    """A launcher that lies in no bundle and has been told to deploy."""
    program = directory / "bin/orvane"
    program.parent.mkdir()
    shutil.copy(build / "orvane.app/Contents/MacOS/orvane", program)
    launcher = launch(program)
    launcher.click("deploy")
    return launcher


@pytest.fixture
def blank(throw_away, launch):
    """A launcher whose bundle lies in a path with a blank; it has started what it can."""
    services = throw_away("a blank")
    window = Window(launch(services.program), services)
    window.launcher.click("deploy")
    wait_for("the RPC server", lambda: services.pids("rpc"))
    return window


def contents(directory):
    """Returns every path below it, with what a change would change."""
    return {path: (path.lstat().st_mode, path.lstat().st_mtime_ns, path.lstat().st_size)
            for path in [directory, *directory.rglob("*")]}


def found(window, service):
    """Returns the rows that come before a service's own."""
    program = {"nginx": window.services.nginx, "rpc": window.services.rpc}[service]
    return [str(program), "File found"]


def rows(window, service):
    """Returns the rows after the latest deploy."""
    return [*found(window, service), f"→ {window.services.pids(service)[-1]}\n"]


def test_start_deploys_nothing(idle):
    idle.launcher.click("nginx")
    close(idle.launcher)
    assert idle.services.lines() == []


def test_start_writes_nothing(idle):
    close(idle.launcher)
    assert idle.launcher.output == ""


@both_services
def test_list_shows_path_then_found_then_the_output(service, deployed, assert_list_shows):
    assert_list_shows(deployed.launcher, service, *rows(deployed, service))


@both_services
def test_list_starts_anew_with_a_deploy(service, deployed, deploy_once, assert_list_shows):
    deploy_once(deployed)
    assert_list_shows(deployed.launcher, service, *rows(deployed, service))


def test_nginx_that_has_ended_by_itself_is_asked_to_stop_all_the_same(deployed):
    close(deployed.launcher)
    assert deployed.services.events().count("nginx asked to stop") == 1


@pytest.mark.parametrize("service, path", [
    pytest.param("nginx", "/nginx/sbin/nginx", id="nginx"),
    pytest.param("rpc", "/rpcServer/MacOs/rpcServer", id="rpc")])
def test_outside_a_bundle_a_service_is_looked_for_at_the_root(
        service, path, outside, assert_list_shows):
    assert_list_shows(outside, service, path, "File not found")


def test_outside_a_bundle_nothing_is_started(outside, assert_list_shows):
    assert_list_shows(outside, "rpc", "/rpcServer/MacOs/rpcServer", "File not found")
    assert outside.started() == []


def test_outside_a_bundle_the_first_stop_does_nothing(outside, assert_list_shows):
    outside.click("stop")
    assert_list_shows(outside, "rpc", "/rpcServer/MacOs/rpcServer", "File not found")


def test_second_stop_in_a_row_ends_the_launcher(outside):
    outside.click("stop")
    outside.click("stop")
    assert outside.wait() == -signal.SIGSEGV


def test_blank_in_the_path_is_said_by_nginxs_shell(blank, assert_list_shows):
    assert_list_shows(blank.launcher, "nginx", str(blank.services.nginx), "File found",
                      "bash: line 1: cd: too many arguments\n")


def test_blank_in_the_path_keeps_nginx_from_starting_but_not_the_rpc_server(blank):
    close(blank.launcher)
    assert blank.services.events() == ["rpc started"]


@pytest.fixture
def exhausted(desktop, build, throw_away, ending):
    """A launcher, started by itself, that has deployed until it may open no more descriptors."""
    services = throw_away()
    launcher = ending.enter_context(Launcher(
        desktop, services.program, landmarks=build / "landmarks",
        prepare=lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (64, 64))))
    for _ in range(40):  # two descriptors each
        launcher.click("deploy")
    wait_for("the end of the services that were started", lambda: (
        services.pids("rpc") and not launcher.started()))
    return Window(launcher, services)


@both_services
def test_list_says_found_only_where_no_descriptor_is_left(service, exhausted, assert_list_shows):
    assert_list_shows(exhausted.launcher, service, *found(exhausted, service))


def test_output_says_what_fails_where_no_descriptor_is_left(exhausted):
    exhausted.launcher.close()
    exhausted.launcher.wait()
    assert "Pipe created fail\n" in exhausted.launcher.output


@pytest.fixture
def home_of_its_own(directory, monkeypatch):
    """An empty home for the launcher."""
    home = directory / "home"
    home.mkdir()
    monkeypatch.setenv("HOME", str(home))
    for kind in ("CONFIG", "DATA", "STATE", "CACHE"):
        monkeypatch.delenv(f"XDG_{kind}_HOME", raising=False)
    return home


def use(window):
    """Deploys, stops and closes."""
    deploy(window.launcher, window.services)
    stop(window.launcher)
    close(window.launcher)


def test_leaves_nothing_in_the_bundle(idle):
    before = contents(idle.services.path)
    use(idle)
    assert contents(idle.services.path) == before


def test_leaves_nothing_in_the_home(home_of_its_own, idle):
    use(idle)
    # Fonts and pictures that the system's libraries may look up there again.
    assert [path for path in home_of_its_own.iterdir() if path.name != ".cache"] == []
