# SPDX-License-Identifier: Apache-2.0
"""Public endpoints: named, found by peers, served by a receive loop.

An :class:`Endpoint` is one public endpoint of this process.  Its receive
(``receive``, ``serve``, ``receive_async``) is the receive loop of the C
library: it handles the library's own messages on the way, so open and
close callbacks and subscription requests run inside it, on the thread
that receives, as in C.  A Python function the library calls back never
lets an exception unwind through C: the exception is logged on the
``orvane`` logger with its traceback, and the library carries on.

A receive for some types sets the messages of other types aside, in
order, for a later receive of this endpoint: nothing is lost, and the
receive loop keeps running while a caller waits for one answer.  What is
set aside is bounded, so that a peer flooding other types cannot grow this
process: with 1024 messages aside, a receive for one type waits for it
alone (the rest stay in the LINX queue, whose limits hold the peer back,
and the receive loop's own messages wait too), and a receive for several
types raises :class:`OrvaneError` (201) until those set aside are taken.
"""
import asyncio
import collections
import ctypes
import logging
import time
from typing import AsyncIterator, Callable, Collection, Optional, Union

from ._native import CALLBACK, MSG_Callback, lib, milliseconds
from .errors import OrvaneError, Timeout, check, error
from .message import Message

_log = logging.getLogger("orvane")
_MSG_ERR_MEMORY = 201
_MSG_ERR_LINX = 202
_MSG_ERR_NTFY_NOT_FOUND = 305
_MSG_ERR_REMOTE_ALREADY_OPEN = 306
_MSG_ERR_OPEN_IN_PROGRESS = 309
_HELD_AT_MOST = 1024  # messages of other types that receives set aside
_KEEPS_MESSAGE = {301, 302, 104, 307, 308}  # after these the caller still owns what it sent

Types = Union[None, int, Collection[int]]


def _callback(what: str, function: Callable, *wrap: Callable) -> CALLBACK:
    """A C callback that runs function with the message wrapped, and keeps
    its exceptions on this side of the library."""
    def call(_context, pointer):
        try:
            message = Message._wrap(pointer, owned=False)
            function(*(each(message) for each in wrap))
        except BaseException:  # nothing may unwind through C
            _log.exception("%s raised; the library carries on", what)
        return 0
    return CALLBACK(call)


def _wanted(types: Types):
    if types is None:
        return None
    return {types} if isinstance(types, int) else set(types)


