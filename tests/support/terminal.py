"""A pseudo-terminal with a small shell on it, which runs one program in the foreground and takes the terminal back when
it stops."""

import codecs
import fcntl
import os
import resource
import select
import signal
import subprocess
import sys
import termios
import time

PATIENCE = 30  # seconds, of a machine that has much else to do
PROMPT = "vexiladmin> "


class Terminal:
    def __init__(self, arguments, env, job_control="foreground"):
        self.master, self.slave = os.openpty()
        self.report, report = os.pipe()
        self.shown, self.events = "", []
        self.decode = codecs.getincrementaldecoder("utf-8")("replace").decode
        self.settings = termios.tcgetattr(self.slave)
        self.shell = os.fork()
        if self.shell == 0:
            try:
                self._lead(report, arguments, env, job_control)
            finally:
                os._exit(1)
        os.close(report)
        self.pid = int(self.until(self.event, "program"))

    def _lead(self, report, arguments, env, job_control):
        def claim():
            if job_control:
                os.setpgid(0, 0)
            if job_control == "foreground":
                os.tcsetpgrp(0, os.getpid())
            for number in signal.valid_signals() - {signal.SIGKILL, signal.SIGSTOP}:
                signal.signal(number, signal.SIG_DFL)

        os.login_tty(self.slave)
        resource.setrlimit(resource.RLIMIT_CORE, (resource.getrlimit(resource.RLIMIT_CORE)[1],) * 2)
        signal.signal(signal.SIGTTOU, signal.SIG_IGN)
        folder = env.get("QEL_CONFIG_DIR")  # a core dump goes with it
        process = subprocess.Popen(arguments, env=env, cwd=folder, preexec_fn=claim)
        program = process.pid
        signal.signal(signal.SIGUSR1, lambda *_: (os.tcsetpgrp(0, program), os.killpg(program, signal.SIGCONT)))
        os.write(report, b"%d\n" % program)
        while True:
            _, status = os.waitpid(program, os.WUNTRACED)
            if not os.WIFSTOPPED(status):
                os.write(report, b"%d\n" % status)
                os._exit(0)
            os.tcsetpgrp(0, os.getpgrp())
            os.write(report, b"stopped\n")

    def close(self):
        os.kill(self.shell, signal.SIGKILL)
        os.waitpid(self.shell, 0)
        for descriptor in (self.master, self.slave, self.report):
            os.close(descriptor)

    def foreground(self):
        os.kill(self.shell, signal.SIGUSR1)

    def type(self, text):
        os.write(self.master, text.encode())

    def echoes(self):
        return bool(termios.tcgetattr(self.master)[3] & termios.ECHO)

    def restored(self):
        return termios.tcgetattr(self.master) == self.settings

    def event(self):
        """What the shell reports next, if anything: that the program stopped, or its wait status."""
        if not self.events and select.select([self.report], [], [], 0)[0]:
            self.events = os.read(self.report, 1000).decode().split()
        return self.events.pop(0) if self.events else None

    def stop(self):
        """Waits until the program has stopped and the shell has the terminal."""
        self.until(lambda: self.event() == "stopped", "stop")

    def until(self, condition, what):
        """Waits for a condition, reading what the program writes meanwhile. Returns what fulfilled it."""
        deadline = time.monotonic() + PATIENCE
        while not (value := condition()):
            if time.monotonic() > deadline:
                raise AssertionError(f"no {what} within {PATIENCE} s; shown since: {self.shown!r}")
            self._read(0.001)
        return value

    def _read(self, seconds):
        if not select.select([self.master], [], [], seconds)[0]:
            return False
        self.shown += self.decode(os.read(self.master, 65536))
        return True

    def rests(self):
        """Whether the program waits for keys. What it has shown is read then."""
        keys = int.from_bytes(fcntl.ioctl(self.slave, termios.FIONREAD, bytes(4)), sys.byteorder)
        with open(f"/proc/{self.pid}/stat") as stat:
            rests = keys == 0 and stat.read().rpartition(")")[2].split()[0] == "S"
        while self._read(0):
            pass
        return rests

    def asks(self, prompt=PROMPT):
        """Waits for a prompt, at which the terminal's own echo is off. Returns what was shown before it."""
        self.until(lambda: prompt in self.shown, repr(prompt))
        before, self.shown = self.shown.split(prompt, 1)
        self.until(lambda: not self.echoes(), "end of echo")
        return before.replace("\r", "")

    def answer(self, typed, prompt=PROMPT):
        """What is shown for a line, behind its echo, up to a prompt."""
        self.type(typed + "\n")
        return self.asks(prompt).split("\n", 1)[1]

    def ended(self):
        """Waits for the end. Returns the exit status or the negative signal number, less 128 if that left a core dump
        (which might hold passwords), and the rest of what was shown."""
        status = int(self.until(self.event, "end"))
        while self._read(0):
            pass
        rest, self.shown = self.shown, ""
        return status >> 8 or -status, rest
