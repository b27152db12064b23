# SPDX-License-Identifier: Apache-2.0
"""The C library and the prototypes of the functions this package calls.

ctypes, from Python's standard library, reaches liborvane without anything
compiled at install time and without a dependency: the package is pure
Python, one copy for every architecture.  (cffi's ABI mode would do the
same through one more package.)  A call through ctypes releases the GIL, so
a receive that waits lets the program's other threads run; a callback the
library makes takes the GIL back for the Python function it runs.

The library is looked for next to this file first (a build tree puts a
link to it there), then through the dynamic loader's usual path.
"""
import ctypes
import os
from ctypes import CFUNCTYPE, POINTER, Structure, c_char_p, c_int, c_int32, c_uint32, c_void_p


def _load() -> ctypes.CDLL:
    beside = os.path.join(os.path.dirname(os.path.abspath(__file__)), "liborvane.so.0")
    # The link resolved: the library finds linxd beside its real self.
    path = os.path.realpath(beside) if os.path.exists(beside) else "liborvane.so.0"
    return ctypes.CDLL(path, use_errno=True)


lib = _load()

#: uint32_t (*MSG_CallbackFunc)(void *pContext, MSG_Msg *pMsg)
CALLBACK = CFUNCTYPE(c_uint32, c_void_p, c_void_p)


class MSG_Callback(Structure):
    _fields_ = [("pFunc", CALLBACK), ("pContext", c_void_p), ("MsgTypeMin", c_uint32),
                ("MsgTypeMax", c_uint32), ("bOneShot", c_uint32)]


_u32, _msg, _name, _sig = c_uint32, c_void_p, c_char_p, POINTER(c_void_p)
_PROTOTYPES = {
    "MSG_DebugStrError": (c_char_p, [_u32]),
    "MSG_OpenLocal": (_u32, [_name]),
    "MSG_CloseLocal": (_u32, [_name]),
    "MSG_IsLocalOpen": (_u32, [_name]),
    "MSG_GetLocalFileDesc": (c_int, [_name]),
    "MSG_AllocMsg": (_msg, [_u32, _u32, c_int32]),
    "MSG_AllocMsgCopyHdr": (_msg, [_msg, _u32, c_int32]),
    "MSG_ReleaseMsg": (_u32, [_msg]),
    "MSG_GetType": (_u32, [_msg]),
    "MSG_SetType": (_u32, [_msg, _u32]),
    "MSG_GetSequence": (_u32, [_msg]),
    "MSG_SetSequence": (_u32, [_msg, _u32]),
    "MSG_GetPayloadMutable": (c_void_p, [_msg]),
    "MSG_GetPayloadBytes": (c_int32, [_msg]),
    "MSG_GetSendStackSize": (_u32, [_msg]),
    "MSG_GetSender": (_u32, [_msg]),
    "MSG_GetOrigSender": (_u32, [_msg]),
    "MSG_GetNextSequence": (_u32, []),
    "MSG_SendMsg": (_u32, [_name, _u32, _msg]),
    "MSG_RecvAnyMsg": (_msg, [_name, c_int32]),
    "MSG_RecvMsg": (_msg, [_name, _u32, c_int32]),
    "MSG_ProcessCallback": (_u32, [_name, _msg]),
    "MSG_RegisterCallbackHelper": (_u32, [_name, CALLBACK, c_void_p, _u32, _u32, _u32]),
    "MSG_UnregisterCallbackHelper": (_u32, [_name, CALLBACK, c_void_p, _u32, _u32, _u32]),
    "MSG_OpenRemoteAsync": (_u32, [_name, _name, POINTER(MSG_Callback), POINTER(MSG_Callback)]),
    "MSG_OpenRemoteSync": (_u32, [_name, _name, c_int32, POINTER(_u32)]),
    "MSG_CloseRemote": (_u32, [_name, _name]),
    "MSG_GetRemoteId": (_u32, [_name, _name]),
    "MSG_RegisterNotificationRemote": (_u32, [_name, _u32, _u32, _u32]),
    "MSG_UnregisterNotificationRemote": (_u32, [_name, _u32, _u32, _u32]),
    "MSG_SendNotification": (_u32, [_name, _msg]),
    "MSG_DebugSetFlag": (_u32, [_u32]),
    "MSG_DebugGetFlag": (_u32, []),
    "MSG_SetConfigFile": (_u32, [_name]),
    "linx_open": (c_void_p, [_name, _u32, c_void_p]),
    "linx_close": (c_int, [c_void_p]),
    "linx_get_spid": (_u32, [c_void_p]),
    "linx_get_descriptor": (c_int, [c_void_p]),
    "linx_alloc": (c_void_p, [c_void_p, _u32, _u32]),
    "linx_free_buf": (c_int, [c_void_p, _sig]),
    "linx_sender": (_u32, [c_void_p, _sig]),
    "linx_send": (c_int, [c_void_p, _sig, _u32]),
    "linx_receive_w_tmo": (c_int, [c_void_p, _sig, c_int32, POINTER(_u32)]),
    "linx_hunt": (c_int, [c_void_p, _name, _sig]),
    "linx_attach": (_u32, [c_void_p, _sig, _u32]),
    "linx_detach": (c_int, [c_void_p, POINTER(_u32)]),
}
for _function, (_result, _arguments) in _PROTOTYPES.items():
    getattr(lib, _function).restype = _result
    getattr(lib, _function).argtypes = _arguments


def milliseconds(timeout) -> int:
    """A timeout in seconds (None: for ever) as the library's milliseconds (-1: for ever)."""
    if timeout is None:
        return -1
    if timeout < 0:
        raise ValueError("a timeout is None or at least 0 seconds")
    return min(int(timeout * 1000 + 0.999), 0x7FFFFFFF)
