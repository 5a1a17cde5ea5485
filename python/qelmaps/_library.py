"""Loading libqelmaps and declaring its C API for ctypes.

The library is looked for where an application expects it: the path in
QELMAPS_LIBRARY, then the copy a wheel bundles inside this package, then the
system's loader (the Debian package libqelmaps1). When none loads, the
ImportError says where it looked and how to fix it.
"""

import ctypes
import ctypes.util
import os
from typing import Any, Callable, List, Tuple

class Size(ctypes.Structure):
    _fields_ = [("width", ctypes.c_double), ("height", ctypes.c_double)]


class ChannelStatus(ctypes.Structure):
    _fields_ = [("failure", ctypes.c_int), ("code", ctypes.c_int), ("failed_at_ms", ctypes.c_int64),
                ("consecutive_failures", ctypes.c_uint32)]


class Status(ctypes.Structure):
    _fields_ = [("phase", ctypes.c_int), ("since_ms", ctypes.c_int64), ("next_attempt_ms", ctypes.c_int64),
                ("channels", ChannelStatus * 3)]


class Backoff(ctypes.Structure):
    _fields_ = [("initial_ms", ctypes.c_uint32), ("multiplier", ctypes.c_double), ("maximum_ms", ctypes.c_uint32),
                ("jitter", ctypes.c_double)]


class Trace(ctypes.Structure):
    _phases = ("update_received", "queued", "name_lookup_done", "connected", "tls_done", "first_byte", "body_done",
               "decoded", "shown")
    _fields_: "List[Tuple[str, Any]]" = [("source", ctypes.c_char_p)]
    _fields_ += [(name + "_us", ctypes.c_int64) for name in _phases]
    _fields_ += [("bytes_received", ctypes.c_uint64), ("http_version", ctypes.c_char_p),
                 ("connection_reused", ctypes.c_int), ("revalidated", ctypes.c_int), ("result", ctypes.c_int),
                 ("failure", ctypes.c_int), ("failure_message", ctypes.c_char_p)]


TRACE = ctypes.CFUNCTYPE(None, ctypes.c_void_p, ctypes.POINTER(Trace), ctypes.c_void_p)
CALLBACK = ctypes.CFUNCTYPE(None, ctypes.c_void_p, ctypes.c_int, ctypes.c_void_p)
DISPATCH = ctypes.CFUNCTYPE(None, ctypes.c_void_p, ctypes.c_void_p)
LOG = ctypes.CFUNCTYPE(None, ctypes.c_int, ctypes.c_char_p, ctypes.c_char_p, ctypes.c_void_p)


_SONAME = "libqelmaps.so.1"


_OK, _BUFFER_TOO_SMALL = 0, 5


def _candidates() -> List[str]:
    """Where the library is looked for, in order: the path the application
    names, the copy a wheel bundles beside this module, then the system's."""
    found = []
    named = os.environ.get("QELMAPS_LIBRARY")
    if named:
        found.append(named)
    bundled = os.path.join(os.path.dirname(os.path.abspath(__file__)), "_lib", _SONAME)
    if os.path.exists(bundled):
        found.append(bundled)
    system = ctypes.util.find_library("qelmaps")
    found.append(system or _SONAME)
    return found


def _open() -> ctypes.CDLL:
    tried = []
    for path in _candidates():
        try:
            return ctypes.CDLL(path)
        except OSError as error:
            tried.append(f"  {path}: {error}")
    raise ImportError(
        "qelmaps: cannot load the QELMaps library. Tried:\n" + "\n".join(tried) + "\n"
        "Install the wheel that bundles it, or the Debian package libqelmaps1, or set "
        "QELMAPS_LIBRARY to the path of libqelmaps.so.1.")


