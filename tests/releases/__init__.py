"""Runs the tests of what is committed on bare systems; scripts/releases installs and calls this.

    systems     which systems there are
    inside      makes one of them and runs the tests in it (a shell's script)
    emulated    the tests for another processor, inside of its system (a shell's script)
    table       what CTest has written down, as a table
"""
