"""What a newcomer's machine may lack, and what the scripts say then."""

import os
import subprocess

import pytest

BUILD_REACHED = "== configure the release preset"
TESTS_REACHED = "== configure the dev preset"
FAILED = "{}/scripts/run: this step failed: install what is missing (status {})"
MAC = {  # name of a program of a Mac -> what it does
    "uname": "echo Darwin",
    "cmake": 'echo "Qt $CMAKE_PREFIX_PATH ${PATH%%:*}" >>"$LOG"',
    "brew": 'echo "/$2"; [ $1 != list ] || [[ " ${MISSING-} " != *" $2 "* ]] || ! echo no >&2',
}


@pytest.mark.parametrize("name", ["a b", "a'b", "a$b", "a;b", "a(b", "a*b", "a[b", "a\tb"])
def test_path_that_nginx_cannot_start_in_is_said_before_anything_is_done(make_machine, name):
    machine = make_machine(name)
    result = machine.run("run")
    assert result.status == 1
    assert result.errors == [f"{machine.project}/scripts/run: {machine.project} has a blank or a "
                             "character of the shell, so nginx cannot start there: move it."]
    assert not machine.log.exists()


@pytest.mark.parametrize("name", ["plain", "a,b@c=d+e-f_g%h^i~j#k", "ö", os.fsdecode(b"\xf6")])
def test_path_that_nginx_can_start_in_is_not_worth_a_word(make_machine, name):
    assert BUILD_REACHED in make_machine(name).run("run").output


def test_machine_with_all_packages_needs_no_package_manager_and_no_rights(machine):
    assert BUILD_REACHED in machine.run("run", MAY="no").output
    assert machine.calls("apt-get", "sudo") == []


def test_machine_without_apt_goes_on_and_reads_what_must_be_there(machine):
    (machine.tools / "apt-get").unlink()
    result = machine.run("run", MISSING="make ninja-build")
    assert result.output[1] == ("No apt-get here. What these Debian packages hold must be there: "
                                "make ninja-build")
    assert BUILD_REACHED in result.output


@pytest.fixture
def mac(machine):
    """A Mac with Homebrew."""
    for name, does in MAC.items():
        machine.put(machine.tools / name, does)
    return machine


@pytest.mark.parametrize("missing, installs", [
    pytest.param("", [], id="nothing"),
    pytest.param("cmake qt@5", ["brew install cmake qt@5"], id="two packages")])
def test_macos_gets_what_is_missing_from_homebrew(mac, missing, installs):
    assert mac.run("run", MISSING=missing).status == 0
    assert [call for call in mac.calls("brew") if "install" in call] == installs
    assert mac.calls("apt-get") == []


def test_macos_builds_with_the_toolkit_of_homebrew(mac):
    mac.run("run")
    assert mac.calls("Qt") == ["Qt /qt@5 /qt@5/bin"] * 2  # to configure and to build


def test_macos_opens_the_program_itself(mac):
    mac.run("run")
    assert mac.calls("orvane", "orvane-launcher") == ["orvane"]


@pytest.fixture(params=["sudo is not installed", "sudo is not allowed"])
def without_rights(request, machine):
    """run(script, **variables) on a machine whose user may install nothing."""
    if request.param == "sudo is not installed":
        (machine.tools / "sudo").unlink()

    def run(script, **variables):
        result = machine.run(script, MAY="no", **variables)
        return result._replace(errors=[line for line in result.errors if line[:5] != "sudo:"])

    return run


@pytest.mark.parametrize("missing, lists, command", [
    pytest.param("cmake make", {}, "apt-get install --no-install-recommends cmake make",
                 id="packages"),
    # With systemd and without: both programs are in an essential package.
    pytest.param("nginx", {}, "apt-get install --no-install-recommends nginx "
                 "&& update-rc.d nginx disable && service nginx stop", id="nginx"),
    pytest.param("make", {"NO_LISTS": "yes"},
                 "apt-get update && apt-get install --no-install-recommends make",
                 id="and apt has no lists")])
def test_missing_right_is_said_with_the_command_that_installs(
        machine, without_rights, missing, lists, command):
    result = without_rights("run", MISSING=missing, **lists)
    assert result.errors == ["Packages are missing, and you may not install them. As root, run:",
                             f"  {command}", FAILED.format(machine.project, 1)]


def test_missing_right_is_no_reason_to_name_packages_that_do_not_exist(without_rights):
    result = without_rights("run", MISSING="make", LACKS="make")
    assert [error.split(": ")[1] for error in result.errors] == [
        "This system lacks make. Debian 12 and 13 have what it takes."]


def test_missing_right_to_install_linters_is_said_and_the_rest_is_tested(without_rights):
    result = without_rights("test", MISSING="tidy cppcheck")
    assert result.output[1] == ("The checks that need these packages are skipped, since you may "
                                "not install them: cppcheck tidy")
    assert TESTS_REACHED in result.output


@pytest.mark.parametrize("rights", [{}, {"MAY": "no"}], ids=["may install", "may not install"])
def test_linters_that_the_release_does_not_have_are_named_and_the_rest_is_tested(machine, rights):
    lacking = "clang-format-19 clang-tidy-19"
    result = machine.run("test", MISSING=lacking, LACKS=lacking, **rights)
    assert result.output[1] == (f"This release does not have {lacking}: "
                                "the checks that need them are skipped.")
    assert TESTS_REACHED in result.output
    assert machine.calls("apt-get", "sudo") == []


