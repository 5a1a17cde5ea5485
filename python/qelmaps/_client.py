"""ctypes bindings of <QELMaps/qelmaps.h> and the Client built on them."""

import ctypes
import enum
import os
import queue
import threading
from typing import Callable, Dict, List, NamedTuple, Optional, Tuple

# The library and the C API's types, loaded once per process.
from ._library import CALLBACK as _CALLBACK, DISPATCH as _DISPATCH, LOG as _LOG, Size as _Size, lib as _lib


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

    def __str__(self) -> str:
        return self.value


AVAILABLE_RESOLUTIONS_DID_CHANGE = Event.AVAILABLE_RESOLUTIONS_DID_CHANGE
IMAGE_DID_CHANGE = Event.IMAGE_DID_CHANGE
IMAGE_DID_STOP_RECEIVING_IMAGE = Event.IMAGE_DID_STOP_RECEIVING_IMAGE
ERROR = Event.ERROR
IMAGE_DID_START_RECEIVING_IMAGE = Event.IMAGE_DID_START_RECEIVING_IMAGE
STATE_DID_CHANGE = Event.STATE_DID_CHANGE
_EVENTS = list(Event)

_OK, _NO_PICTURE, _NO_RESOLUTION, _BUFFER_TOO_SMALL = 0, 3, 4, 5


class Error(Exception):
    """A call of the C API failed; ``code`` is its error name."""

    def __init__(self, code: int, what: str):
        self.code = _lib.qelmaps_error_string(code).decode()
        super().__init__(f"{what}: {self.code}")


def _check(code: int, what: str) -> None:
    if code != _OK:
        raise Error(code, what)


def version() -> str:
    return str(_lib.qelmaps_version().decode())


def service_version() -> str:
    return str(_lib.qelmaps_service_version().decode())


class Picture(NamedTuple):
    """A map picture: ``height`` rows of ``width`` RGBA pixels, packed."""

    width: int
    height: int
    pixels: bytes


def _size(size: _Size) -> Tuple[float, float]:
    # Whole pixel counts come back as ints, as they were sent.
    width, height = (int(v) if float(v).is_integer() else float(v) for v in (size.width, size.height))
    return width, height


Handler = Callable[["Client", Event], None]


class Client:
    """The broadcast map. Methods may be called from any thread.

    Callbacks run on the thread ``qelmaps-callbacks`` with ``(client,
    event)``; read the client there (``resolutions()``, ``picture()``). The
    map data is loaded as soon as the client exists, so its first events may
    come before an ``on()`` call that follows the constructor: pass
    ``handlers`` ({event: callback}) to hear them.
    After ``close()`` returns no callback runs any more. Settings left out
    fall back to the QEL_* environment variables.
    """

    def __init__(self, host: Optional[str] = None, port: Optional[int] = None, ca_file: Optional[str] = None,
                 event_path: Optional[str] = None, log_level: Optional[int] = None,
                 log: Optional[Callable[[int, str, str], None]] = None,
                 handlers: "Optional[Dict[Event | str, Handler]]" = None):
        self._handlers: Dict[Event, List[Handler]] = {}
        self._tasks: "queue.SimpleQueue[Optional[int]]" = queue.SimpleQueue()
        self._lock = threading.Lock()
        for event, handler in (handlers or {}).items():
            self.on(event, handler)
        self._handle = ctypes.c_void_p()
        # ctypes trampolines must outlive every call the library may make.
        self._on_event = _CALLBACK(self._deliver)
        self._on_dispatch = _DISPATCH(lambda task, _: self._tasks.put(task))
        self._on_log = None
        if log is not None:
            sink = log
            self._on_log = _LOG(lambda level, domain, message, _: sink(level, domain.decode(errors="replace"),
                                                                       message.decode(errors="replace")))
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
            if self._on_log:
                _check(_lib.qelmaps_config_set_log_callback(config, self._on_log, None), "log")
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

    def start(self) -> None:
        _check(_lib.qelmaps_client_start(self._live()), "start")

    def stop(self) -> None:
        _check(_lib.qelmaps_client_stop(self._live()), "stop")

    def choose_resolution(self, width: float, height: float) -> None:
        _check(_lib.qelmaps_client_choose_resolution(self._live(), width, height), "choose_resolution")

    def clear_resolution(self) -> None:
        _check(_lib.qelmaps_client_clear_resolution(self._live()), "clear_resolution")

    def resolutions(self) -> List[Tuple[float, float]]:
        """The sizes the server offers as (width, height), in its order; [] without map data."""
        handle, count = self._live(), ctypes.c_size_t()
        while True:
            sizes = (_Size * max(count.value, 1))()
            code = _lib.qelmaps_client_resolutions(handle, sizes, len(sizes), ctypes.byref(count))
            if code != _BUFFER_TOO_SMALL:
                _check(code, "resolutions")
                return [_size(sizes[i]) for i in range(count.value)]

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
        state = ctypes.c_int()
        _check(_lib.qelmaps_client_map_data(self._live(), ctypes.byref(state)), "map_data")
        return ("none", "empty", "listed")[state.value]

    def picture(self) -> Optional[Picture]:
        """The latest map picture (pixels copied into bytes), or None."""
        handle = ctypes.c_void_p()
        code = _lib.qelmaps_client_picture(self._live(), ctypes.byref(handle))
        if code == _NO_PICTURE:
            return None
        _check(code, "picture")
        try:
            width, height = _lib.qelmaps_picture_width(handle), _lib.qelmaps_picture_height(handle)
            stride = _lib.qelmaps_picture_stride(handle)
            data = ctypes.string_at(_lib.qelmaps_picture_pixels(handle), stride * height)
            if stride != width * 4:
                data = b"".join(data[row * stride:row * stride + width * 4] for row in range(height))
            return Picture(width, height, data)
        finally:
            _lib.qelmaps_picture_release(handle)

    def close(self) -> None:
        """Stops the map; no callback runs once this returns. Safe to call twice, and from a callback."""
        with self._lock:
            handle, self._handle = self._handle, ctypes.c_void_p()
        if handle:
            _check(_lib.qelmaps_client_destroy(handle), "close")
            self._tasks.put(None)
            if threading.current_thread() is not self._thread:
                self._thread.join()

    def _live(self) -> ctypes.c_void_p:
        handle = self._handle
        if not handle:
            raise ValueError("the client is closed")
        return handle

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
            _lib.qelmaps_task_run(task)
        while True:
            try:
                task = self._tasks.get_nowait()
            except queue.Empty:
                return
            if task is not None:
                _lib.qelmaps_task_discard(task)

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
