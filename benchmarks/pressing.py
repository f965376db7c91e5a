"""The rows of the two buttons: deploy, and stop."""

import os
import select
import subprocess

from desktop import Desktop, Launcher
from figures import Row, Series, take_turns
from stage import Bundle, SampleBundle
from window import PATIENCE, Watcher, memory, milliseconds, press, settle

PRESSES = 5  # of each button in one launcher


class Deployed:
    """One launcher in its window, deployed and stopped again and again with real presses."""

    def __init__(self, context, screen, bundle, watcher):
        self.bundle, self.watcher = bundle, watcher
        self.launcher = Launcher(screen, bundle.executable, landmarks=context.landmarks)
        self.screen = screen

    def deploy(self):
        """The milliseconds from the press to the first instruction of the later child, if the
        bundle's services tell."""
        self.bundle.forget()
        self.launcher.point_at("deploy")
        settle(self.launcher.pid)
        before = press(self.screen)
        last, self.rpc = self.bundle.started()
        self.screen.release()
        return last and milliseconds(last - before)

    def stop(self):
        """The milliseconds from the press until the event loop answers again.

        The question must not be asked before the slot runs: the toolkit collects what the server
        sent and answers a ping at once, but delivers a press afterwards. The first thing that the
        slot does is to kill the RPC server; so the question is asked when that one has ended, and
        waits in the queue while the stop command runs."""
        self.launcher.point_at("stop")
        settle(self.launcher.pid)
        self.watcher.forget()
        ended = os.pidfd_open(self.rpc)
        if select.select([ended], [], [], 0)[0]:
            raise RuntimeError("the RPC server has ended before the press")
        before = press(self.screen)
        if not select.select([ended], [], [], PATIENCE)[0]:
            raise TimeoutError("the RPC server does not end")
        back = self.watcher.answer_to_ping(self.launcher.window)
        os.close(ended)
        self.screen.release()
        return milliseconds(back - before)


class Bare:
    """The bare process of the launcher's size: two fork and exec calls, and the stop command."""

    LEFT = 500  # beside the launcher's window

    def __init__(self, context, screen, bundle, private):
        self.bundle, self.screen = bundle, screen
        self.process = subprocess.Popen(
            [context.programs / "BareStart", bundle.root], env=screen.environment, text=True,
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        window = screen.display.create_resource_object("window", int(self.ask("window")[0]))
        window.configure(x=self.LEFT, y=0)
        screen.display.sync()
        settle(self.process.pid)
        missing = private - memory(self.process.pid)[1]
        self.ask(f"grow {max(0, int(missing * 1024 * 1024))}")

    def ask(self, order):
        self.process.stdin.write(order + "\n")
        self.process.stdin.flush()
        return self.process.stdout.readline().split()

    def deploy(self):
        self.bundle.forget()
        settle(self.process.pid)
        before = int(self.ask("start")[0])
        last, _ = self.bundle.started()
        return last and milliseconds(last - before)

    def press(self):
        """As deploy(), but from a press into the window, which has nothing else to do."""
        self.bundle.forget()
        self.screen.move(self.LEFT + 20, 20)
        settle(self.process.pid)
        before = press(self.screen)
        last, _ = self.bundle.started()
        self.process.stdout.readline()
        self.screen.release()
        return last and milliseconds(last - before)

    def stop(self):
        settle(self.process.pid)
        before, after, status = map(int, self.ask("stop"))
        if status != 0:
            raise RuntimeError(f"the stop command ended with {status}")
        self.ask("kill")
        return milliseconds(after - before)

    def end(self):
        self.process.stdin.close()
        self.process.stdout.close()
        self.process.kill()
        self.process.wait()


def cycles(context, make_bundle, count):
    """`count` deploys and stops, in turns: the launcher's, the floor's, and the floor's from a
    press. Each is (deploy, stop)."""
    with Desktop() as screen, Watcher(screen) as watcher, make_bundle() as ours, \
            make_bundle() as theirs:
        launched = Deployed(context, screen, ours, watcher)
        settle(launched.launcher.pid)
        bare = Bare(context, screen, theirs, memory(launched.launcher.pid)[1])
        watcher.manage()
        try:
            return take_turns(
                count, lambda: (launched.deploy(), launched.stop()),
                lambda: (bare.deploy(), bare.stop()), lambda: (bare.press(), bare.stop()))
        finally:
            launched.launcher.end()
            bare.end()


def rounds(context, what, count, make_bundle):
    """The deploys and the stops of `count` rounds, each with a new launcher: with every press the
    toolkit keeps more pictures of the buttons, 10 MiB in the end, and the fork copies their pages.
    """
    done = context.progress.counted(what, count)
    series = [Series([]), Series([]), Series([])]
    for number in range(count):
        for all_samples, samples in zip(series, cycles(context, make_bundle, PRESSES)):
            all_samples.samples += samples.samples
        done(number + 1)
    return ([Series([pair[index] for pair in one.samples]) for one in series] for index in (0, 1))


def rows(context):
    deploys, short_stops = rounds(context, "deploy", 2 if context.quick else 12,
                                  lambda: Bundle(context.programs, context.launcher))
    yield Row("deploy", "left press to both children's first instruction; floor: two bare fork and "
              "exec calls from a process of the same size", "ms", *deploys[:2]).aim_at_most(1.25)
    yield Row("deploy, press in both", "the same; floor: the two calls in a bare window that was "
              "pressed", "ms", deploys[0], deploys[2])
    _, stops = rounds(context, "stop", 1 if context.quick else 4,
                      lambda: SampleBundle(context.launcher.parents[2]))
    yield Row("stop", "left press to control back, with the sample services; floor: the bare stop "
              "command", "ms", *stops[:2]).aim_at_most(1.10)
    yield Row("stop, beyond the command", "the same with a stop command that returns at once", "ms",
              *short_stops[:2], by="difference")
