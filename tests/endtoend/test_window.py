"""What the window shows, and where its bundle may lie."""

import shutil
import signal

from steps import close, deploy, stop

from drive.processes import wait_for


def contents(directory):
    """Returns every path below it, with what a change would change."""
    return {path: (path.lstat().st_mode, path.lstat().st_mtime_ns, path.lstat().st_size)
            for path in [directory, *directory.rglob("*")]}


def test_start_deploys_nothing(throw_away, launch):
    services = throw_away()
    launcher = launch(services.program)
    launcher.click("nginx")
    close(launcher)
    assert services.lines() == []
    assert launcher.output == ""


def test_lists_show_path_then_found_then_the_output_and_start_anew(
        directory, throw_away, launch, assert_list_shows):
    services = throw_away("Übergröße", nginx='echo "→ $$"; exit 3', rpc='echo "→ $$" >&2; exit 4')
    (directory / "link").symlink_to(services.program)
    launcher = launch(directory / "link")
    for _ in range(2):
        deploy(launcher, services)
        wait_for("the end of the services", lambda: not launcher.started())
        for name, program in (("nginx", services.nginx), ("rpc", services.rpc)):
            assert_list_shows(launcher, name, str(program), "File found",
                              f"→ {services.pids(name)[-1]}\n")
    close(launcher)
    assert services.events().count("nginx asked to stop") == 2  # it had ended by itself each time


def test_outside_a_bundle_nothing_is_found_and_a_second_stop_ends_it(
        directory, build, launch, assert_list_shows):
    program = directory / "bin/orvane"
    program.parent.mkdir()
    shutil.copy(build / "orvane.app/Contents/MacOS/orvane", program)
    launcher = launch(program)
    launcher.click("deploy")
    assert_list_shows(launcher, "nginx", "/nginx/sbin/nginx", "File not found")
    launcher.click("stop")
    assert_list_shows(launcher, "rpc", "/rpcServer/MacOs/rpcServer", "File not found")
    assert launcher.process.poll() is None
    assert launcher.started() == []
    launcher.click("stop")
    assert launcher.wait() == -signal.SIGSEGV
    assert launcher.output == ""


def test_blank_in_the_path_keeps_nginx_from_starting_but_not_the_rpc_server(
        throw_away, launch, assert_list_shows):
    services = throw_away("a blank")
    launcher = launch(services.program)
    launcher.click("deploy")
    wait_for("the rpc server", lambda: services.pids("rpc"))
    assert_list_shows(launcher, "nginx", str(services.nginx), "File found",
                      "bash: line 1: cd: too many arguments\n")
    close(launcher)
    assert services.events() == ["rpc started"]


def test_leaves_nothing_in_the_bundle_and_in_the_home(throw_away, directory, launch, monkeypatch):
    home = directory / "home"
    home.mkdir()
    monkeypatch.setenv("HOME", str(home))
    for kind in ("CONFIG", "DATA", "STATE", "CACHE"):
        monkeypatch.delenv(f"XDG_{kind}_HOME", raising=False)
    services = throw_away()
    before = contents(services.path)
    launcher = launch(services.program)
    deploy(launcher, services)
    stop(launcher)
    close(launcher)
    assert contents(services.path) == before
    # Fonts and pictures that the system's libraries may look up there again.
    assert [path for path in home.iterdir() if path.name != ".cache"] == []
