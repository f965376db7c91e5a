"""Both programs of the packages are hardened."""

import platform
import re

import pytest
from built import BUILD, run

LAUNCHER = BUILD / "orvane.app/Contents/MacOS/orvane"
RPC_SERVER = BUILD / "orvane.app/rpcServer/MacOs/rpcServer"


@pytest.fixture(params=[LAUNCHER, RPC_SERVER], ids=["launcher", "rpcServer"])
def program(request):
    """The program's file."""
    return request.param


def test_stack_protector_is_in(program):
    assert "__stack_chk_fail" in run("readelf", "--dyn-syms", "--wide", program)


def test_calls_of_the_c_library_are_fortified(program):
    assert "_chk@GLIBC" in run("readelf", "--dyn-syms", "--wide", program)


def test_program_is_loaded_at_a_place_of_chance(program):
    assert "PIE" in run("readelf", "--dynamic", "--wide", program)


def test_calls_are_bound_at_the_start(program):
    assert "BIND_NOW" in run("readelf", "--dynamic", "--wide", program)


def test_what_the_loader_has_written_is_read_only(program):
    assert "GNU_RELRO" in run("readelf", "--program-headers", "--wide", program)


def test_stack_is_not_executable(program):
    headers = run("readelf", "--program-headers", "--wide", program).splitlines()
    stack = [line for line in headers if "GNU_STACK" in line]
    assert [" RW " in line for line in stack] == [True]


@pytest.mark.skipif(platform.machine() != "x86_64", reason="only this processor has it")
def test_targets_of_indirect_calls_are_marked(program):
    code = run("objdump", "--disassemble=main", "--no-show-raw-insn", program)
    assert re.search(r"<main>:\n *[0-9a-f]+:\s+endbr64", code), code