@pytest.mark.parametrize("lists", [{}, {"NO_LISTS": "at first"}], ids=["lists", "no lists yet"])
def test_linters_that_the_release_has_are_installed_beside_those_that_it_lacks(machine, lists):
    machine.run("test", MISSING="clang-format-19 tidy", LACKS="clang-format-19", **lists)
    assert machine.calls("apt-get")[-1].endswith(" install -y --no-install-recommends tidy")


def test_package_that_the_tests_need_is_not_optional(machine):
    result = machine.run("test", MISSING="lintian", LACKS="lintian")
    assert result.status == 1
    assert "This system lacks lintian." in result.errors[0]


def test_package_whose_configuration_alone_is_there_is_installed(machine):
    machine.run("run", REMOVED="nginx")
    assert [call.split()[-1] for call in machine.calls("apt-get")] == ["update", "nginx"]


def test_translated_package_manager_is_understood(machine):
    result = machine.run("run", MISSING="make", LC_ALL="", LANG="nl_NL.UTF-8")
    assert BUILD_REACHED in result.output, result.errors


def test_busy_package_manager_is_waited_for(machine):
    output = machine.run("run", MISSING="make", LOCKED="3").output
    assert output.count("Another program is at the packages: waiting until it has ended.") == 1
    assert machine.calls("sleep") == ["sleep 2"] * 3
    assert BUILD_REACHED in output


def test_busy_packages_are_waited_for_by_the_package_manager(machine):
    machine.run("run", MISSING="make")
    assert " -o DPkg::Lock::Timeout=600 install " in machine.calls("apt-get")[-1]


@pytest.mark.parametrize("apt_get, status, said", [
    pytest.param('echo "E: no network" >&2; exit 100', 1, ["E: no network"], id="no network"),
    pytest.param('[ "$4" != install ] || kill -INT $PPID', 130, [], id="SIGINT"),
    pytest.param('[ "$4" != install ] || kill -TERM $PPID', 143, [], id="SIGTERM")])
def test_install_that_ends_early_ends_the_script_and_is_named(machine, apt_get, status, said):
    machine.put(machine.tools / "apt-get", apt_get)
    result = machine.run("run", MISSING="make")
    assert result.status == status
    assert result.errors == [*said, FAILED.format(machine.project, status)]


@pytest.mark.parametrize("variables, said", [
    pytest.param({"CMAKE_VERSION": "3.18.4-2", "MAY": "no"},
                 "lacks CMake 3.21. Debian 12 and 13 have", id="CMake is too old"),
    pytest.param({"LACKS": "make"}, "lacks make.", id="package"),
    pytest.param({"NO_LISTS": "yes"}, "look at the network", id="all lists")])
def test_release_that_does_not_have_it_is_said_before_anything_is_done(machine, variables, said):
    result = machine.run("run", MISSING="make", **variables)
    assert result.status == 1
    assert [line for line in result.errors if said in line] == result.errors[:1]
    assert not any("install" in call for call in machine.calls("apt-get"))


@pytest.fixture
def installed(machine):
    """A machine that has just installed a package."""
    machine.run("run", MISSING="make")
    return machine


@pytest.mark.parametrize("asked, answer", [
    pytest.param(["--quiet", "nginx", "start"], 101, id="nginx"),
    pytest.param(["nginx.service", "start"], 101, id="nginx as a unit"),
    pytest.param(["supervisor", "start"], 101, id="supervisor"),
    pytest.param(["ssh", "restart"], 0, id="another program")])
def test_only_services_that_came_along_are_kept_from_starting_meanwhile(installed, asked, answer):
    policy = installed.log.with_suffix(".policy")
    assert subprocess.run(["sh", policy, *asked], check=False).returncode == answer


def test_policy_stands_while_the_packages_go_in_and_then_goes(installed):
    calls = [call for call in installed.calls("sudo") if "policy" in call or " install " in call]
    assert [call.split()[1] for call in calls] == ["tee", "chmod", "env", "rm"]
    assert calls[1] == f"sudo chmod 755 {installed.policy}"
    assert calls[3] == f"sudo rm -f {installed.policy}"


def test_policy_that_was_there_stays_as_it_is(machine):
    machine.policy.touch()
    machine.run("run", MISSING="make")
    assert not [call for call in machine.calls("sudo") if str(machine.policy) in call]


def test_policy_goes_when_the_packages_do_not_go_in(installed):
    installed.put(installed.tools / "apt-get", '[ "$4" != install ]')
    installed.run("run", MISSING="make")
    assert installed.calls("sudo")[-1] == f"sudo rm -f {installed.policy}"


@pytest.mark.parametrize("missing, off", [
    pytest.param("make nginx", ["sudo update-rc.d nginx disable"], id="it came along"),
    pytest.param("make", [], id="it was there")])
def test_nginx_that_came_along_stays_off_and_another_is_left_alone(machine, missing, off):
    machine.run("run", MISSING=missing)
    assert [call for call in machine.calls("sudo") if "update-rc.d" in call] == off


@pytest.mark.parametrize("script, variables, missing", [
    pytest.param("run", {}, "xvfb", id="run without a display"),
    pytest.param("run", {"WAYLAND_DISPLAY": "w"}, "qtwayland5", id="run under Wayland"),
    pytest.param("run", {"ID": "0", "MAY": "no"}, "make", id="run as root"),
    pytest.param("test", {}, "xvfb", id="test: what the demonstration takes"),
    pytest.param("test", {}, "shellcheck", id="test: a linter"),
    pytest.param("soak", {}, "chromium-driver", id="soak"),
    pytest.param("fuzz", {}, "clang", id="fuzz")])
def test_script_installs_what_it_takes(machine, script, variables, missing):
    machine.run(script, "5", MISSING=missing, **variables)
    assert machine.calls("apt-get")[-1].endswith(f"--no-install-recommends {missing}")
