"""ctypes bindings of <QELMaps/qelmaps.h> and the Client built on them."""

import ctypes
import enum
import functools
import os
import queue
import threading
from typing import Any, Callable, Dict, List, NamedTuple, Optional, Tuple, TypeVar, cast

# The library and the C API's types, loaded once per process.
from . import _monitoring, _reconnect, _status
from ._library import CALLBACK as _CALLBACK, TRACE as _TRACE, DISPATCH as _DISPATCH, LOG as _LOG, Size as _Size, lib as _lib


class Event(str, enum.Enum):
    """What a callback announces, in the C API's order. A member is also the
    notification's name as a string, so code that compares with the names
    (or the module's constants) keeps working."""

    AVAILABLE_RESOLUTIONS_DID_CHANGE = "BROADCAST_MAPS_AVAILABLE_RESOLUTIONS_DID_CHANGE"
    IMAGE_DID_CHANGE = "BROADCAST_MAPS_IMAGE_DID_CHANGE"
    IMAGE_DID_STOP_RECEIVING_IMAGE = "BROADCAST_MAPS_IMAGE_DID_STOP_RECEIVING_IMAGE"
    ERROR = "BROADCAST_MAPS_ERROR"
    IMAGE_DID_START_RECEIVING_IMAGE = "BROADCAST_MAPS_IMAGE_DID_START_RECEIVING_IMAGE"
    STATE_DID_CHANGE = "STATE_DID_CHANGE"  # a call of the application changed the state
    STATUS_DID_CHANGE = "STATUS_DID_CHANGE"  # the connection status changed: read status()

    def __str__(self) -> str:
        return self.value


AVAILABLE_RESOLUTIONS_DID_CHANGE = Event.AVAILABLE_RESOLUTIONS_DID_CHANGE
IMAGE_DID_CHANGE = Event.IMAGE_DID_CHANGE
IMAGE_DID_STOP_RECEIVING_IMAGE = Event.IMAGE_DID_STOP_RECEIVING_IMAGE
ERROR = Event.ERROR
IMAGE_DID_START_RECEIVING_IMAGE = Event.IMAGE_DID_START_RECEIVING_IMAGE
STATE_DID_CHANGE = Event.STATE_DID_CHANGE
STATUS_DID_CHANGE = Event.STATUS_DID_CHANGE
_EVENTS = list(Event)

_OK, _NO_PICTURE, _NO_RESOLUTION, _BUFFER_TOO_SMALL = 0, 3, 4, 5


class Error(Exception):
    """A call of the C API failed; ``code`` is its error name."""

    def __init__(self, code: int, what: str):
        self.code = _lib.qelmaps_error_string(code).decode()
        super().__init__(f"{what}: {self.code}")


class ClosedError(Error, ValueError):
    """A method of a client was called after its ``close()``."""

    def __init__(self) -> None:
        self.code = "CLOSED"
        Exception.__init__(self, "the client is closed")


def _check(code: int, what: str) -> None:
    if code != _OK:
        raise Error(code, what)


def version() -> str:
    return str(_lib.qelmaps_version().decode())


def service_version() -> str:
    return str(_lib.qelmaps_service_version().decode())


class Picture(NamedTuple):
    """A map picture: ``height`` rows of ``width`` RGBA pixels, packed.

    ``pixels`` is a read-only memoryview of the library's decoded pixels, not
    a copy (hand it to numpy, Pillow or a texture upload as it is); the
    pixels live as long as the view, also after the client is closed.
    ``tobytes()`` copies them when bytes are wanted."""

    width: int
    height: int
    pixels: memoryview
    received_at: float = 0.0  # Unix time, seconds; from an earlier run when it came from the cache
    stale: bool = False  # not the current live map: show its age

    def tobytes(self) -> bytes:
        return self.pixels.tobytes()


class _PictureReference:
    """Holds one reference to a C picture; the memoryview's buffer keeps it."""

    def __init__(self, handle: ctypes.c_void_p):
        self.handle = handle

    def __del__(self) -> None:
        if _lib is not None:  # None at interpreter shutdown
            _lib.qelmaps_picture_release(self.handle)


def _size(size: _Size) -> Tuple[float, float]:
    # Whole pixel counts come back as ints, as they were sent.
    width, height = (int(v) if float(v).is_integer() else float(v) for v in (size.width, size.height))
    return width, height


