"""The Python client against the cabin simulator (conftest.py): what it
receives, and closing it from any thread, callback or log line."""

import queue
import threading

import pytest

import qelmaps
from conftest import TIMEOUT


def events(client, *names):
    received = queue.Queue()
    for name in names:
        client.on(name, lambda c, event: received.put(event))
    return received


def wait_for(received, name):
    while True:
        if received.get(timeout=TIMEOUT) == name:
            return


def test_receives_the_chosen_picture_and_the_resolutions_until_the_server_stops(simulator):
    process, settings = simulator
    with qelmaps.Client(**settings) as client:
        # A handler taken off again hears nothing; handlers may be named by string.
        unheard = []

        def taken_off(c, event):
            unheard.append(event)

        client.on("BROADCAST_MAPS_IMAGE_DID_CHANGE", taken_off)
        client.off(qelmaps.Event.IMAGE_DID_CHANGE, taken_off)
        received = events(client, qelmaps.IMAGE_DID_CHANGE, qelmaps.ERROR)
        client.choose_resolution(800, 600)
        client.start()
        wait_for(received, qelmaps.IMAGE_DID_CHANGE)
        picture = client.picture()
        assert (picture.width, picture.height) == (800, 600)
        assert picture.pixels.readonly and picture.pixels.nbytes == 800 * 600 * 4
        assert picture.tobytes() == bytes(picture.pixels)
        assert client.resolutions() == [(1024, 768), (800, 600), (400, 300)]
        assert client.current_resolution() == (800, 600)
        assert client.receiving and client.has_map_data and client.map_data == "listed"
        assert qelmaps.service_version() == "03.19.02.00" and qelmaps.version().count(".") == 2
        with pytest.raises(qelmaps.Error, match="INVALID_ARGUMENT"):
            client.choose_resolution(0, 600)
        process.terminate()
        wait_for(received, qelmaps.ERROR)
        assert not client.has_map_data and client.map_data == "none"
        assert client.resolutions() == []
        # The map stays: the last picture, stale, received when it was.
        last = client.last_picture()
        assert client.picture() is None and last.stale and not picture.stale
        assert last.received_at == picture.received_at > 0 and last.pixels == picture.pixels
    with pytest.raises(qelmaps.ClosedError):
        client.start()
    assert unheard == []
    # The pixels are the library's own, kept by the view after the client went.
    assert picture.pixels[3] == 255 and picture.pixels[800 * 600 * 4 - 1] == 255


def test_closing_the_client_in_a_callback_stops_every_callback(simulator):
    _, settings = simulator
    closed, after = queue.Queue(), []

    def close_on_resolutions(c, event):
        c.close()
        closed.put(True)

    # The first resolutions come from the load that creating the client
    # starts: only a handler given to the constructor is sure to hear them.
    client = qelmaps.Client(**settings, handlers={qelmaps.AVAILABLE_RESOLUTIONS_DID_CHANGE: close_on_resolutions})
    client.on(qelmaps.IMAGE_DID_CHANGE, lambda c, event: after.append(event))
    client.start()
    assert closed.get(timeout=TIMEOUT)
    client.close()  # a second close is harmless
    assert after == []


class _Held:
    """The C library, with calls of one function held between reading the
    client's handle and calling C, as a thread switch can hold them."""

    def __init__(self, lib, name):
        self._lib, self._name = lib, name
        self.entered, self.release = threading.Event(), threading.Event()

    def __getattr__(self, attr):
        function = getattr(self._lib, attr)
        if attr != self._name:
            return function

        def held(*args):
            self.entered.set()
            self.release.wait(TIMEOUT)
            return function(*args)

        return held


def test_close_on_another_thread_waits_for_a_running_call_and_later_calls_raise(simulator, monkeypatch):
    _, settings = simulator
    client = qelmaps.Client(**settings)
    held = _Held(qelmaps._client._lib, "qelmaps_client_state")
    monkeypatch.setattr(qelmaps._client, "_lib", held)
    order = []
    reader = threading.Thread(target=lambda: order.append(("call", client.receiving)))
    reader.start()
    assert held.entered.wait(TIMEOUT)
    closer = threading.Thread(target=lambda: (client.close(), order.append("closed")))
    closer.start()
    closer.join(0.5)  # without the wait, close() is done by now and the call uses a freed handle
    held.release.set()
    reader.join()
    closer.join()
    assert [entry[0] if isinstance(entry, tuple) else entry for entry in order] == ["call", "closed"]

    # Many threads calling while one closes: each call either runs on a live
    # handle or raises the package's error (the ASan build shows the rest).
    monkeypatch.undo()
    for _ in range(10):
        client = qelmaps.Client(**settings)
        started, failures = threading.Barrier(5), []

        def call_until_closed():
            try:
                started.wait()
                while True:
                    client.resolutions(), client.receiving, client.current_resolution(), client.picture()
            except qelmaps.ClosedError:
                pass
            except Exception as error:  # noqa: BLE001 - any other outcome fails the test
                failures.append(error)

        callers = [threading.Thread(target=call_until_closed) for _ in range(4)]
        for caller in callers:
            caller.start()
        started.wait()
        client.close()
        for caller in callers:
            caller.join()
        assert failures == []


def test_closing_the_client_in_the_log_callback_closes_it_completely(simulator):
    _, settings = simulator
    clients, closed = [], threading.Event()

    def close_on_first_line(level, domain, message):
        if clients and not closed.is_set():
            clients[0].close()
            closed.set()

    clients.append(qelmaps.Client(**dict(settings, log_level=5), log=close_on_first_line))
    clients[0].start()  # its lines come from the library's own thread
    assert closed.wait(TIMEOUT)
    clients[0].close()  # returns once the close asked for in the callback is done
    with pytest.raises(qelmaps.ClosedError):
        clients[0].resolutions()
    # Only one client may live at a time: the first is gone.
    qelmaps.Client(**settings).close()


def test_a_client_with_a_cache_directory_shows_the_last_picture_of_an_earlier_run_at_once(simulator, tmp_path):
    _, settings = simulator
    with qelmaps.Client(**settings, cache_dir=tmp_path) as client:
        received = events(client, qelmaps.IMAGE_DID_CHANGE, qelmaps.STATUS_DID_CHANGE)
        client.start()
        # The picture may arrive before the event channel is up, and is
        # stale until it is: wait for both.
        shown = None
        while shown is None or shown.stale:
            received.get(timeout=TIMEOUT)
            shown = client.last_picture()
    # The server is out of reach now; the picture is there before any connection.
    with qelmaps.Client(**dict(settings, port=1), cache_dir=str(tmp_path)) as client:
        cached = client.last_picture()
    assert cached.stale and cached.pixels == shown.pixels
    assert abs(cached.received_at - shown.received_at) < 0.002