class Endpoint:
    """A public endpoint named ``name``, open until :meth:`close` (or the
    end of a ``with`` block)."""

    def __init__(self, name: str):
        self.name = name
        self._name = name.encode()
        self._held = collections.deque()
        self._callbacks = {}  # keeps the C callbacks alive while registered
        check(lib.MSG_OpenLocal(self._name), f"opening {name!r}")

    def close(self) -> None:
        while self._held:
            self._held.popleft().release()
        if lib.MSG_IsLocalOpen(self._name):
            check(lib.MSG_CloseLocal(self._name), f"closing {self.name!r}")
        self._callbacks.clear()

    def __enter__(self) -> "Endpoint":
        return self

    def __exit__(self, *_exception) -> None:
        self.close()

    def fileno(self) -> int:
        """The LINX descriptor: readable while a message waits."""
        return lib.MSG_GetLocalFileDesc(self._name)

    # ---- sending -----------------------------------------------------------

    def _peer(self, to: Union[int, str]) -> int:
        if isinstance(to, int):
            return to
        spid = lib.MSG_GetRemoteId(self._name, to.encode())
        if spid == 0:
            raise error(105, f"{to!r} is not open on {self.name!r}")
        return spid

    def send(self, to: Union[int, str], message: Message) -> None:
        """Sends message to a peer (its SPID, or its name once opened).
        The library takes the message, unless the call fails in a way that
        leaves it with the caller."""
        address = message._address()
        status = lib.MSG_SendMsg(self._name, self._peer(to), address)
        if status not in _KEEPS_MESSAGE:
            message._give_up()
        check(status, f"sending {message!r}" if status in _KEEPS_MESSAGE else "sending")

    def reply(self, request: Message, payload: bytes = b"", type: Optional[int] = None) -> None:
        """Answers request along its sender stack, with the response type
        (the request's type with the low four bits 1) unless one is given."""
        answer_type = (request.type & ~0xF) | 0x1 if type is None else type
        pointer = lib.MSG_AllocMsgCopyHdr(request._address(), answer_type, len(payload))
        if not pointer:
            raise OrvaneError(_MSG_ERR_MEMORY, f"an answer of {len(payload)} bytes")
        answer = Message._wrap(pointer, owned=True)
        answer.payload[:] = payload
        self.send(0, answer)

    # ---- receiving -----------------------------------------------------------

    def _take_held(self, wanted) -> Optional[Message]:
        for message in self._held:
            if wanted is None or message.type in wanted:
                self._held.remove(message)
                return message
        return None

    def receive(self, types: Types = None, timeout: Optional[float] = None) -> Message:
        """The next user message (of one of types, when given), waiting up
        to timeout seconds (None: for ever; 0: only what is there).  Raises
        :class:`Timeout` when nothing came."""
        milliseconds(timeout)  # refuses a negative timeout before anything is taken
        wanted = _wanted(types)
        held = self._take_held(wanted)
        if held is not None:
            return held
        deadline = None if timeout is None else time.monotonic() + timeout
        while True:
            remaining = None if deadline is None else max(0.0, deadline - time.monotonic())
            if len(self._held) < _HELD_AT_MOST or wanted is None:
                pointer = lib.MSG_RecvAnyMsg(self._name, milliseconds(remaining))
            else:
                pointer = self._receive_only(wanted, remaining)
            if not pointer:
                check(0 if lib.MSG_IsLocalOpen(self._name) else 302, f"receiving on {self.name!r}")
                if deadline is not None and time.monotonic() >= deadline - 0.001:
                    raise Timeout(102, f"{self.name!r} waited {timeout} s")
                raise OrvaneError(_MSG_ERR_LINX, f"receiving on {self.name!r}")
            message = Message._wrap(pointer, owned=True)
            if wanted is None or message.type in wanted:
                return message
            self._held.append(message)

    def _receive_only(self, wanted, remaining: Optional[float]) -> int:
        """Waits for the one wanted type alone, once enough is set aside."""
        if len(wanted) != 1:
            raise OrvaneError(_MSG_ERR_MEMORY, f"{len(self._held)} messages of other types wait on "
                                               f"{self.name!r}: receive them before waiting for several types")
        return lib.MSG_RecvMsg(self._name, next(iter(wanted)), milliseconds(remaining))

    def dispatch(self, message: Message) -> None:
        """Runs the callbacks registered for the message's type."""
        check(lib.MSG_ProcessCallback(self._name, message._address()))

    def serve(self, duration: float) -> int:
        """Receives and dispatches every message for duration seconds;
        returns how many came."""
        count, deadline = 0, time.monotonic() + duration
        while True:
            try:
                with self.receive(timeout=max(0.0, deadline - time.monotonic())) as message:
                    self.dispatch(message)
                    count += 1
            except Timeout:
                return count

    async def receive_async(self, types: Types = None) -> Message:
        """The next user message, awaited on the event loop: the endpoint's
        descriptor is watched with ``loop.add_reader``, no thread polls."""
        loop = asyncio.get_running_loop()
        descriptor = self.fileno()
        while True:
            try:
                return self.receive(types, timeout=0)
            except Timeout:
                pass
            readable = loop.create_future()
            loop.add_reader(descriptor, lambda: readable.done() or readable.set_result(None))
            try:
                await readable
            finally:
                loop.remove_reader(descriptor)

    async def messages(self, types: Types = None) -> AsyncIterator[Message]:
        """``async for message in endpoint.messages():`` for ever."""
        while True:
            yield await self.receive_async(types)

    # ---- callbacks by type range ------------------------------------------

    def on(self, first: int, last: int, function: Callable[[Message], None], once: bool = False) -> None:
        """Calls function(message) from :meth:`dispatch` for each message of
        a type in first..last (inclusive); once: only for the first."""
        c_function = _callback(f"callback {function!r} for {first:#x}..{last:#x}", function, lambda m: m)
        check(lib.MSG_RegisterCallbackHelper(self._name, c_function, None, first, last, int(once)))
        self._callbacks[(function, first, last, once)] = c_function

    def off(self, first: int, last: int, function: Callable[[Message], None], once: bool = False) -> None:
        """Removes a callback :meth:`on` registered."""
        c_function = self._callbacks.pop((function, first, last, once), None)
        if c_function is None:
            raise error(304, f"{function!r} for {first:#x}..{last:#x}")
        check(lib.MSG_UnregisterCallbackHelper(self._name, c_function, None, first, last, int(once)))

    # ---- peers by name -----------------------------------------------------

    def open_remote(self, name: str, on_open: Optional[Callable[[str, int], None]] = None,
                    on_close: Optional[Callable[[str, int], None]] = None, once: bool = False) -> None:
        """Looks for the peer name; the receive loop calls on_open(name,
        spid) when it appears and on_close(name, spid) when it goes, at
        every restart unless once."""
        def spid(message):
            return message.sender
        callbacks = [MSG_Callback(_callback(f"{role} callback of {name!r}", function or (lambda *_: None),
                                            lambda _m: name, spid), None, 0, 0, int(once))
                     for role, function in (("open", on_open), ("close", on_close))]
        check(lib.MSG_OpenRemoteAsync(self._name, name.encode(), *(ctypes.byref(c) for c in callbacks)),
              f"opening {name!r}")
        self._callbacks[("remote", name)] = callbacks

    def open_remote_sync(self, name: str, timeout: Optional[float] = None) -> int:
        """Waits until the peer name exists (up to timeout seconds) and
        returns its SPID; raises :class:`Timeout` when it did not appear.
        A peer this endpoint has open already gives its SPID at once; one
        that :meth:`open_remote` is looking for is waited for through the
        receive loop (its open callback runs; user messages that come
        meanwhile are set aside for later receives)."""
        spid = ctypes.c_uint32()
        status = lib.MSG_OpenRemoteSync(self._name, name.encode(), milliseconds(timeout), ctypes.byref(spid))
        if status == _MSG_ERR_REMOTE_ALREADY_OPEN:
            return lib.MSG_GetRemoteId(self._name, name.encode())
        if status == _MSG_ERR_OPEN_IN_PROGRESS:
            return self._await_open(name, timeout)
        check(status, f"opening {name!r}")
        return spid.value

    def _await_open(self, name: str, timeout: Optional[float]) -> int:
        deadline = None if timeout is None else time.monotonic() + timeout
        while (spid := lib.MSG_GetRemoteId(self._name, name.encode())) == 0:
            remaining = 0.05 if deadline is None else min(0.05, deadline - time.monotonic())
            if remaining <= 0:
                raise Timeout(101, f"{name!r} did not appear within {timeout} s")
            try:
                self.receive(types=(), timeout=remaining)  # takes nothing: runs the loop, sets aside the rest
            except Timeout:
                pass
        return spid

    def close_remote(self, name: str) -> None:
        """Forgets the peer name and its callbacks."""
        check(lib.MSG_CloseRemote(self._name, name.encode()), f"closing {name!r}")
        self._callbacks.pop(("remote", name), None)

    # ---- notifications -----------------------------------------------------

    def subscribe(self, publisher: Union[int, str], first: int, last: Optional[int] = None) -> None:
        """Asks publisher for copies of what it publishes of types first..last."""
        check(lib.MSG_RegisterNotificationRemote(self._name, first, first if last is None else last,
                                                 self._peer(publisher)), "subscribing")

    def unsubscribe(self, publisher: Union[int, str], first: int, last: Optional[int] = None) -> None:
        check(lib.MSG_UnregisterNotificationRemote(self._name, first, first if last is None else last,
                                                   self._peer(publisher)), "unsubscribing")

    def publish(self, message: Message) -> bool:
        """Sends a copy of message to every subscriber of its type and
        takes the message; False when nobody subscribed to it."""
        status = lib.MSG_SendNotification(self._name, message._give_up())
        if status == _MSG_ERR_NTFY_NOT_FOUND:
            return False
        check(status, "publishing")
        return True
