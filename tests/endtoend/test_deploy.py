"""What the buttons and the window's end do to the services, and in which order."""

import signal

import pytest
from steps import close, deploy, stop

from drive.bundle import NOTE_WHO_RUNS
from drive.processes import runs, wait_for


def test_press_acts_before_the_release_and_not_again_on_it(desktop, throw_away, launch):
    services = throw_away()
    launcher = launch(services.program)
    launcher.press("deploy")
    wait_for("the start of both services", services.deployed)
    desktop.release()
    launcher.press("stop")
    wait_for("the end of the services", lambda: not launcher.started())
    launcher.point_at("title")
    desktop.release()
    close(launcher)  # so that a late start counts too
    assert launcher.output.count("pid:") == 2
    assert services.events().count("nginx asked to stop") == 1


def test_other_presses_do_nothing(desktop, throw_away, launch):
    launcher = launch(throw_away().program)
    launcher.take_focus()
    for button in ("deploy", "stop"):  # a stop now would end the launcher
        launcher.click(button, 2)
        launcher.click(button, 3)  # gives the button the focus
        launcher.point_at("title")
        desktop.key("space")
    close(launcher)
    assert launcher.output == ""


def test_double_click_deploys_twice(throw_away, launch):
    launcher = launch(throw_away().program)
    launcher.double_click("deploy")
    close(launcher)
    assert launcher.output.count("pid:") == 4


def test_stop_ends_the_rpc_server_then_asks_nginx_to_stop_then_kills_it(throw_away, launch):
    services = throw_away(stop=NOTE_WHO_RUNS)
    launcher = launch(services.program)
    deploy(launcher, services)
    stop(launcher)
    assert services.events()[2:] == ["nginx asked to stop: rpc ended, nginx runs"]
    close(launcher)
    assert len(services.lines()) == 3, "nothing happens on close after a stop"


def test_redeploy_replaces_nginx_before_the_rpc_server(throw_away, launch):
    services = throw_away()
    launcher = launch(services.program)
    deploy(launcher, services)
    deploy(launcher, services)
    assert services.events()[2] == "nginx asked to stop"
    assert services.events().count("nginx asked to stop") == 1
    nginx, rpc = services.pids("nginx"), services.pids("rpc")
    wait_for("the end of the first services", lambda: not runs(nginx[0]) and not runs(rpc[0]))
    assert runs(nginx[1])
    assert runs(rpc[1])
    close(launcher)

    def start(pid):
        return f"Pipe ready\npid:{pid}\nMain progress ready\n"

    assert launcher.output == (start(nginx[0]) + start(rpc[0])
                               + "Progress stopped" + start(nginx[1])
                               + "Progress stopped" + start(rpc[1])
                               + "Progress stopped" * 2)


def test_close_while_deployed_stops_the_services_and_waits_for_that(throw_away, launch):
    services = throw_away(stop=NOTE_WHO_RUNS + """
    until [ -e "{journal}.go" ]; do sleep 0.05; done
    echo done >>"{journal}"
""")
    launcher = launch(services.program)
    deploy(launcher, services)
    launcher.close()
    wait_for("the stop command", lambda: services.events()[2:] == [
        "nginx asked to stop: rpc ended, nginx runs"])
    assert launcher.process.poll() is None
    services.journal.with_suffix(".go").touch()
    assert launcher.wait() == 0
    assert services.lines()[3:] == ["done"]


def test_second_stop_in_a_row_ends_by_invalid_memory_access(throw_away, launch):
    services = throw_away()
    launcher = launch(services.program)
    deploy(launcher, services)
    stop(launcher)
    deploy(launcher, services)
    stop(launcher)
    assert launcher.process.poll() is None
    launcher.click("stop")
    assert launcher.wait() == -signal.SIGSEGV
    assert services.events().count("nginx asked to stop") == 2


@pytest.mark.parametrize("number", [signal.SIGKILL, signal.SIGTERM, signal.SIGINT, signal.SIGHUP])
def test_killed_launcher_leaves_the_services_running(throw_away, launch, number):
    services = throw_away()
    launcher = launch(services.program)
    deploy(launcher, services)
    launcher.process.send_signal(number)
    assert launcher.wait() == -number
    assert runs(services.pids("nginx")[0])
    assert runs(services.pids("rpc")[0])
    assert "nginx asked to stop" not in services.events()


def test_services_that_end_by_themselves_leave_the_launcher_and_their_rows(
        throw_away, launch, assert_list_shows):
    services = throw_away(nginx="echo short; exit 3", rpc="echo brief; exit 4")
    launcher = launch(services.program)
    deploy(launcher, services)
    wait_for("the end of the services", lambda: not launcher.started())
    launcher.click("stop")
    wait_for("the stop command", lambda: services.lines()[2:] == ["nginx asked to stop"])
    assert_list_shows(launcher, "nginx", str(services.nginx), "File found", "short\n")
    assert_list_shows(launcher, "rpc", str(services.rpc), "File found", "brief\n")
    close(launcher)
