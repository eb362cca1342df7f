"""Fails the allocations and the system calls of dsessd while changes are made, one of them or all from one on, and
compares what it answers with what is there after kill -9.

    sweep_server.py [--most N] [KIND...]

lets N numbers of each kind fail (default: all), spread over the run, counts the answers, names what must not be, and
ends with status 1 if there was any of that. DSESSD and FAILING_MALLOC, a library to preload, are paths.
"""

import argparse
import collections
import contextlib
import errno
import http.client
import json
import mmap
import os
import pathlib
import shutil
import signal
import sqlite3
import struct
import sys
import uuid

from dsessd import AS_ROOT, DEADLINE, ROOT, Dsessd, request_text
from sweep import FOREVER, report

KINDS = {
    "start": {},
    "memory": {},
    "fdatasync": {"SWEEP_CALL": "fdatasync", "SWEEP_ERROR": str(errno.EIO)},
    "pwrite": {"SWEEP_CALL": "pwrite64", "SWEEP_ERROR": str(errno.EIO)},
    "full disk": {"SWEEP_CALL": "pwrite64", "SWEEP_ERROR": str(errno.ENOSPC)},
    "write": {"SWEEP_CALL": "write", "SWEEP_ERROR": str(errno.EIO)},
    "accept": {"SWEEP_CALL": "accept4", "SWEEP_ERROR": str(errno.EMFILE)},
}
WRONG = {**AS_ROOT, "password": "GUESS"}


class Sweep(Dsessd):
    patience = DEADLINE  # seconds: less while nobody may ever answer

    def __init__(self, kind, most):
        super().__init__(administrators=ROOT, monitor="127.0.0.1:0")
        self.kind, self.most = kind, most
        self.outcomes, self.faults = collections.Counter(), collections.defaultdict(list)
        self.plan, self.report = self.directory / "plan", self.directory / "report"
        self.report.touch()
        shutil.copy(self.data, self.data + ".new")

    def serve(self, first=0, last=0):
        self.plan.write_bytes(struct.pack("QQQ", 0, first, last))
        plan = {"LD_PRELOAD": os.environ["FAILING_MALLOC"], "SWEEP_PLAN": self.plan, "SWEEP_REPORT": self.report}
        self.environment = {**os.environ, **KINDS[self.kind], **plan, "SWEEP_FIRST": "0", "SWEEP_LAST": "0"}
        with self.plan.open("r+b") as file:
            self.counts = mmap.mmap(file.fileno(), 24)
        self.start()

    def fail(self, first, last):
        """Counted from now; 0: none. Gives the count."""
        self.patience = 1 if first else DEADLINE
        (now,) = struct.unpack_from("Q", self.counts)
        struct.pack_into("QQ", self.counts, 8, *((now + first, now + last) if first else (0, 0)))
        return now

    def ask(self, method, **fields):
        """("done", result), ("not", None) when the answer says that nothing was changed, else ("unknown", None)."""
        connection = http.client.HTTPConnection(self.host, self.port, timeout=self.patience)
        try:
            with contextlib.closing(connection):
                status, body = self.post(request_text(method, **fields), connection=connection)
        except (OSError, http.client.HTTPException):
            return "unknown", None
        result = json.loads(body).get("result") if body else None
        return "done" if result else "unknown" if status == 500 else "not", result

    def change(self, name):
        """The same with the label of the new key."""
        outcome, result = self.ask("key.change", changeId=name, **AS_ROOT)
        return outcome, result and result["key"]["label"]

    def records(self):
        """The answers to changes, as labels by identifier, and all labels."""
        with contextlib.closing(sqlite3.connect(self.data)) as store:
            rows = store.execute("SELECT id, answer FROM changes WHERE user <> ''").fetchall()
            made = {name: json.loads("{" + answer + "}")["result"]["key"]["label"] for name, answer in rows}
            return made, {label for (label,) in store.execute("SELECT label FROM keys")}

    def ask_all(self, names):
        wrong = []
        return {name: self.change(name) for name in names if not wrong.append(self.ask("trace.get", **WRONG))}, wrong

    def check(self, number, many, serves):
        """One run: changes and wrong passwords while something fails, then what is there, then the same changes."""
        faults, names = [], [str(uuid.uuid4()) for _ in range(2)]
        self.fail(number, number + many)
        said, wrong = self.ask_all(names)
        faults += ["a wrong password is taken" for outcome, _ in wrong if outcome == "done"]
        self.fail(0, 0)
        if serves and self.ask("cluster.get", **AS_ROOT)[0] != "done":
            faults.append("it does not serve afterwards")
        if self.process.poll() is not None:
            faults.append(f"it has ended with {self.process.returncode}")
        self.stop(signal.SIGKILL)
        made, labels = self.records()
        for name, (outcome, label) in said.items():
            self.outcomes[outcome + (", and made" if outcome == "unknown" and name in made else "")] += 1
            if outcome == "done" and (made.get(name) != label or label not in labels):
                faults.append("acknowledged, and lost")
            if outcome == "not" and name in made:
                faults.append('"nothing was changed", and it was')
        self.serve()
        again = self.ask_all(names)[0]
        self.stop(signal.SIGKILL)
        if again != {name: ("done", made.get(name, again[name][1])) for name in names}:
            faults.append("repeated, and made once more")
        made, after = self.records()
        if set(made) != set(names) or after != set(made.values()) | self.first:
            faults.append("made more than once, or in part")
        for fault in faults:
            self.faults[fault].append((number, many, said))

    def renew(self):
        for end in ("", "-wal", "-shm"):
            pathlib.Path(self.data + end).unlink(missing_ok=True)
        shutil.copy(self.data + ".new", self.data)

    def check_start(self, number, many):
        """One run that may not come about: then a line says why."""
        try:
            self.serve(number, number + many)
            self.fail(0, 0)
            outcome = "serves" if self.ask("cluster.get", **AS_ROOT)[0] == "done" else "says that it listens, and fails"
            self.stop(signal.SIGKILL)
        except RuntimeError:
            said = self.log().splitlines()[-1:]
            outcome = "ends with a line" if said and said[0].startswith("dsessd: ") else "ends without a line"
            outcome += "" if self.process.returncode == 1 else f", {self.process.returncode}"
        (self.directory / "log").write_text("")
        self.outcomes[outcome] += 1
        if outcome not in ("serves", "ends with a line"):
            self.faults[outcome].append((number, many))

    def sweep(self):
        self.first = self.records()[1]
        self.serve()
        before = 0 if self.kind == "start" else self.fail(0, 0)
        if self.kind != "start":
            self.ask_all("12")
        total = self.fail(0, 0) - before
        self.stop(signal.SIGKILL)
        for turn, number in enumerate(range(total, 0, -max(1, total // self.most))):
            for many in (0, FOREVER):
                self.renew()
                if self.kind == "start":
                    self.check_start(number, many)
                else:
                    self.serve()
                    self.check(number, many, serves=turn % 2 == 1)
        return self


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("kinds", nargs="*", default=list(KINDS))
    parser.add_argument("--most", type=int, default=FOREVER)
    options = parser.parse_args()
    return report(lambda kind: Sweep(kind, options.most).sweep(), options.kinds)


if __name__ == "__main__":
    sys.exit(main())
