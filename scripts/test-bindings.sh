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
trap 'kill "${sim:-}" 2>/dev/null || true; rm -rf "$work"' EXIT

export PKG_CONFIG_PATH="$prefix/lib/pkgconfig:$prefix/lib/$(dpkg-architecture -qDEB_HOST_MULTIARCH 2>/dev/null || echo x)/pkgconfig:${PKG_CONFIG_PATH:-}"
libdir=$(pkg-config --variable=libdir qelmaps)
cc -std=c11 -Wall -Wextra -Werror -pedantic tools/qelmaps-c-demo/main.c -o "$work/qelmaps-c-demo" \
  $(pkg-config --cflags --libs qelmaps) -lpthread -Wl,-rpath,"$libdir"

"$build/tools/cabin-sim/cabin-sim" --port 0 --ca-out "$work/ca.pem" --interval 1 >"$work/sim.out" 2>/dev/null &
sim=$!
for _ in $(seq 1 100); do grep -q listening "$work/sim.out" 2>/dev/null && break; sleep 0.1; done
address=$(head -n 1 "$work/sim.out")
address=${address#listening https://}
"$work/qelmaps-c-demo" --host "${address%:*}" --port "${address##*:}" --ca-file "$work/ca.pem" \
  --resolution 800x600 --duration 3 --log-level 1
kill "$sim"

QELMAPS_LIBRARY="$libdir/libqelmaps.so.1" QELMAPS_CABIN_SIM="$build/tools/cabin-sim/cabin-sim" \
  PYTHONPATH=python /usr/bin/python3 -m pytest -q -p no:cacheprovider python/tests
