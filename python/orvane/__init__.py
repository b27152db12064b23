# SPDX-License-Identifier: Apache-2.0
"""liborvane from Python: typed messages between processes over LINX.

An :class:`Endpoint` is a public endpoint of this process: it sends
:class:`Message` objects (a user type, a sequence number, a payload and
the sender stack that routes answers back), receives them with a timeout
in seconds or from asyncio, finds peers by name and is told when they
appear and die, runs callbacks by type range, and publishes to
subscribers::

    import orvane

    with orvane.Endpoint("client") as client:
        server = client.open_remote_sync("weather-server", timeout=5)
        client.send(server, orvane.Message(0x100, size=64))
        with client.receive(0x101, timeout=5) as answer:
            print(bytes(answer.payload).split(b"\\0")[0].decode())

Failures raise :class:`OrvaneError` (``code``, ``text``) or one of its
subclasses :class:`Timeout`, :class:`NotFound`, :class:`ConnectionReset`
and :class:`NotOpen`.  :mod:`orvane.linx` is the raw LINX level.
"""
from .endpoint import Endpoint
from .errors import ConnectionReset, NotFound, NotOpen, OrvaneError, Timeout
from .message import Message

__all__ = ["Endpoint", "Message", "OrvaneError", "Timeout", "NotFound", "ConnectionReset", "NotOpen"]
