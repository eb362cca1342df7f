"""What the end-to-end tests share: how servers are configured, and what is shown of their answers."""

import os
import pathlib
import time

from vexil import line

BUILD = pathlib.Path(os.environ.get("VEXIL_BUILD", ""))
MANIFEST = BUILD / "install_manifest.txt"

ADMINISTRATORS = [("root", "SECRET", "change"), ("reader", "GLANCE", "read")]
ROOT_LOGIN = "login root SECRET"

IDENTITY_REFUSED = 0x38C54015
NOT_PERMITTED, UNKNOWN_REALM, REQUEST_REFUSED, NO_MATCHING_SESSION = 0x38C54016, 0x38C54017, 0x38C54019, 0x38C54021


def keep_manifest(case):
    """Puts the list of an installation that is not the test's back in the end."""
    if MANIFEST.exists():
        case.addCleanup(MANIFEST.write_bytes, MANIFEST.read_bytes())
    case.addCleanup(MANIFEST.unlink, True)


def configuration(*servers, **entries):
    """The text of a configuration whose locations are these servers; in names of further entries _ stands for -."""
    location = ",".join(f"127.0.0.1:{server.port}" for server in servers)
    lines = {"location": location, "instances": "blue,green", "timeout": 30, **entries}
    return "[tarn]\n" + "".join(f"{name.replace('_', '-')} = {value}\n" for name, value in lines.items())


def when(seconds):
    """How a server's time is shown."""
    return time.strftime("%Y-%m-%d-%H:%M:%S UTC", time.gmtime(seconds))


def key_report(label, made, before=None):
    """What key show and key change print."""
    return line(0x38C52138, label, when(made), when(before)) if before else line(0x38C52142, label, when(made))


def sent_as(user):
    """What is shown before a refusal that is due to the user."""
    return f"the request was sent as the user {user}\n"


def listing(total, *sessions):
    """What session list prints; a session is (user, time, id)."""
    rows = [line(0x38C5213D, name, when(seconds), user) for user, seconds, name in sessions]
    return line(0x38C52143, total, len(rows)) + ("".join(rows) or line(0x38C5213C))
