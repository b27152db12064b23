# SPDX-License-Identifier: Apache-2.0
"""Status codes as exceptions.

Every failed call raises :class:`OrvaneError` with the library's status
code and its text; the outcomes a caller must expect have classes of their
own, so that ``except orvane.Timeout`` reads as what it handles.
"""
from ._native import lib


class OrvaneError(Exception):
    """A call failed: ``code`` is the library's status, ``text`` its meaning."""

    def __init__(self, code: int, what: str = ""):
        self.code = code
        self.text = lib.MSG_DebugStrError(code).decode()
        super().__init__(f"{what}: {self.text} ({code})" if what else f"{self.text} ({code})")


class Timeout(OrvaneError):
    """Nothing came in time (101 open remote timeout, 102 receive timeout)."""


class ConnectionReset(OrvaneError):
    """The peer is gone (103)."""


class NotFound(OrvaneError):
    """No such local endpoint (104) or remote endpoint (105)."""


class NotOpen(OrvaneError):
    """The endpoint is not open (302)."""


_CLASSES = {101: Timeout, 102: Timeout, 103: ConnectionReset, 104: NotFound, 105: NotFound, 302: NotOpen}


def error(code: int, what: str = "") -> OrvaneError:
    """The exception for a status code."""
    return _CLASSES.get(code, OrvaneError)(code, what)


def check(code: int, what: str = "") -> None:
    """Raises the exception for a status code other than 0."""
    if code != 0:
        raise error(code, what)
