"""The Python package against the cabin simulator (tools/cabin-sim) over
real TLS on a free loopback port. QELMAPS_CABIN_SIM names the simulator's
binary; QELMAPS_LIBRARY the shared library, when not installed."""

import os
import queue
import subprocess
import tempfile

import pytest

import qelmaps

TIMEOUT = 20


@pytest.fixture
def simulator():
    binary = os.environ.get("QELMAPS_CABIN_SIM")
    if not binary:
        pytest.skip("QELMAPS_CABIN_SIM is not set")
    with tempfile.TemporaryDirectory() as directory:
        ca = os.path.join(directory, "ca.pem")
        process = subprocess.Popen([binary, "--port", "0", "--ca-out", ca, "--interval", "3600"],
                                   stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        try:
            line = process.stdout.readline()
            assert line.startswith("listening https://"), line
            host, port = line.strip()[len("listening https://"):].rsplit(":", 1)
            yield process, dict(host=host, port=int(port), ca_file=ca, log_level=1)
        finally:
            process.terminate()
            process.wait()


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
        received = events(client, qelmaps.IMAGE_DID_CHANGE, qelmaps.ERROR)
        client.choose_resolution(800, 600)
        client.start()
        wait_for(received, qelmaps.IMAGE_DID_CHANGE)
        picture = client.picture()
        assert (picture.width, picture.height) == (800, 600)
        assert len(picture.pixels) == 800 * 600 * 4
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
    with pytest.raises(ValueError):
        client.start()


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
