"""Why the map is or is not live: the client's connection status.

The phase, when it began, when the next attempt starts, and the last failure
of each of the three ways to the cabin server (the event channel, the map
data request, the picture download), read from the C API in one call.
"""

import ctypes
import dataclasses
import enum
from typing import Any, Callable, Optional

from ._library import ChannelStatus as _ChannelStatus, Status as _Status, copy_text, lib as _lib


class Phase(enum.Enum):
    STOPPED = 0
    CONNECTING = 1
    LIVE = 2
    WAITING_TO_RETRY = 3  # the event channel failed; ``next_attempt`` says when it tries again
    NO_MAP_DATA = 4  # connected, but the server has no map (or its map data failed)

    def __str__(self) -> str:
        return str(_lib.qelmaps_phase_string(self.value).decode())


class Failure(enum.Enum):
    """Why a channel failed. NAME_LOOKUP and UNREACHABLE are the network's
    fault; CONNECTION_REFUSED, HTTP_STATUS and CLOSED_BY_SERVER the server's;
    CERTIFICATE the configuration's."""

    NAME_LOOKUP = 1
    CONNECTION_REFUSED = 2
    UNREACHABLE = 3
    TLS_HANDSHAKE = 4
    CERTIFICATE = 5
    HTTP_STATUS = 6
    MAP_DATA_REFUSED = 7
    PICTURE_REFUSED = 8
    CLOSED_BY_SERVER = 9
    TIMEOUT = 10
    CONNECTION_LOST = 11

    def __str__(self) -> str:
        return str(_lib.qelmaps_failure_string(self.value).decode())


@dataclasses.dataclass(frozen=True)
class ChannelFailure:
    """The last failure of one channel. ``at`` is a Unix time in seconds;
    ``consecutive`` is 0 once the channel worked again."""

    kind: Failure
    code: int  # the HTTP status or the close code, else 0
    message: str
    at: float
    consecutive: int


@dataclasses.dataclass(frozen=True)
class Status:
    """The client's status at one moment. ``summary`` is one line for people
    ("Cabin server unreachable, next try in 4 s")."""

    phase: Phase
    since: float
    next_attempt: Optional[float]
    events: Optional[ChannelFailure]
    map_data: Optional[ChannelFailure]
    picture: Optional[ChannelFailure]
    summary: str


def _text(read: Callable[..., Any]) -> str:
    return copy_text(read)[1]


def read(handle: ctypes.c_void_p, check: Callable[[int, str], None]) -> Status:
    """The status of the client behind ``handle``, and its texts. The texts
    are read separately and may be one change newer than the numbers."""
    status = _Status()
    check(_lib.qelmaps_client_status(handle, ctypes.byref(status)), "status")

    def channel(index: int) -> Optional[ChannelFailure]:
        raw: _ChannelStatus = status.channels[index]
        if raw.failure == 0:
            return None
        message = _text(lambda b, c, n: _lib.qelmaps_client_failure_message(handle, index, b, c, n))
        return ChannelFailure(Failure(raw.failure), raw.code, message, raw.failed_at_ms / 1000.0,
                              raw.consecutive_failures)

    return Status(
        phase=Phase(status.phase),
        since=status.since_ms / 1000.0,
        next_attempt=status.next_attempt_ms / 1000.0 if status.next_attempt_ms else None,
        events=channel(0),
        map_data=channel(1),
        picture=channel(2),
        summary=_text(lambda b, c, n: _lib.qelmaps_client_status_text(handle, b, c, n)),
    )
