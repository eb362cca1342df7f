"""Administrators who change a cluster without end, and the book that is kept of it: what each of them asked for, what came
of it, when it was allowed to fail, and so what the cluster has to hold. tests/e2e/test_year.py keeps such a book.
"""

import contextlib
import json
import re
import subprocess
import threading
import time

# Exit statuses of vexiladmin. After an unknown outcome a change may have been made; after the others it was not.
NO_LOCATION, TIMED_OUT, UNKNOWN, NOT_SECURE = 0x11, 0x12, 0x13, 0x14


def held_by(dump):
    """The keys and the sessions of a cluster, by the text that `dsessd dump` makes of it."""
    cluster = json.loads(dump)
    sessions = {session["id"] for realm in cluster["realms"] for session in realm["sessions"]}
    return {key["label"] for key in cluster["keys"]}, sessions


class Change:
    """A run of vexiladmin that changes the key, or ends the session that is named."""

    def __init__(self, who, session=None):
        self.who, self.session, self.begun = who, session, time.monotonic()
        done = who.vexiladmin(f"session terminate session {session} -realm east" if session else "key change")
        self.ended, self.status, self.shown = time.monotonic(), done.returncode, done.stdout + done.stderr
        label = re.search(r"^Key: +(\S+)", done.stdout, re.M)
        self.key = label and label[1]
        self.made = None if self.status == UNKNOWN else self.status == 0  # null: nobody knows

    def is_held(self, keys, sessions):
        return self.session not in sessions if self.session else self.key in keys

    def __repr__(self):
        what = f"session {self.session}" if self.session else "key"
        return f"\n{self.who.name}, {self.begun:.2f} to {self.ended:.2f}, {what}: status {self.status}, {self.shown}"


class Administrator(threading.Thread):
    """Makes one change after the other: the key, the session NAME-0, the key, the session NAME-1, and so on. The
    configuration is in the folder, which is made. Who holds `rest` keeps the administrator from the next change."""

    def __init__(self, name, folder, environment, password):
        super().__init__(name=name, daemon=True)
        folder.mkdir()
        self.folder, self.environment = folder, {**environment, "QEL_CONFIG_DIR": str(folder)}
        self.password, self.changes = password, []
        self.rest, self.gone = threading.Lock(), threading.Event()

    def vexiladmin(self, command):
        run = ["vexiladmin", "-command", f"login {self.name} {self.password}", "-command", command]
        return subprocess.run(run, env=self.environment, stdin=subprocess.DEVNULL, capture_output=True, text=True)

    def run(self):
        while True:
            with self.rest:
                if self.gone.is_set():
                    return
                turn, is_session = divmod(len(self.changes), 2)
                self.changes.append(Change(self, f"{self.name}-{turn}" if is_session else None))
            time.sleep(0.01)  # for whoever waits for the lock

    def statuses(self, moment):
        """Of the changes that were begun and ended since."""
        return [change.status for change in self.changes if change.begun > moment]

    def go(self):
        self.gone.set()
        self.join()


class Book:
    """`administrators`: all there were, by their names."""

    def __init__(self):
        self.administrators, self.troubles = {}, []

    def changes(self):
        return [change for one in self.administrators.values() for change in one.changes]

    def wait(self, seconds, most):
        """Lets those who work go on for some seconds, and until each has begun and ended a change in that time."""
        begun = time.monotonic()
        waiting = [one for one in self.administrators.values() if one.is_alive()]
        while waiting or time.monotonic() < begun + seconds:
            waiting = [one for one in waiting if not one.statuses(begun)]
            if waiting and time.monotonic() > begun + max(seconds, most):
                raise AssertionError(f"no change by {[one.name for one in waiting]} in {most} s")
            time.sleep(0.05)

    @contextlib.contextmanager
    def trouble(self, words, *statuses, who=None):
        """What is asked for until the end of this may fail with these statuses, and then shows one of these words. `who`:
        whose changes, null for everybody's."""
        begun = time.monotonic()
        yield
        self.troubles.append((begun, time.monotonic(), words, statuses, who))

    def _is_explained(self, change):
        return any(
            change.begun < ended
            and begun < change.ended
            and change.status in statuses
            and re.search(words, change.shown)
            for begun, ended, words, statuses, who in self.troubles
            if who in (None, change.who)
        )

    def restore(self, begun, ended, dump):
        """The cluster is again what it was at a moment between two times. Changes that ended before are held and those
        that began later are not; gives those that are wrong, and the number of acknowledged ones that are lost."""
        acknowledged, held = [change for change in self.changes() if change.made], held_by(dump)
        for change in acknowledged:
            change.made = change.is_held(*held)
        wrong = [one for one in acknowledged if one.ended < begun and not one.made or one.begun > ended and one.made]
        return wrong, sum(not change.made for change in acknowledged)

    def close(self, dump, others):
        """Each change that was acknowledged is held, none that was said to have changed nothing is, and each that failed
        was allowed to. Nothing else is held: `others` are the keys that the book does not know. Gives what is wrong, and
        the figures."""
        changes, (keys, sessions) = self.changes(), held_by(dump)
        failed = [change for change in changes if change.status]
        unknown = [change for change in changes if change.made is None]
        wrong = [one for one in changes if one.made is not None and one.is_held(keys, sessions) != one.made]
        wrong += [change for change in failed if not self._is_explained(change)]
        more = keys - {change.key for change in changes} - others
        if len(more) > sum(not change.session for change in unknown):
            wrong.append(f"more keys than there are changes of unknown outcome: {more}")
        figures = f"{len(changes)} changes, {len(failed)} failed, {len(unknown)} of them with an unknown outcome"
        return wrong, f"{figures}, and of these {len(more)} made a key"
