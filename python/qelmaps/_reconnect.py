"""How long the client waits before trying again, as the application sets it."""

import ctypes
import dataclasses
from typing import Callable, Optional

from ._library import Backoff as _Backoff, lib as _lib

_EVENTS, _REQUESTS = 0, 1
_INVALID_ARGUMENT = 2


@dataclasses.dataclass(frozen=True)
class Backoff:
    """Wait number n (from 0) has the bound ``initial * multiplier**n``
    seconds, capped at ``maximum``, and is drawn uniformly between ``1 -
    jitter`` of the bound and the bound. Jitter 1 draws from zero up, which
    keeps a cabin's devices that lost the server together from coming back
    as one wave; jitter 0 waits the bound exactly.

    ``Backoff.events()`` and ``Backoff.requests()`` are the library's
    defaults, for changing one field with ``dataclasses.replace``."""

    initial: float
    multiplier: float
    maximum: float
    jitter: float

    @staticmethod
    def events() -> "Backoff":
        """The event channel's default: 3 s doubling to 8 s, full jitter."""
        return _default(_EVENTS)

    @staticmethod
    def requests() -> "Backoff":
        """A failed map data request's default: 2 s, 10 s, then 30 s, each
        within its last quarter. (A picture is retried every 5 s regardless.)"""
        return _default(_REQUESTS)


def _default(kind: int) -> Backoff:
    raw = _Backoff()
    _lib.qelmaps_backoff_default(kind, ctypes.byref(raw))
    return Backoff(raw.initial_ms / 1000, raw.multiplier, raw.maximum_ms / 1000, raw.jitter)


def apply(config: ctypes.c_void_p, check: Callable[[int, str], None], events: Optional[Backoff],
          requests: Optional[Backoff]) -> None:
    """Sets the backoffs given on a C configuration; ValueError for a value
    outside its range (the C API's INVALID_ARGUMENT, said in Python's terms)."""
    for kind, backoff, name in ((_EVENTS, events, "event_backoff"), (_REQUESTS, requests, "retry_backoff")):
        if backoff is None:
            continue
        if not (0 < backoff.initial <= backoff.maximum <= 4294967.295):
            raise ValueError(f"{name}: initial must be positive and not above maximum (seconds)")
        raw = _Backoff(round(backoff.initial * 1000), backoff.multiplier, round(backoff.maximum * 1000), backoff.jitter)
        code = _lib.qelmaps_config_set_backoff(config, kind, ctypes.byref(raw))
        if code == _INVALID_ARGUMENT:
            raise ValueError(f"{name}: {backoff} (multiplier at least 1, jitter within [0, 1])")
        check(code, name)

