"""The size of the executable, and whether it uses every library that it names."""

import re
import subprocess
import tempfile
from pathlib import Path

from figures import Row, Series


def said_by(*command):
    return subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          check=False).stdout


def stripped_size(program):
    with tempfile.TemporaryDirectory() as directory:
        stripped = Path(directory) / "stripped"
        subprocess.run(["strip", "-o", stripped, program], check=True)
        return stripped.stat().st_size / 1024


def libraries(program):
    return re.findall(r"\(NEEDED\).*\[(.*)\]", said_by("readelf", "-d", program))


def unused_libraries(program):
    """Those that no symbol needs; ldd(1) lists their paths."""
    return [Path(line.strip()).name for line in said_by("ldd", "-u", "-r", program).splitlines()
            if line.startswith("\t")]


def rows(context):
    names, unused = libraries(context.launcher), unused_libraries(context.launcher)
    yield Row("size", "stripped executable; floor: the empty main window", "KiB",
              Series([stripped_size(context.launcher)]),
              Series([stripped_size(context.programs / "EmptyWindow")]),
              aim="no library that is not used", held=not unused,
              note="needs " + ", ".join(names) + "; not used: " + (", ".join(unused) or "none"))