def _load() -> ctypes.CDLL:
    lib = _open()
    p, i, d, e, s = ctypes.c_void_p, ctypes.c_int, ctypes.c_double, ctypes.c_int, ctypes.c_size_t
    signatures = {
        "qelmaps_error_string": (ctypes.c_char_p, [e]),
        "qelmaps_version": (ctypes.c_char_p, []),
        "qelmaps_service_version": (ctypes.c_char_p, []),
        "qelmaps_config_create": (p, []),
        "qelmaps_config_destroy": (None, [p]),
        "qelmaps_config_set_host": (e, [p, ctypes.c_char_p]),
        "qelmaps_config_set_port": (e, [p, i]),
        "qelmaps_config_set_ca_file": (e, [p, ctypes.c_char_p]),
        "qelmaps_config_set_event_path": (e, [p, ctypes.c_char_p]),
        "qelmaps_config_set_log_threshold": (e, [p, i]),
        "qelmaps_config_set_log_callback": (e, [p, LOG, p]),
        "qelmaps_config_set_callback": (e, [p, i, CALLBACK, p]),
        "qelmaps_config_set_dispatch": (e, [p, DISPATCH, p]),
        "qelmaps_task_run": (None, [p]),
        "qelmaps_task_discard": (None, [p]),
        "qelmaps_client_create": (e, [p, ctypes.POINTER(p)]),
        "qelmaps_client_destroy": (e, [p]),
        "qelmaps_client_start": (e, [p]),
        "qelmaps_client_stop": (e, [p]),
        "qelmaps_client_choose_resolution": (e, [p, d, d]),
        "qelmaps_client_clear_resolution": (e, [p]),
        "qelmaps_client_resolutions": (e, [p, ctypes.POINTER(Size), s, ctypes.POINTER(s)]),
        "qelmaps_client_current_resolution": (e, [p, ctypes.POINTER(Size)]),
        "qelmaps_client_state": (e, [p, ctypes.POINTER(i), ctypes.POINTER(i)]),
        "qelmaps_client_map_data": (e, [p, ctypes.POINTER(i)]),
        "qelmaps_client_picture": (e, [p, ctypes.POINTER(p)]),
        "qelmaps_client_status": (e, [p, ctypes.POINTER(Status)]),
        "qelmaps_client_last_picture": (e, [p, ctypes.POINTER(p)]),
        "qelmaps_client_picture_is_stale": (e, [p, ctypes.POINTER(i)]),
        "qelmaps_picture_received_at_ms": (ctypes.c_int64, [p]),
        "qelmaps_config_set_cache_dir": (e, [p, ctypes.c_char_p]),
        "qelmaps_config_set_trace_callback": (e, [p, TRACE, p]),
        "qelmaps_client_stats": (e, [p, ctypes.c_char_p, s, ctypes.POINTER(s)]),
        "qelmaps_client_network_changed": (e, [p]),
        "qelmaps_backoff_default": (e, [i, ctypes.c_void_p]),
        "qelmaps_config_set_backoff": (e, [p, i, ctypes.c_void_p]),
        "qelmaps_config_set_watch_network": (e, [p, i]),
        "qelmaps_client_failure_message": (e, [p, i, ctypes.c_char_p, s, ctypes.POINTER(s)]),
        "qelmaps_client_status_text": (e, [p, ctypes.c_char_p, s, ctypes.POINTER(s)]),
        "qelmaps_failure_string": (ctypes.c_char_p, [i]),
        "qelmaps_phase_string": (ctypes.c_char_p, [i]),
        "qelmaps_picture_release": (None, [p]),
        "qelmaps_picture_width": (s, [p]),
        "qelmaps_picture_height": (s, [p]),
        "qelmaps_picture_stride": (s, [p]),
        "qelmaps_picture_pixels": (p, [p]),
    }
    for name, (restype, argtypes) in signatures.items():
        function = getattr(lib, name)
        function.restype = restype
        function.argtypes = argtypes
    return lib


lib = _load()


def copy_text(read: Callable[..., Any]) -> Tuple[int, str]:
    """A text the C API copies out, read as ``read(buffer, capacity, length)``:
    its length first, then the text. The text is live (a stats document's
    counters, a status line) and may have grown between the two calls, so
    the copy is tried again, with room for the new length, until it fits.
    Returns the last call's code and the text."""
    length = ctypes.c_size_t()
    code = int(read(None, 0, ctypes.byref(length)))
    while code == _BUFFER_TOO_SMALL or code == _OK:
        buffer = ctypes.create_string_buffer(length.value + 64)
        code = int(read(buffer, len(buffer), ctypes.byref(length)))
        if code != _BUFFER_TOO_SMALL:
            return code, buffer.value.decode("utf-8", "replace")
    return code, ""
