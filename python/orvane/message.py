# SPDX-License-Identifier: Apache-2.0
"""Messages: a 56-byte header the library keeps and a payload of bytes.

A :class:`Message` owns its C message until it is sent (the library takes
it), released, or collected.  Its payload is a writable memoryview of the
message's own memory, without a copy: it is valid while the message is,
so keep ``bytes(msg.payload)`` for later.  A message a callback receives is
lent to it for the call; a copy is what outlives it.
"""
import ctypes
from typing import Optional, Tuple

from ._native import lib
from .errors import OrvaneError, check

_STACK_OFFSET = 12  # the header's SendStack: SPIDs, entry 0 the origin
_MSG_ERR_MEMORY = 201


class Message:
    """A message of a user type (0 .. 0xFFFFFF) with a payload.

    ``Message(0x100, b"question")`` allocates one; ``size`` makes room for
    more payload than given, zero-filled.  ``sequence`` defaults to the
    process's next.
    """

    __slots__ = ("_pointer", "_owned")

    def __init__(self, type: int, payload: bytes = b"", sequence: Optional[int] = None,
                 size: Optional[int] = None):
        size = max(len(payload), size or 0)
        sequence = lib.MSG_GetNextSequence() if sequence is None else sequence
        pointer = lib.MSG_AllocMsg(type, sequence, size)
        if not pointer:
            raise OrvaneError(_MSG_ERR_MEMORY, f"a message of type {type:#x} and {size} bytes")
        self._pointer, self._owned = pointer, True
        # No bytes of earlier messages of this process leave it unasked.
        ctypes.memset(lib.MSG_GetPayloadMutable(pointer), 0, size)
        self.payload[:len(payload)] = payload

    @classmethod
    def _wrap(cls, pointer: int, owned: bool) -> "Message":
        message = cls.__new__(cls)
        message._pointer, message._owned = pointer, owned
        return message

    def _address(self) -> int:
        if not self._pointer:
            raise ValueError("the message was sent or released")
        return self._pointer

    def _give_up(self) -> int:
        """The C message, which the caller hands to the library."""
        address = self._address()
        self._pointer, self._owned = None, False
        return address

    @property
    def type(self) -> int:
        return lib.MSG_GetType(self._address())

    @type.setter
    def type(self, value: int) -> None:
        check(lib.MSG_SetType(self._address(), value), f"type {value:#x}")

    @property
    def sequence(self) -> int:
        return lib.MSG_GetSequence(self._address())

    @sequence.setter
    def sequence(self, value: int) -> None:
        check(lib.MSG_SetSequence(self._address(), value))

    @property
    def payload(self) -> memoryview:
        """The payload, in place (no copy)."""
        address = self._address()
        size = lib.MSG_GetPayloadBytes(address)
        return memoryview((ctypes.c_ubyte * size).from_address(lib.MSG_GetPayloadMutable(address))).cast("B")

    @property
    def sender(self) -> int:
        """The SPID of the most recent sender on the stack (0: none)."""
        return lib.MSG_GetSender(self._address())

    @property
    def origin(self) -> int:
        """The SPID of the first sender on the stack (0: none)."""
        return lib.MSG_GetOrigSender(self._address())

    @property
    def stack(self) -> Tuple[int, ...]:
        """The sender stack, origin first: the way an answer goes back."""
        address = self._address()
        entries = (ctypes.c_uint32 * 8).from_address(address + _STACK_OFFSET)
        return tuple(entries[:lib.MSG_GetSendStackSize(address)])

    def release(self) -> None:
        """Gives the message back to the library (nothing for a lent one)."""
        if self._pointer and self._owned:
            lib.MSG_ReleaseMsg(self._pointer)
        self._pointer, self._owned = None, False

    def __enter__(self) -> "Message":
        return self

    def __exit__(self, *_exception) -> None:
        self.release()

    def __del__(self) -> None:
        self.release()

    def __repr__(self) -> str:
        if not self._pointer:
            return "<orvane.Message (sent or released)>"
        return f"<orvane.Message type={self.type:#x} sequence={self.sequence} bytes={len(self.payload)} stack={self.stack}>"
