"""Why there is no map, as a Python application reads it: a wrong authority
and a closed port, for real, each with its phase, kind and words."""

import socket
import threading

import pytest

import qelmaps
from conftest import TIMEOUT, start_simulator


def status_when(client, condition):
    """The first status, read on each STATUS_DID_CHANGE, that meets ``condition``."""
    met = threading.Event()
    seen = []

    def check(c, event):
        status = c.status()
        seen.append(status)
        if condition(status):
            met.set()

    client.on(qelmaps.STATUS_DID_CHANGE, check)
    client.start()
    assert met.wait(TIMEOUT), seen[-1:] or "no status change"
    return next(s for s in seen if condition(s))


def test_a_server_whose_authority_is_not_trusted_is_told_apart_from_one_that_is_not_there(simulator):
    _, settings = simulator
    with start_simulator() as (_, stranger):
        untrusted = dict(settings, ca_file=stranger["ca_file"])
        with qelmaps.Client(**untrusted) as client:
            assert client.status().phase is qelmaps.Phase.STOPPED
            status = status_when(client, lambda s: s.events is not None)
    assert status.phase is qelmaps.Phase.WAITING_TO_RETRY and status.next_attempt > status.events.at
    assert status.events.kind is qelmaps.Failure.CERTIFICATE and str(status.events.kind) == "certificate not trusted"
    assert status.events.message == "unable to get local issuer certificate"
    assert status.summary.startswith("Cannot verify the cabin server's certificate: unable to get local issuer")
    # The map data request at the start meets the same certificate; no picture was asked for.
    assert status.map_data is None or status.map_data.kind is qelmaps.Failure.CERTIFICATE
    assert status.picture is None

    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        closed = probe.getsockname()[1]
    with qelmaps.Client(**dict(settings, port=closed)) as client:
        status = status_when(client, lambda s: s.events is not None)
    assert status.events.kind is qelmaps.Failure.CONNECTION_REFUSED and status.events.consecutive == 1
    assert status.summary.startswith("Cabin server refused the connection, next try in")


def test_each_picture_is_traced_and_the_stats_count_it(simulator):
    _, settings = simulator
    traces = []
    traced = threading.Event()

    def on_trace(trace):
        traces.append(trace)
        traced.set()

    with qelmaps.Client(**settings, on_trace=on_trace) as client:
        client.start()
        assert traced.wait(TIMEOUT)
        stats = client.stats()
    trace = traces[0]
    assert trace.result == "shown" and trace.source.endswith("/1.png") and trace.failure is None
    phases = [trace.queued, trace.connected, trace.first_byte, trace.body_done, trace.decoded, trace.shown]
    assert all(phases) and phases == sorted(phases)
    assert stats["qelmaps.picture.shown"] == 1 and stats["http.client.response.body.size"] == trace.bytes_received


def test_a_backoff_set_by_the_application_paces_the_event_channel(simulator):
    _, settings = simulator
    assert qelmaps.Backoff.events() == qelmaps.Backoff(3.0, 2.0, 8.0, 1.0)
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        closed = probe.getsockname()[1]
    # Twenty refusals in a row: with the default that would take more than a minute.
    fixed = qelmaps.Backoff(0.04, 1.0, 0.04, 0.0)
    with qelmaps.Client(**dict(settings, port=closed), event_backoff=fixed, watch_network=True) as client:
        status = status_when(client, lambda s: s.events is not None and s.events.consecutive >= 20)
    assert 0.03 <= status.next_attempt - status.events.at <= 0.045
    for wrong in (qelmaps.Backoff(0.04, 0.5, 1.0, 0.0), qelmaps.Backoff(2.0, 2.0, 1.0, 0.0),
                  qelmaps.Backoff(1.0, 2.0, 30.0, 2.0)):
        with pytest.raises(ValueError):
            qelmaps.Client(**settings, retry_backoff=wrong)
