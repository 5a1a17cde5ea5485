"""The cabin network's broadcast moving map, for Python.

A thin layer over libqelmaps' C API (ctypes, no build step). A ``Client``
runs the map service on the library's own thread; its callbacks are
delivered on one thread of this package, ``qelmaps-callbacks``, one at a
time and in order, never on the library's thread. A callback may call any
method of the client, including ``close()``.

    import qelmaps

    def on_image(client, event):
        picture = client.picture()
        if picture:
            print(picture.width, picture.height, len(picture.pixels))

    with qelmaps.Client(host="cabin.local", ca_file="cabin-ca.pem") as client:
        client.on(qelmaps.IMAGE_DID_CHANGE, on_image)
        client.choose_resolution(1024, 768)
        client.start()
        ...

For asyncio, ``AsyncClient`` delivers the same events on the running loop:

    async with qelmaps.AsyncClient(host="cabin.local", ca_file="cabin-ca.pem") as client:
        client.start()
        async for event in client.events():
            ...
"""

from ._asyncio import AsyncClient
from ._monitoring import Trace
from ._reconnect import Backoff
from ._status import ChannelFailure, Failure, Phase, Status
from ._client import (
    AVAILABLE_RESOLUTIONS_DID_CHANGE,
    ERROR,
    IMAGE_DID_CHANGE,
    IMAGE_DID_START_RECEIVING_IMAGE,
    IMAGE_DID_STOP_RECEIVING_IMAGE,
    STATE_DID_CHANGE,
    STATUS_DID_CHANGE,
    Client,
    ClosedError,
    Error,
    Event,
    Picture,
    service_version,
    version,
)

__all__ = [
    "AVAILABLE_RESOLUTIONS_DID_CHANGE",
    "AsyncClient",
    "Backoff",
    "ERROR",
    "IMAGE_DID_CHANGE",
    "IMAGE_DID_START_RECEIVING_IMAGE",
    "IMAGE_DID_STOP_RECEIVING_IMAGE",
    "STATE_DID_CHANGE",
    "STATUS_DID_CHANGE",
    "ChannelFailure",
    "Failure",
    "Phase",
    "Status",
    "Trace",
    "Client",
    "ClosedError",
    "Error",
    "Event",
    "Picture",
    "service_version",
    "version",
]
