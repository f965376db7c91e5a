"""What CTest has written down about the tests of each system, as a table."""

import json
import re
import xml.etree.ElementTree as xml
from dataclasses import dataclass, field

HEADER = ("system", "passed", "failed", "skipped", "time", "download")
ROW = "{:<10} {:>6} {:>6} {:>7} {:>7}  {}"
# What a module says of the tests in it that it has skipped: pytest (how many, and why), Qt Test.
SKIPPED_IN_MODULE = re.compile(r"^SKIPPED \[(?P<count>\d+)\] (?P<why>.*)|^SKIP   : (?P<what>.*)",
                               re.MULTILINE)
SKIPPED_MODULE = re.compile(r"^skipped: (.*)|^SKIPPED \[\d+\] (.*)|^SKIP   : (.*)|(^unshare: .*)",
                            re.MULTILINE)
# "Need to get 12.3 MB of archives.", or "Need to get 1,234 kB/12.3 MB of archives."
DOWNLOAD = re.compile(r"^Need to get (?:\S+ \S+/)?(.*) of archives", re.MULTILINE)
EXPIRED = "The lists of packages have expired"  # which `inside` says


@dataclass
class Test:
    """One of CTest's tests: whether it failed, how many were skipped in it, and the remarks."""

    failed: bool
    skipped: int = 0
    remarks: list = field(default_factory=list)

    @classmethod
    def read(cls, case):
        """Returns what a <testcase> says."""
        said = case.findtext("system-out") or ""
        left_out = case.find("skipped")
        if left_out is not None and left_out.get("message", "").startswith("SKIP_"):
            why = SKIPPED_MODULE.search(said)
            reason = next(filter(None, why.groups())) if why else "without a reason"
            return cls(False, 1, [f"skipped: {reason}"])
        if case.get("status") != "run":  # failed, or not run although it should
            why = case.find("failure") if left_out is None else left_out
            last = [line for line in said.splitlines() if line.strip()][-1:]
            reason = why.get("message") if why is not None else ""
            if reason == "Failed":  # newer releases of CTest say it of each
                reason = ""
            return cls(True, 0, ["failed: " + ": ".join(filter(None, [reason, *last]))])
        test = cls(False)
        for match in SKIPPED_IN_MODULE.finditer(said):
            test.skipped += int(match["count"] or 1)
            test.remarks.append(f"skipped in it: {match['why'] or match['what']}")
        return test


@dataclass
class Outcome:
    """How a system ended: CTest's tests by name, and what else there is to say about it."""

    name: str
    status: int
    tests: dict
    seconds: float
    download: str
    remarks: list

    @classmethod
    def read(cls, name, directory, status, seconds):
        """Returns what the system has left in its directory."""
        tests = {}
        for file in sorted((directory / "results").glob("*.xml")):  # the later one knows better
            for case in xml.parse(file).iter("testcase"):
                name_of_test = case.get("name")
                for skipped in [old for old in tests if old.startswith(f"{name_of_test}.needs-")]:
                    del tests[skipped]  # what it needed has come since
                tests[name_of_test] = Test.read(case)
        left_out = directory / "results/left-out.json"
        if left_out.exists():
            for test in json.loads(left_out.read_text())["tests"]:
                tests[test["name"]] = Test(False, 1, ["skipped: not by the emulator"])
        log = (directory / "log").read_text(errors="replace")
        remarks = [line for line in log.splitlines() if line.startswith(EXPIRED)]
        if status != 0 and not any(test.failed for test in tests.values()):
            last = log.rstrip().splitlines()[-1:] or ["it said nothing"]
            remarks.append(f"failed with status {status}: {last[0]}")
        elif not tests:
            remarks.append("failed: there are no results of any test")
        size = DOWNLOAD.search(log)
        return cls(name, status, tests, seconds, size[1] if size else "", remarks)

    @property
    def passed(self):
        """Whether tests were run there and none failed."""
        return (self.status == 0 and bool(self.tests)
                and not any(test.failed for test in self.tests.values()))

    def row(self):
        """Returns its line of the table. A test that was left out as a whole has not passed."""
        failed = sum(test.failed for test in self.tests.values())
        left_out = sum(test.remarks[:1] != [] and test.remarks[0].startswith("skipped: ")
                       for test in self.tests.values())
        return ROW.format(self.name, len(self.tests) - failed - left_out, failed,
                          sum(test.skipped for test in self.tests.values()),
                          f"{self.seconds // 60:.0f}:{self.seconds % 60:02.0f}", self.download)


def lines(outcomes):
    """Returns the table, and below it what did not pass and what else there is to say."""
    return [ROW.format(*HEADER), *(outcome.row() for outcome in outcomes),
            *(f"{outcome.name}: {remark}" for outcome in outcomes for remark in outcome.remarks),
            *(f"{outcome.name}: {name}: {remark}" for outcome in outcomes
              for name, test in outcome.tests.items() for remark in test.remarks)]
