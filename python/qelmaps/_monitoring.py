"""Numbers for the people who run the cabin: each picture's trace, and the
stats document."""

import ctypes
import dataclasses
import json
from typing import Any, Callable, Dict, Optional

from ._library import Trace as _Trace, copy_text, lib as _lib
from ._status import Failure


@dataclasses.dataclass(frozen=True)
class Trace:
    """Where one picture download's time went. Times are seconds on
    ``time.monotonic()``'s clock, None for a phase not reached."""

    source: str
    update_received: Optional[float]
    queued: Optional[float]
    name_lookup_done: Optional[float]
    connected: Optional[float]
    tls_done: Optional[float]
    first_byte: Optional[float]
    body_done: Optional[float]
    decoded: Optional[float]
    shown: Optional[float]
    bytes_received: int
    http_version: str
    connection_reused: bool
    revalidated: bool
    result: str  # "shown", "same picture" or "failed"
    failure: Optional[Failure]
    failure_message: str


_RESULTS = ("shown", "same picture", "failed")


def trace_from(raw: _Trace) -> Trace:
    def at(microseconds: int) -> Optional[float]:
        return microseconds / 1e6 if microseconds else None

    return Trace(
        source=raw.source.decode("utf-8", "replace"),
        update_received=at(raw.update_received_us), queued=at(raw.queued_us),
        name_lookup_done=at(raw.name_lookup_done_us), connected=at(raw.connected_us), tls_done=at(raw.tls_done_us),
        first_byte=at(raw.first_byte_us), body_done=at(raw.body_done_us), decoded=at(raw.decoded_us),
        shown=at(raw.shown_us), bytes_received=int(raw.bytes_received),
        http_version=raw.http_version.decode(), connection_reused=bool(raw.connection_reused),
        revalidated=bool(raw.revalidated), result=_RESULTS[raw.result] if 0 <= raw.result < 3 else "failed",
        failure=Failure(raw.failure) if raw.failure else None,
        failure_message=raw.failure_message.decode("utf-8", "replace"))


def read_stats(handle: ctypes.c_void_p, check: Callable[[int, str], None]) -> Dict[str, Any]:
    code, text = copy_text(lambda b, c, n: _lib.qelmaps_client_stats(handle, b, c, n))
    check(code, "stats")
    document: Dict[str, Any] = json.loads(text)
    return document
