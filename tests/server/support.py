"""What the tests of dsessd share."""

import pathlib
import sys

SUPPORT = pathlib.Path(__file__).resolve().parents[1] / "support"
sys.path.insert(0, str(SUPPORT))
# pylint: disable=wrong-import-position,unused-import
from dsessd import BINARY, DEADLINE, SAMPLE, Dsessd, request_text  # noqa: E402,F401

ROOT = [("root", "SECRET", "change")]
AS_ROOT = {"user": "root", "password": "SECRET", "login_id": "qk=1"}
