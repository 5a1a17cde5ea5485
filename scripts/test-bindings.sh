#!/usr/bin/env bash
# The C demo and the Python package against the simulator, using an
# installed libqelmaps: builds tools/qelmaps-c-demo/main.c with the C
# compiler through pkg-config, runs it for a few seconds, then pytest.
#   scripts/test-bindings.sh PREFIX [BUILD_DIR]
# PREFIX holds the installed package; BUILD_DIR (default build/debug) the
# simulator. pytest is Debian's (python3-pytest), hence its python3.
set -euo pipefail
cd "$(dirname "$0")/.."
prefix=$(realpath "$1")
build=${2:-build/debug}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

export PKG_CONFIG_PATH="$prefix/lib/pkgconfig:$prefix/lib/$(dpkg-architecture -qDEB_HOST_MULTIARCH 2>/dev/null || echo x)/pkgconfig:${PKG_CONFIG_PATH:-}"
libdir=$(pkg-config --variable=libdir qelmaps)
cc -std=c11 -Wall -Wextra -Werror -pedantic tools/qelmaps-c-demo/main.c -o "$work/qelmaps-c-demo" \
  $(pkg-config --cflags --libs qelmaps) -lpthread -Wl,-rpath,"$libdir"

scripts/run-against-sim.sh "$build/tools/cabin-sim/cabin-sim" \
  "$work/qelmaps-c-demo" --resolution 800x600 --duration 3 --log-level 1

QELMAPS_LIBRARY="$libdir/libqelmaps.so.1" QELMAPS_CABIN_SIM="$build/tools/cabin-sim/cabin-sim" \
  PYTHONPATH=python /usr/bin/python3 -m pytest -q -p no:cacheprovider python/tests
