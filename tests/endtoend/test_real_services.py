"""The launcher with the bundle's real nginx and RPC server."""

import os
import resource

import psutil
from steps import close, deploy_real, stop

from drive.bundle import RPC_PORT, port_open, site_answers, wait_for_closed_ports
from drive.desktop import Launcher
from drive.processes import running, wait_for


def serving(launcher):
    """Returns the process ids of its children, by the ports that they listen on."""
    return {connection.laddr.port: child.pid for child in psutil.Process(launcher.pid).children()
            if running(child) for connection in child.connections()
            if connection.status == psutil.CONN_LISTEN}


def test_deploy_redeploy_stop_deploy_and_close_right_after_a_redeploy(real, launch):
    launcher = launch(real.program)
    deploy_real(launcher)
    deploy_real(launcher)
    stop(launcher)
    wait_for_closed_ports()
    deploy_real(launcher)
    launcher.click("deploy")
    close(launcher)


def test_services_run_beside_more_descriptors_than_select_can_hold(real, desktop, build, ending):
    def leave_them_open():  # as many deploys do; the highest number that select(2) takes is 1,023
        resource.setrlimit(resource.RLIMIT_NOFILE, (4096, 4096))
        for number in range(3, 1500):
            os.dup2(0, number)
        os.execve(real.program, [real.program], desktop.environment)

    launcher = ending.enter_context(Launcher(
        desktop, real.program, landmarks=build / "landmarks", prepare=leave_them_open))
    assert len(os.listdir(f"/proc/{launcher.pid}/fd")) > 1024
    deploy_real(launcher)
    stop(launcher)
    close(launcher)


def test_one_press_recovers_from_a_killed_launcher(real, launch):
    launcher = launch(real.program)
    deploy_real(launcher)
    for _ in range(3):
        launcher.kill()
        assert site_answers(), "the services go on"
        assert port_open(RPC_PORT)
        launcher = launch(real.program)
        launcher.click("deploy")
        wait_for("both new services", lambda who=launcher: len(serving(who)) == 2)
    close(launcher)


def test_second_launcher_leaves_the_services_of_the_first_alone(real, launch):
    first = launch(real.program)
    deploy_real(first)
    before = serving(first)
    second = launch(real.program)  # in front of the first
    for button in ("deploy", "deploy", "stop", "deploy"):
        second.click(button)

    def all_ended():
        started = psutil.Process(second.pid).children()  # which it never waits for
        return len(started) == 6 and not any(map(running, started))

    wait_for("the end of all that it has started", all_ended)
    assert serving(first) == before
    first.kill()
    second.click("deploy")
    wait_for("both services are its own", lambda: len(serving(second)) == 2)
    close(second)
