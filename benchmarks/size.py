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
    empty = stripped_size(context.programs / "EmptyWindow")
    yield Row("size", "the stripped executable", "KiB", Series([stripped_size(context.launcher)]),
              aim="no library that is not used", held=not unused,
              note=f"needs {', '.join(names)}; not used: {', '.join(unused) or 'none'}; the empty "
                   f"main window has {empty:.0f} KiB")
