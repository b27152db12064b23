# SPDX-License-Identifier: Apache-2.0
"""The raw LINX level, for tools that speak LINX directly.

A :class:`Linx` is one LINX socket (``linx_open``): signals are a 32-bit
signal number and bytes, sent to a SPID; hunts, attaches and their
answers are signals too (numbers 251 and 252 unless the caller gives its
own).  Failures raise :class:`OSError` with the errno LINX set.
"""
import ctypes
import os
from typing import NamedTuple, Optional, Sequence

from ._native import lib, milliseconds

HUNT_SIG = 251
ATTACH_SIG = 252


class Signal(NamedTuple):
    number: int
    sender: int
    payload: bytes


def _fail(what: str) -> OSError:
    code = ctypes.get_errno()
    return OSError(code, f"{what}: {os.strerror(code)}")


class Linx:
    """A LINX socket named ``name``, open until :meth:`close` (or the end
    of a ``with`` block)."""

    def __init__(self, name: str):
        self._handle = lib.linx_open(name.encode(), 0, None)
        if not self._handle:
            raise _fail(f"linx_open {name!r}")
        self.spid = lib.linx_get_spid(self._handle)

    def close(self) -> None:
        if self._handle:
            lib.linx_close(self._handle)
            self._handle = None

    def __enter__(self) -> "Linx":
        return self

    def __exit__(self, *_exception) -> None:
        self.close()

    def fileno(self) -> int:
        """The descriptor: readable while a signal waits."""
        return lib.linx_get_descriptor(self._handle)

    def _signal(self, number: int, payload: bytes) -> ctypes.c_void_p:
        signal = ctypes.c_void_p(lib.linx_alloc(self._handle, 4 + len(payload), number))
        if not signal:
            raise _fail(f"linx_alloc of {len(payload)} bytes")
        ctypes.memmove(signal.value + 4, payload, len(payload))
        return signal

    def send(self, to: int, number: int, payload: bytes = b"") -> None:
        """Sends signal number with payload to the socket to (a failed
        send frees the signal too)."""
        signal = self._signal(number, payload)
        if lib.linx_send(self._handle, ctypes.byref(signal), to) != 0:
            raise _fail(f"linx_send to {to:#x}")

    def receive(self, numbers: Optional[Sequence[int]] = None, timeout: Optional[float] = None) -> Optional[Signal]:
        """The next signal (of one of numbers, when given), waiting up to
        timeout seconds (None: for ever); None when nothing came."""
        wanted = list(numbers or [])
        selection = (ctypes.c_uint32 * (1 + len(wanted)))(len(wanted), *wanted)
        signal = ctypes.c_void_p()
        size = lib.linx_receive_w_tmo(self._handle, ctypes.byref(signal), milliseconds(timeout), selection)
        if size < 0:
            raise _fail("linx_receive")
        if size == 0:
            return None
        try:
            number = ctypes.c_uint32.from_address(signal.value).value
            return Signal(number, lib.linx_sender(self._handle, ctypes.byref(signal)),
                          ctypes.string_at(signal.value + 4, size - 4))
        finally:
            lib.linx_free_buf(self._handle, ctypes.byref(signal))

    def hunt(self, name: str, number: Optional[int] = None, payload: bytes = b"") -> None:
        """Asks for a signal (number HUNT_SIG unless given) from the socket
        name once it exists."""
        signal = None if number is None else self._signal(number, payload)
        if lib.linx_hunt(self._handle, name.encode(), None if signal is None else ctypes.byref(signal)) != 0:
            raise _fail(f"linx_hunt {name!r}")

    def attach(self, spid: int, number: Optional[int] = None, payload: bytes = b"") -> int:
        """Asks for a signal (number ATTACH_SIG unless given) when the
        socket spid closes; returns the reference detach takes."""
        signal = None if number is None else self._signal(number, payload)
        reference = lib.linx_attach(self._handle, None if signal is None else ctypes.byref(signal), spid)
        if reference == 0:
            raise _fail(f"linx_attach {spid:#x}")
        return reference

    def detach(self, reference: int) -> None:
        if lib.linx_detach(self._handle, ctypes.byref(ctypes.c_uint32(reference))) != 0:
            raise _fail("linx_detach")
