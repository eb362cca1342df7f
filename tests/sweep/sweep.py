"""Fails the allocations and the system calls of vexiladmin, each in a run of its own, and judges what comes of it.

    sweep.py [--step N] [memory] [calls]

makes every Nth of these runs (default: all), counts the outcomes by scenario, names what must not be, and ends with
status 1 if there was any of that. VEXILADMIN, DSESSD and FAILING_MALLOC, a library to preload, are paths.
"""

import argparse
import bisect
import collections
import concurrent.futures
import itertools
import os
import pathlib
import re
import subprocess
import sys
import tempfile

from dsessd import ROOT, Dsessd
from vexil import VEXILADMIN, commands

SCENARIOS = {
    "help": (["-help"], ""),
    "listing": (commands("nonsense"), ""),
    "realm list": (commands("realm list"), ""),
    "login": (commands("login root"), "SECRET\n"),
    "session list": (commands("login root SECRET", "session list -realm east mallory 0"), ""),
    "set instance": (commands("set instance green", "instances list"), ""),
    "key change": (commands("login root SECRET", "key change"), ""),
    "lines": ([], "realm list\nkey show\nexit\n"),
}
CALLS = (
    "read write openat poll ppoll socket connect sendto recvfrom getsockopt getrandom ioctl newfstatat fcntl".split()
)
ERRORS = ["EIO", "EINTR", "ENOMEM"]
FOREVER = 2**62
LIMIT = 30  # seconds: more than the timeout of the configuration
NO_MEMORY, OUTCOME_UNKNOWN, OUTPUT_LOST = 0x97, 0x13, 0x52
CARRIERS = r"libfailing_malloc|libc\.so|libstdc\+\+|libgcc_s|ld-linux"  # who asks for memory on behalf of others
OURS = r"vexiladmin|libolmdsess|\?"


class Sweep:
    def __init__(self, name, step):
        self.name, self.step, (self.arguments, self.stdin) = name, step, SCENARIOS[name]
        self.outcomes, self.faults = collections.Counter(), collections.defaultdict(list)

    def run(self, arguments, prefix=(), **environment):
        environment |= {"PATH": os.environ["PATH"], "QEL_CONFIG_DIR": self.folder, "QEL_SVC_LOG": "/dev/stderr"}
        command, streams = [*prefix, VEXILADMIN, *arguments], {"encoding": "utf-8", "errors": "replace"}
        try:
            return subprocess.run(
                command, input=self.stdin, env=environment, capture_output=True, timeout=LIMIT, **streams
            )
        except subprocess.TimeoutExpired:
            return subprocess.CompletedProcess(command, None, "", "")

    def judge(self, what, number, ended, by="?", mute=False):
        """`by`: who was refused. `mute`: the fault itself may have kept the run from saying anything."""
        status = ended.returncode
        before, self.key = self.key, self.server.call("cluster.get")["result"]["key"]
        changed = before != self.key
        whole = self.run(["-command", "key show"]).stdout if changed and status == 0 else self.whole.stdout
        fault = True
        if status is None:
            outcome = "hang"
        elif status < 0:
            outcome, fault = f"crash by {by}", re.match(OURS, by)
        elif changed and status not in (0, OUTCOME_UNKNOWN, OUTPUT_LOST):
            outcome = f"changed, and {status}"
        elif (status, ended.stdout) == (self.whole.returncode, whole):
            outcome, fault = "whole", False
        elif mute or re.search("^38C52097 " if status == NO_MEMORY else "38C5", ended.stderr, re.M):
            outcome, fault = f"told, {status}", status == 0 and self.name != "lines"
        else:
            outcome = f"silent, {status}"
        self.outcomes[outcome] += 1
        if fault:
            self.faults[f"{outcome}: {what} by {by} ({ended.stderr[-200:]!r})"].append(number)

    def refuse(self, arguments, first, last):
        """A run without some allocations, and the files whose code asked for the first: none if there was none."""
        report = pathlib.Path(self.folder, "report")
        report.write_text("")
        plan = {"SWEEP_FIRST": str(first), "SWEEP_LAST": str(last), "SWEEP_REPORT": str(report)}
        ended = self.run(arguments, LD_PRELOAD=os.environ["FAILING_MALLOC"], **plan)
        return ended, [os.path.basename(file) for file in re.findall(r"^([^(\n]+)\(", report.read_text(), re.M)]

    def memory(self):
        # What comes before the first command is the same for all, and what comes before main is tried whole.
        numbers, counted = range(1, 2**20), lambda number: not self.refuse(["-help"], number, number)[1]
        start = 1 if self.name == "help" else bisect.bisect(numbers, False, key=counted) - 100
        for number in itertools.chain(range(start, 9), itertools.count(max(start, 9), self.step)):
            for last, what in ((number, "one allocation"), (FOREVER, "all allocations from one on")):
                ended, files = self.refuse(self.arguments, number, last)
                if not files:
                    return
                self.judge(what, number, ended, next((file for file in files if not re.match(CARRIERS, file)), "?"))

    def calls(self):
        log = pathlib.Path(self.folder, "calls")
        strace = ["strace", "-f", "-qq", "--seccomp-bpf", "-o", str(log), "-e"]
        self.run(self.arguments, [*strace, f"trace=rt_sigaction,{','.join(CALLS)}"])
        parts = log.read_text(encoding="utf-8", errors="replace").split("SIGPIPE", 1)  # the loader's, and main's
        faults = []
        for call, error in itertools.product(CALLS, ERRORS):
            before, own = (len(re.findall(rf"^\d+ +{call}\(", part, re.M)) for part in parts)
            faults += [(call, error, number) for number in range(before + 1, before + own + 1)]
        for call, error, number in faults[:: self.step]:
            inject = ["-e", f"inject={call}:error={error}:when={number}"]
            ended = self.run(self.arguments, [*strace, f"trace={call}", *inject])
            self.judge(f"{error} in {call}", number, ended, mute=call == "write")

    def sweep(self, kinds):
        with tempfile.TemporaryDirectory() as self.folder, Dsessd(
            administrators=ROOT, anonymous="read", instances=["blue", "green"]
        ) as self.server:
            entries = f"[tarn]\nlocation = 127.0.0.1:{self.server.port}\ninstances = blue,green\ntimeout = 5\n"
            pathlib.Path(self.folder, "vexilclicfg.conf").write_text(entries, encoding="utf-8")
            self.key = self.server.call("cluster.get")["result"]["key"]
            self.whole = self.run(self.arguments)
            for kind in kinds:
                getattr(self, kind)()
        return self


def report(make, names):
    """Makes sweeps, at once, and shows what came of them. Returns the exit status."""
    if not os.environ["FAILING_MALLOC"]:
        print("skipped: a sanitizer's allocator is none that can be made to fail")
        return 0
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        sweeps = list(pool.map(make, names))
    for name, sweep in zip(names, sweeps):
        print(f"{name}: {sum(sweep.outcomes.values())} outcomes:", dict(sweep.outcomes.most_common()))
        for fault, runs in sweep.faults.items():
            print(f"  {fault}: {len(runs)} runs, the first of them {runs[0]}")
    return 1 if any(sweep.faults for sweep in sweeps) else 0


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("kinds", nargs="*", default=["memory", "calls"])
    parser.add_argument("--step", type=int, default=1)
    options = parser.parse_args()
    return report(lambda name: Sweep(name, options.step).sweep(options.kinds), SCENARIOS)


if __name__ == "__main__":
    sys.exit(main())
