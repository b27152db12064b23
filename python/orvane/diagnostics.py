# SPDX-License-Identifier: Apache-2.0
"""What the library says, and where it finds its endpoint configuration.

The library writes its diagnostic lines to the system log; with
:data:`DEBUG_STDERR` set they also go to standard error, which is where a
developer on a host sees them::

    orvane.set_debug_flags(orvane.debug_flags() | orvane.DEBUG_STDERR)

The flags are the process's ``DebugFlag`` word, shared with any C code of
the process.  :func:`set_config_file` points the process at an endpoint
configuration of its own (the device's ``/system/etc/orvane.pb`` needs
root on a host); call it before the first peer is opened.
"""
import os

from ._native import lib
from .errors import check

DEBUG_FILL_PAYLOAD = 0x00000001      #: fill new payloads with 0xCC
DEBUG_LOG_RECV_TIMEOUT = 0x00000020  #: write lines of receive timeouts (102)
DEBUG_LOG_OPEN_PENDING = 0x00000040  #: write lines of opens already under way (309)
DEBUG_LOG_ALREADY_OPEN = 0x00000080  #: write lines of peers open already (306)
DEBUG_LOG_NO_CALLBACK = 0x00000100   #: write lines of messages no callback took (304)
DEBUG_LOG_NO_NTFY = 0x00000200       #: write lines of publications nobody took (305)
DEBUG_LOG_SUCCESS = 0x00000400       #: write a line for every call that succeeded
DEBUG_STDERR = 0x02000000            #: copy every line to standard error
DEBUG_TELEMETRY_SEND = 0x04000000    #: copy sent traffic to the telemetry collector
DEBUG_TELEMETRY_RECV = 0x08000000    #: copy received traffic to the telemetry collector
DEBUG_TRACKER = 0x80000000           #: track outstanding buffers


def debug_flags() -> int:
    """The process's debug flag word."""
    return lib.MSG_DebugGetFlag()


def set_debug_flags(flags: int) -> None:
    """Stores the whole debug flag word (an OR of the ``DEBUG_`` bits)."""
    if not 0 <= flags <= 0xFFFFFFFF:
        raise ValueError(f"debug flags are a 32-bit word, not {flags:#x}")
    lib.MSG_DebugSetFlag(flags)


def set_config_file(path: "os.PathLike[str] | str") -> None:
    """Loads the endpoint configuration from path instead of the device's
    file, for the rest of the process; raises :class:`OrvaneError` when the
    file cannot be read or parsed (203) or a configuration was loaded
    already (301)."""
    check(lib.MSG_SetConfigFile(os.fsencode(path)), f"loading the configuration {os.fspath(path)!r}")
