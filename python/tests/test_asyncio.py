"""The asyncio client against the simulator, and where the package found
the library (the wheel's test run sets QELMAPS_EXPECT_BUNDLED)."""

import asyncio
import os
import threading

import pytest

import qelmaps
from conftest import TIMEOUT


def test_the_asyncio_client_delivers_every_event_on_the_running_loop(simulator):
    _, settings = simulator

    async def receive():
        loop_thread, threads = threading.get_ident(), set()
        async with qelmaps.AsyncClient(**settings) as client:
            client.on(qelmaps.Event.IMAGE_DID_CHANGE, lambda c, event: threads.add(threading.get_ident()))
            client.choose_resolution(800, 600)
            client.start()
            async for event in client.events():
                threads.add(threading.get_ident())
                assert isinstance(event, qelmaps.Event)
                if event is qelmaps.Event.IMAGE_DID_CHANGE:
                    break
            picture = client.picture()
        assert threads == {loop_thread}
        with pytest.raises(ValueError):
            client.start()
        return picture

    picture = asyncio.run(asyncio.wait_for(receive(), TIMEOUT))
    assert (picture.width, picture.height) == (800, 600)


@pytest.mark.skipif(not os.environ.get("QELMAPS_EXPECT_BUNDLED"), reason="not the wheel's run")
def test_an_installed_wheel_loads_the_library_it_bundles():
    from qelmaps import _library

    assert "QELMAPS_LIBRARY" not in os.environ and "LD_LIBRARY_PATH" not in os.environ
    assert _library.lib._name == os.path.join(os.path.dirname(_library.__file__), "_lib", "libqelmaps.so.1")
