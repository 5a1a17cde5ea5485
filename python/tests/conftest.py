"""The cabin simulator (tools/cabin-sim) for the package's tests, over real
TLS on a free loopback port. QELMAPS_CABIN_SIM names the simulator's binary;
QELMAPS_LIBRARY the shared library, when neither installed nor bundled."""

import contextlib
import os
import subprocess
import tempfile

import pytest

TIMEOUT = 20


@pytest.fixture
def simulator():
    with start_simulator() as running:
        yield running


@contextlib.contextmanager
def start_simulator():
    """A simulator process and the Client settings that reach it."""
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
