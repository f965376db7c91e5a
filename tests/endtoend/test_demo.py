"""scripts/demo, which shows the launcher where there is no display."""

import shutil
import subprocess

import pytest
from PIL import Image

from drive.processes import end, processes_below


def demonstrate(project, *words):
    """Returns its exit status and what it wrote."""
    demo = subprocess.Popen(["env", "-u", "PYTHONPATH", project / "scripts/demo", *words],
                            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
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
    assert (status, output.count("demo: ")) == (0, 8), output
    seen = {path.stem: Image.open(path).convert("RGB") for path in pictures.iterdir()}
    assert sorted(seen) == ["directions", "nginx", "page", "rpc"]
    assert all(len(picture.getcolors(2 ** 24)) > 10 for picture in seen.values()), "one is blank"
    assert len({picture.tobytes() for picture in seen.values()}) == 4, "two are the same"


# The launcher leads the session of sbin/nginx, and is a child of the demonstration.
@pytest.mark.parametrize("file, line, status, said", [
    ("sbin/nginx", "[[ $* != '-s stop' ]] || trap 'kill -KILL $(ps -o sid= $$)' EXIT",
     1, "demo: failed: close the window: the launcher's exit status is -9"),
    ("html/page.js", "const all = draw;"
     "draw = frame => { all(frame); if (frame.number > 25) draw = () => {}; };",
     1, "demo: failed: open the page in a browser, and a channel on it: the picture does not move"),
    ("sbin/nginx", "kill -TERM $(ps -o ppid= $(ps -o sid= $$))",
     143, "demo: click on deploy, and wait until the services answer")])
def test_says_what_fails_and_leaves_nothing_behind(project, build, real, file, line, status, said):
    broken = real.path / "nginx" / file
    first, others = broken.read_text().split("\n", 1)
    broken.write_text(f"{first}\n{line}\n{others}")
    shutil.rmtree(project / "build/demo", ignore_errors=True)  # as if it were the first time
    (real.path.parent / "landmarks").symlink_to(build / "landmarks")
    ended, output = demonstrate(project, real.program)
    assert (ended, output.splitlines()[-1]) == (status, said)
    assert not processes_below(real.path)


def test_without_a_launcher_says_what_it_takes(project):
    assert demonstrate(project)[1].startswith("scripts/demo <launcher>")
