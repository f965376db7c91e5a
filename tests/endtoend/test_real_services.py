"""The launcher with the bundle's real nginx and RPC server, and a browser at their page."""

import socket

from steps import close, deploy_real, stop

from drive.browser import Browser
from drive.bundle import RPC_PORT, SITE_PORT, port_open, site_answers
from drive.processes import wait_for


def test_deploy_redeploy_stop_and_deploy_again(real, launch):
    launcher = launch(real.program)
    deploy_real(launcher)
    deploy_real(launcher)
    stop(launcher)
    assert not port_open(SITE_PORT)
    assert not port_open(RPC_PORT)
    deploy_real(launcher)
    close(launcher)


def test_close_right_after_deploy(real, launch):
    launcher = launch(real.program)
    launcher.click("deploy")
    close(launcher)


def test_deploy_after_a_killed_launcher(real, launch):
    killed = launch(real.program)
    deploy_real(killed)
    killed.kill()
    assert site_answers(), "the services go on"
    assert len(killed.started()) == 2
    killed.end()
    launcher = launch(real.program)
    deploy_real(launcher)
    close(launcher)


def test_tabs_name_the_ports_that_another_program_has(real, launch, ending, assert_list_shows):
    holders = [ending.enter_context(socket.create_server(("127.0.0.1", port)))
               for port in (SITE_PORT, RPC_PORT)]
    launcher = launch(real.program)
    launcher.click("deploy")
    assert_list_shows(launcher, "nginx", str(real.nginx), "File found",
                      "nginx: port 4200 is taken by another program. Close that program, then "
                      "press [Deploy Service] again.\n")
    assert_list_shows(launcher, "rpc", str(real.rpc), "File found",
                      "rpcServer: port 4201 is taken by another program, or by a server that a "
                      "killed launcher left running. End it, then press [Deploy Service] again.\n")
    for holder in holders:
        holder.close()
    deploy_real(launcher)
    close(launcher)


def test_dps_rises_after_deploy_falls_after_stop_and_rises_after_the_next_deploy(
        real, launch, ending):
    launcher = launch(real.program)
    deploy_real(launcher)
    browser = ending.enter_context(Browser())
    browser.visit()
    assert browser.dps() == 0, "before a channel is open"
    browser.click("open")
    wait_for("a DPS number above 0", lambda: browser.dps() > 0)
    stop(launcher)
    wait_for("a DPS number of 0", lambda: browser.dps() == 0)
    deploy_real(launcher)
    browser.visit()
    browser.click("open")
    wait_for("a DPS number above 0", lambda: browser.dps() > 0)
    close(launcher)
    wait_for("a DPS number of 0", lambda: browser.dps() == 0)
