"""The client for asyncio applications: events arrive on the running loop.

    async with qelmaps.AsyncClient(host="cabin.local", ca_file="ca.pem") as client:
        client.choose_resolution(1024, 768)
        client.start()
        async for event in client.events():
            if event is qelmaps.Event.IMAGE_DID_CHANGE:
                show(client.picture())
"""

import asyncio
from typing import Any, AsyncIterator, Callable, List, Optional, Tuple

from ._client import Client, ClosedError, Event, Picture


class AsyncClient:
    """A ``Client`` whose events are delivered on the asyncio loop that
    entered it (``async with``), through ``call_soon_threadsafe``: handlers
    and ``events()`` run on that loop, never on another thread. The methods
    that read or change the map return at once and may be called from the
    loop. Leaving the ``async with`` closes the client; no event is
    delivered after that.
    """

    def __init__(self, **settings: Any):
        if "handlers" in settings:
            raise TypeError("AsyncClient takes handlers through on() or events()")
        self._settings = settings
        self._client: Optional[Client] = None
        self._loop: Optional[asyncio.AbstractEventLoop] = None
        self._queues: List["asyncio.Queue[Optional[Event]]"] = []
        self._handlers: List[Tuple[Event, Callable[["AsyncClient", Event], Any]]] = []

    async def __aenter__(self) -> "AsyncClient":
        self._loop = asyncio.get_running_loop()
        # Every event is forwarded from the start: the first resolutions may
        # arrive before the caller's first line inside the block.
        self._client = Client(**self._settings, handlers={event: self._forward for event in Event})
        return self

    async def __aexit__(self, *exc: Any) -> None:
        client, self._client = self._client, None
        if client is not None:
            # close() waits for a callback in flight; not on the loop.
            await asyncio.get_running_loop().run_in_executor(None, client.close)
        for queue in self._queues:
            queue.put_nowait(None)  # ends every events() iteration

    def on(self, event: Event, handler: Callable[["AsyncClient", Event], Any]) -> None:
        """Calls ``handler(client, event)`` on the loop for each ``event``;
        a coroutine function's coroutine is scheduled as a task."""
        self._handlers.append((Event(event), handler))

    async def events(self) -> AsyncIterator[Event]:
        """Every event from now on, in order, until the client is closed."""
        queue: "asyncio.Queue[Optional[Event]]" = asyncio.Queue()
        self._queues.append(queue)
        try:
            while self._client is not None:
                event = await queue.get()
                if event is None:
                    return
                yield event
        finally:
            self._queues.remove(queue)

    # On the callbacks thread: hand over to the loop, which may be gone.
    def _forward(self, _client: Client, event: Event) -> None:
        loop = self._loop
        if loop is None or loop.is_closed():
            return
        try:
            loop.call_soon_threadsafe(self._dispatch, event)
        except RuntimeError:  # the loop closed in between
            pass

    def _dispatch(self, event: Event) -> None:
        if self._client is None:
            return
        for queue in list(self._queues):
            queue.put_nowait(event)
        for wanted, handler in list(self._handlers):
            if wanted is event:
                result = handler(self, event)
                if asyncio.iscoroutine(result):
                    asyncio.ensure_future(result)

    def _live(self) -> Client:
        if self._client is None:
            raise ClosedError()  # closed, or not entered with async with
        return self._client

    def start(self) -> None:
        self._live().start()

    def stop(self) -> None:
        self._live().stop()

    def choose_resolution(self, width: float, height: float) -> None:
        self._live().choose_resolution(width, height)

    def clear_resolution(self) -> None:
        self._live().clear_resolution()

    def resolutions(self) -> List[Tuple[float, float]]:
        return self._live().resolutions()

    def current_resolution(self) -> Optional[Tuple[float, float]]:
        return self._live().current_resolution()

    def picture(self) -> Optional[Picture]:
        return self._live().picture()

    @property
    def receiving(self) -> bool:
        return self._live().receiving

    @property
    def has_map_data(self) -> bool:
        return self._live().has_map_data
