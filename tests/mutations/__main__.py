"""Changes the sources one small step at a time and prints the changes that no test notices.

Ends with 0 if each change was noticed or is explained in tests/mutations/entries/.
"""

import argparse
import collections
import concurrent.futures
import contextlib
import fcntl
import queue
import random
import sys
import time
from pathlib import Path

from mutations.changes import PROJECT
from mutations.covered import files, tests_of
from mutations.judging import WORK, Tree, Verdict
from mutations.rules import changes_of
from mutations.table import read_table

ENTRIES = Path(__file__).parent / "entries"


def arguments():
    """Returns what was typed."""
    parser = argparse.ArgumentParser(
        prog="scripts/mutate", description=__doc__.partition("\n")[0])
    parser.add_argument("files", nargs="*", metavar="FILE",
                        help="only changes of files whose path begins so (default: all)")
    parser.add_argument("--text", default="", help="only changes with this text in their lines")
    parser.add_argument("--sample", type=int, metavar="N", help="only N of these, by chance")
    parser.add_argument("--seed", type=int, default=1, help="which ones (default: 1)")
    parser.add_argument("--jobs", type=int, default=2, help="how many at a time (default: 2)")
    parser.add_argument("--list", action="store_true", help="print the changes and make none")
    parser.add_argument("--check", action="store_true",
                        help="only look whether the entries fit the sources")
    return parser.parse_args()


def all_changes():
    """Returns all changes, each with the reason why nothing notices it, or "".

    Ends the program where an entry does not fit.
    """
    by_rule = {}
    for name in filter(tests_of, files()):
        if (PROJECT / name).is_file():
            by_rule.update(dict.fromkeys(changes_of(name, (PROJECT / name).read_text()), ""))
    table = read_table(ENTRIES, PROJECT, by_rule)
    uncovered = [f"{change.file}: no test covers it; name one in tests/mutations/covered.py"
                 for change in table.reasons if not tests_of(change.file)]
    if table.errors or uncovered:
        sys.exit("\n".join(table.errors + uncovered))
    return {**by_rule, **table.reasons}


def chosen(changes, given):
    """Returns the changes that the arguments choose, in the order of their files."""
    found = [change for change in changes
             if change.file.startswith(tuple(given.files or [""]))
             and given.text in "\n".join(change.before + change.after)]
    if not found:
        sys.exit("scripts/mutate: no change is like that")
    if given.sample is not None and given.sample < len(found):
        found = random.Random(given.seed).sample(found, given.sample)
    return sorted(found, key=lambda change: change.file)


@contextlib.contextmanager
def alone():
    """Keeps another scripts/mutate from the same trees."""
    WORK.mkdir(parents=True, exist_ok=True)
    with open(WORK / "lock", "w") as lock:
        try:
            fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
        except BlockingIOError:
            sys.exit(f"scripts/mutate: another one works in {WORK}: wait until it has ended")
        yield


def prepared_trees(changes, jobs):
    """Returns a queue with a tree for each job, ready to judge these changes."""
    trees = queue.SimpleQueue()
    for job in range(jobs):
        tree = Tree(job)
        tree.prepare({tests_of(change.file) for change in changes})
        trees.put(tree)
    tree.measure()
    return trees


def outcome(verdict, reason):
    """Returns the verdict in words that take the reason in the table into account."""
    if not reason or verdict is Verdict.INVALID:
        return verdict.value
    if verdict is Verdict.UNNOTICED:
        return "explained"
    return f"{verdict.value}, against the reason in the table"


def judge_all(changes, jobs):
    """Judges the changes and prints each. Returns the outcome by change."""
    started = time.monotonic()
    trees = prepared_trees(changes, jobs)
    print(f"{len(changes)} changes, {time.monotonic() - started:.0f} s of preparation", flush=True)

    def judge(change):
        tree = trees.get()
        try:
            said = outcome(tree.judge(change), changes[change])
        finally:
            trees.put(tree)
        print(f"\n# [{time.monotonic() - started:.0f} s] {said}\n{change}", flush=True)
        return said

    with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
        return dict(zip(changes, pool.map(judge, changes)))


def main():
    """Does what the arguments ask for."""
    given = arguments()
    changes = all_changes()
    if given.check:
        return
    picked = {change: changes[change] for change in chosen(changes, given)}
    if given.list:
        print(*picked, sep="\n\n")
        return
    with alone():
        outcomes = judge_all(picked, given.jobs)
    print()
    for folder in sorted({change.file.partition("/")[0] for change in outcomes}):
        of_folder = [said.partition(",")[0] for change, said in outcomes.items()
                     if change.file.partition("/")[0] == folder]
        print(f"{folder}:", ", ".join(f"{count} {said}" for said, count in
                                      collections.Counter(of_folder).most_common()))
    unnoticed = [change for change, said in outcomes.items() if said == Verdict.UNNOTICED.value]
    if unnoticed:
        print("\nNothing notices these. Add a test, or an entry with unnoticed_because:\n")
        print(*unnoticed, sep="\n\n")
        sys.exit(1)


if __name__ == "__main__":
    main()