Handler = Callable[["Client", Event], None]


# How many log callbacks run on this thread (the library's own, or one inside
# a call of a client): close() there must not wait for the library.
_calling = threading.local()
# Queued for the callbacks thread: finish a close() that a log callback asked for.
_CLOSE = object()


_Method = TypeVar("_Method", bound=Callable[..., Any])


def _holding(method: _Method) -> _Method:
    """Runs ``method`` with the client's handle kept alive: close() waits until
    it returns, and raises ClosedError once close() has begun."""

    @functools.wraps(method)
    def holding(self: "Client", *args: Any, **kwargs: Any) -> Any:
        with self._lock:
            if self._closed:
                raise ClosedError()
            self._users += 1
        try:
            return method(self, *args, **kwargs)
        finally:
            with self._lock:
                self._users -= 1
                if not self._users:
                    self._idle.notify_all()

    return cast(_Method, holding)


class Client:
    """The broadcast map. Methods may be called from any thread.

    Callbacks run on the thread ``qelmaps-callbacks`` with ``(client,
    event)``; read the client there (``resolutions()``, ``picture()``). The
    map data is loaded as soon as the client exists, so its first events may
    come before an ``on()`` call that follows the constructor: pass
    ``handlers`` ({event: callback}) to hear them.
    After ``close()`` returns no callback runs any more, and every method
    raises ClosedError; a call running on another thread finishes first.
    Settings left out fall back to the QEL_* environment variables.
    ``event_backoff`` and ``retry_backoff`` (``Backoff``) replace how long
    the event channel and a failed map data request wait before trying
    again. ``watch_network`` (Linux) follows the device's links, addresses
    and routes and reconnects at once when they change, as
    ``network_changed()`` does.
    """

    def __init__(self, host: Optional[str] = None, port: Optional[int] = None, ca_file: Optional[str] = None,
                 event_path: Optional[str] = None, log_level: Optional[int] = None,
                 log: Optional[Callable[[int, str, str], None]] = None,
                 handlers: "Optional[Dict[Event | str, Handler]]" = None,
                 cache_dir: "Optional[str | os.PathLike[str]]" = None,
                 on_trace: "Optional[Callable[[_monitoring.Trace], None]]" = None,
                 event_backoff: "Optional[_reconnect.Backoff]" = None,
                 retry_backoff: "Optional[_reconnect.Backoff]" = None,
                 watch_network: bool = False):
        self._handlers: Dict[Event, List[Handler]] = {}
        self._tasks: "queue.SimpleQueue[object]" = queue.SimpleQueue()
        self._lock = threading.Lock()
        self._idle = threading.Condition(self._lock)
        self._users = 0  # methods running now, on any thread
        self._closed = False
        for event, handler in (handlers or {}).items():
            self.on(event, handler)
        self._handle = ctypes.c_void_p()
        # ctypes trampolines must outlive every call the library may make.
        self._on_event = _CALLBACK(self._deliver)
        self._on_dispatch = _DISPATCH(lambda task, _: self._tasks.put(task))
        self._on_log = _LOG(functools.partial(self._log, log)) if log else None
        self._on_trace = _TRACE(functools.partial(self._trace, on_trace)) if on_trace else None
        config = _lib.qelmaps_config_create()
        if not config:
            raise MemoryError
        try:
            if host is not None:
                _check(_lib.qelmaps_config_set_host(config, host.encode()), "host")
            if port is not None:
                _check(_lib.qelmaps_config_set_port(config, port), "port")
            if ca_file is not None:
                _check(_lib.qelmaps_config_set_ca_file(config, os.fsencode(ca_file)), "ca_file")
            if event_path is not None:
                _check(_lib.qelmaps_config_set_event_path(config, event_path.encode()), "event_path")
            if log_level is not None:
                _check(_lib.qelmaps_config_set_log_threshold(config, log_level), "log_level")
            if cache_dir is not None:
                _check(_lib.qelmaps_config_set_cache_dir(config, os.fsencode(cache_dir)), "cache_dir")
            _reconnect.apply(config, _check, event_backoff, retry_backoff)
            _check(_lib.qelmaps_config_set_watch_network(config, int(watch_network)), "watch_network")
            if self._on_log:
                _check(_lib.qelmaps_config_set_log_callback(config, self._on_log, None), "log")
            if self._on_trace:
                _check(_lib.qelmaps_config_set_trace_callback(config, self._on_trace, None), "on_trace")
            _check(_lib.qelmaps_config_set_dispatch(config, self._on_dispatch, None), "dispatch")
            for index in range(len(_EVENTS)):
                _check(_lib.qelmaps_config_set_callback(config, index, self._on_event, None), "callback")
            _check(_lib.qelmaps_client_create(config, ctypes.byref(self._handle)), "create")
        finally:
            _lib.qelmaps_config_destroy(config)
        self._thread = threading.Thread(target=self._run, name="qelmaps-callbacks", daemon=True)
        self._thread.start()

    # Context manager: close() on the way out.
    def __enter__(self) -> "Client":
        return self

    def __exit__(self, *exc: object) -> None:
        self.close()

    def on(self, event: "Event | str", handler: "Handler") -> None:
        """Calls ``handler(client, event)`` for each ``event`` (an ``Event``, or its name)."""
        event = Event(event)  # a str-valued member hashes by its name: one kind of key
        with self._lock:
            self._handlers.setdefault(event, []).append(handler)

    def off(self, event: "Event | str", handler: "Handler") -> None:
        """Stops calling ``handler`` for ``event``; one registration goes per call.
        A handler that is not registered is ignored."""
        event = Event(event)
        with self._lock:
            handlers = self._handlers.get(event, [])
            if handler in handlers:
                handlers.remove(handler)

    @_holding
    def start(self) -> None:
        _check(_lib.qelmaps_client_start(self._live()), "start")

    @_holding
    def stop(self) -> None:
        _check(_lib.qelmaps_client_stop(self._live()), "stop")

    @_holding
    def choose_resolution(self, width: float, height: float) -> None:
        _check(_lib.qelmaps_client_choose_resolution(self._live(), width, height), "choose_resolution")

    @_holding
    def clear_resolution(self) -> None:
        _check(_lib.qelmaps_client_clear_resolution(self._live()), "clear_resolution")

    @_holding
    def resolutions(self) -> List[Tuple[float, float]]:
        """The sizes the server offers as (width, height), in its order; [] without map data."""
        handle, count = self._live(), ctypes.c_size_t()
        while True:
            sizes = (_Size * max(count.value, 1))()
            code = _lib.qelmaps_client_resolutions(handle, sizes, len(sizes), ctypes.byref(count))
            if code != _BUFFER_TOO_SMALL:
                _check(code, "resolutions")
                return [_size(sizes[i]) for i in range(count.value)]

    @_holding
    def current_resolution(self) -> Optional[Tuple[float, float]]:
        size = _Size()
        code = _lib.qelmaps_client_current_resolution(self._live(), ctypes.byref(size))
        if code == _NO_RESOLUTION:
            return None
        _check(code, "current_resolution")
        return _size(size)

    @property
    def receiving(self) -> bool:
        return self._state()[0]

    @property
    def has_map_data(self) -> bool:
        return self._state()[1]

    @property
    def map_data(self) -> str:
        """The map data held: "listed" (pictures to show), "empty" (the server answered with none,
        not an error) or "none" (no answer yet, or the server out of reach: what ERROR announces)."""
        return self._map_data()

    @_holding
    def _map_data(self) -> str:
        state = ctypes.c_int()
        _check(_lib.qelmaps_client_map_data(self._live(), ctypes.byref(state)), "map_data")
        return ("none", "empty", "listed")[state.value]

    @_holding
    def network_changed(self) -> None:
        """Call it when the device's network changed: a channel waiting to reconnect does so at once."""
        _check(_lib.qelmaps_client_network_changed(self._live()), "network_changed")

    @_holding
    def stats(self) -> Dict[str, Any]:
        """The counters since the client was made, as the stats document (see the README's "Monitoring")."""
        return _monitoring.read_stats(self._live(), _check)

    @_holding
    def status(self) -> _status.Status:
        """Why the map is or is not live: the phase and each channel's last failure."""
        return _status.read(self._live(), _check)

    @_holding
    def picture(self) -> Optional[Picture]:
        """The service's current map picture (its pixels shared, not copied), or None."""
        return self._picture(_lib.qelmaps_client_picture, False)

    @_holding
    def last_picture(self) -> Optional[Picture]:
        """The last picture shown, kept through outages (and, with ``cache_dir``, across runs),
        with ``received_at`` and ``stale``; None when there never was one."""
        stale = ctypes.c_int()
        _check(_lib.qelmaps_client_picture_is_stale(self._live(), ctypes.byref(stale)), "picture_is_stale")
        return self._picture(_lib.qelmaps_client_last_picture, bool(stale.value))

    def _picture(self, read: Callable[..., int], stale: bool) -> Optional[Picture]:
        handle = ctypes.c_void_p()
        code = read(self._live(), ctypes.byref(handle))
        if code == _NO_PICTURE:
            return None
        _check(code, "picture")
        reference = _PictureReference(handle)  # releases it when the last view goes
        width, height = int(_lib.qelmaps_picture_width(handle)), int(_lib.qelmaps_picture_height(handle))
        stride = int(_lib.qelmaps_picture_stride(handle))
        rows = (ctypes.c_ubyte * (stride * height)).from_address(_lib.qelmaps_picture_pixels(handle))
        rows._reference = reference  # type: ignore[attr-defined]
        pixels = memoryview(rows).cast("B")
        if stride != width * 4:  # padded rows: packed into a copy
            pixels = memoryview(b"".join(pixels[row * stride:row * stride + width * 4] for row in range(height)))
        received_at = _lib.qelmaps_picture_received_at_ms(handle) / 1000.0
        return Picture(width, height, pixels.toreadonly(), received_at, stale)

    def close(self) -> None:
        """Stops the map; no callback runs once this returns. Safe to call twice, and from a callback.

        From the log callback, which may run on the library's own thread, the
        close is finished on the callbacks thread right after it returns."""
        with self._lock:
            first, self._closed = not self._closed, True
        if getattr(_calling, "log", 0):
            if first:
                self._tasks.put(_CLOSE)
            return
        self._finish()
        if threading.current_thread() is not self._thread:
            self._thread.join()

    def _finish(self) -> None:
        with self._lock:
            self._idle.wait_for(lambda: self._users == 0)
            handle, self._handle = self._handle, ctypes.c_void_p()
        if handle:
            code = _lib.qelmaps_client_destroy(handle)
            self._tasks.put(None)
            _check(code, "close")

    # Only inside a @_holding method, which keeps the handle alive.
    def _live(self) -> ctypes.c_void_p:
        handle = self._handle
        if not handle:
            raise ClosedError()
        return handle

    @_holding
    def _state(self) -> Tuple[bool, bool]:
        receiving, has_map_data = ctypes.c_int(), ctypes.c_int()
        _check(_lib.qelmaps_client_state(self._live(), ctypes.byref(receiving), ctypes.byref(has_map_data)), "state")
        return bool(receiving.value), bool(has_map_data.value)

    # The callbacks thread: runs every queued delivery; after close() the
    # library turns the rest into no-ops, which only free themselves.
    def _run(self) -> None:
        while True:
            task = self._tasks.get()
            if task is None:
                break
            if self._closed:  # asked for by a log callback, or under way on another thread
                self._finish()
            if task is not _CLOSE:
                _lib.qelmaps_task_run(task)
        while True:
            try:
                task = self._tasks.get_nowait()
            except queue.Empty:
                return
            if task is not None and task is not _CLOSE:
                _lib.qelmaps_task_discard(task)

    def _log(self, log: Callable[[int, str, str], None], level: int, domain: bytes, message: bytes,
             _user_data: Optional[int]) -> None:
        _calling.log = getattr(_calling, "log", 0) + 1
        try:
            log(level, domain.decode(errors="replace"), message.decode(errors="replace"))
        finally:
            _calling.log -= 1

    def _trace(self, on_trace: Callable[[_monitoring.Trace], None], _client: Optional[int], raw: Any,
               _user_data: Optional[int]) -> None:
        # Runs on the callbacks thread, like the event handlers.
        try:
            on_trace(_monitoring.trace_from(raw.contents))
        except Exception:  # a failing handler must not reach the library
            import traceback
            traceback.print_exc()

    def _deliver(self, _client: Optional[int], event: int, _user_data: Optional[int]) -> None:
        if not 0 <= event < len(_EVENTS):
            return
        name = _EVENTS[event]
        with self._lock:
            handlers = list(self._handlers.get(name, ()))
        for handler in handlers:
            try:
                handler(self, name)
            except Exception:  # a failing handler must not stop the others
                import traceback
                traceback.print_exc()
