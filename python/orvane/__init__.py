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

:func:`set_debug_flags` with :data:`DEBUG_STDERR` shows the library's
diagnostic lines on standard error; :func:`set_config_file` points the
process at an endpoint configuration of its own.

Failures raise :class:`OrvaneError` (``code``, ``text``) or one of its
subclasses :class:`Timeout`, :class:`NotFound`, :class:`ConnectionReset`
and :class:`NotOpen`.  :mod:`orvane.linx` is the raw LINX level.
"""
from .diagnostics import (DEBUG_FILL_PAYLOAD, DEBUG_LOG_ALREADY_OPEN, DEBUG_LOG_NO_CALLBACK, DEBUG_LOG_NO_NTFY,
                          DEBUG_LOG_OPEN_PENDING, DEBUG_LOG_RECV_TIMEOUT, DEBUG_LOG_SUCCESS, DEBUG_STDERR,
                          DEBUG_TELEMETRY_RECV, DEBUG_TELEMETRY_SEND, DEBUG_TRACKER, debug_flags, set_config_file,
                          set_debug_flags)
from .endpoint import Endpoint
from .errors import ConnectionReset, NotFound, NotOpen, OrvaneError, Timeout
from .message import Message

__all__ = ["Endpoint", "Message", "OrvaneError", "Timeout", "NotFound", "ConnectionReset", "NotOpen",
           "debug_flags", "set_debug_flags", "set_config_file", "DEBUG_FILL_PAYLOAD", "DEBUG_LOG_RECV_TIMEOUT",
           "DEBUG_LOG_OPEN_PENDING", "DEBUG_LOG_ALREADY_OPEN", "DEBUG_LOG_NO_CALLBACK", "DEBUG_LOG_NO_NTFY",
           "DEBUG_LOG_SUCCESS", "DEBUG_STDERR", "DEBUG_TELEMETRY_SEND", "DEBUG_TELEMETRY_RECV", "DEBUG_TRACKER"]
