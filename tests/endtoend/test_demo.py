"""scripts/demo, which shows the launcher where there is no display."""

import subprocess

from PIL import Image

from drive.processes import end

PICTURES = ("directions", "nginx", "page", "rpc")
# sbin/nginx with this kills the launcher, whose session it is, at the end of a stop.
KILL_THE_LAUNCHER = "[[ $* != '-s stop' ]] || trap 'kill -KILL $(ps -o sid= $$)' EXIT\n"


def demonstrate(project, program):
    """Returns its exit status and what it wrote."""
    demo = subprocess.Popen([project / "scripts/demo", program], stdout=subprocess.PIPE,
                            stderr=subprocess.STDOUT, text=True)
    try:
        output = demo.communicate()[0]
    finally:
        end(demo)  # which ends what it has started, when this takes too long
    return demo.returncode, output


def test_takes_a_picture_of_each_tab_and_of_the_page(project, build):
    status, output = demonstrate(project, build / "orvane.app/Contents/MacOS/orvane")
    assert status == 0, output
    seen = {}
    for name in PICTURES:
        with Image.open(project / f"build/demo/{name}.png") as picture:
            assert len(picture.convert("RGB").getcolors(2 ** 24)) > 10, f"{name} is blank"
            seen[picture.tobytes()] = name
    assert sorted(seen.values()) == sorted(PICTURES), "two pictures are the same"


def test_fails_when_the_launcher_does(project, build, real):
    script = real.nginx.read_text()
    first, others = script.split("\n", 1)
    real.nginx.write_text(f"{first}\n{KILL_THE_LAUNCHER}{others}")
    (real.path.parent / "landmarks").symlink_to(build / "landmarks")
    status, output = demonstrate(project, real.program)
    assert status != 0
    assert "exit status is -9" in output
