"""scripts/demo, which shows the launcher where there is no display."""

import subprocess

from PIL import Image

from drive.processes import end

PICTURES = ("directions", "nginx", "page", "rpc")
# sbin/nginx with this kills the launcher, whose session it is, at the end of a stop.
KILL_THE_LAUNCHER = "[[ $* != '-s stop' ]] || trap 'kill -KILL $(ps -o sid= $$)' EXIT\n"


def demonstrate(project, *words):
    """Returns its exit status and what it wrote."""
    demo = subprocess.Popen([project / "scripts/demo", *words], stdout=subprocess.PIPE,
                            stderr=subprocess.STDOUT, text=True)
    try:
        output = demo.communicate()[0]
    finally:
        end(demo)  # which ends what it has started, when this takes too long
    return demo.returncode, output


def test_takes_a_picture_of_each_tab_and_of_the_page(project, build):
    pictures = project / "build/demo"
    pictures.mkdir(parents=True, exist_ok=True)
    (pictures / "of an earlier one.png").touch()
    status, output = demonstrate(project, build / "orvane.app/Contents/MacOS/orvane")
    assert status == 0, output
    assert sorted(path.stem for path in pictures.iterdir()) == sorted(PICTURES)
    seen = {}
    for name in PICTURES:
        with Image.open(pictures / f"{name}.png") as picture:
            assert len(picture.convert("RGB").getcolors(2 ** 24)) > 10, f"{name} is blank"
            seen[picture.tobytes()] = name
    assert len(seen) == len(PICTURES), "two pictures are the same"


def test_fails_when_the_launcher_does(project, build, real):
    script = real.nginx.read_text()
    first, others = script.split("\n", 1)
    real.nginx.write_text(f"{first}\n{KILL_THE_LAUNCHER}{others}")
    (real.path.parent / "landmarks").symlink_to(build / "landmarks")
    status, output = demonstrate(project, real.program)
    assert status != 0
    assert "exit status is -9" in output


def test_without_a_launcher_says_what_it_takes(project):
    status, output = demonstrate(project)
    assert status != 0
    assert output.startswith("scripts/demo <launcher>")
