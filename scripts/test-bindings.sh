#!/usr/bin/env bash
# The C demo and the Python package against the simulator, using an
# installed libqelmaps: builds tools/qelmaps-c-demo/main.c with the C
# compiler through pkg-config, as on a machine without Boost's development
# files (its headers hidden where a mount namespace can be made), runs it for
# a few seconds, then pytest.
#   scripts/test-bindings.sh [--c-only] PREFIX [BUILD_DIR]
# PREFIX holds the installed package; BUILD_DIR (default build/debug) the
# simulator. pytest is Debian's (python3-pytest), hence its python3.
set -euo pipefail
cd "$(dirname "$0")/.."
c_only=0
if [ "${1:-}" = --c-only ]; then c_only=1; shift; fi
prefix=$(realpath "$1")
build=${2:-build/debug}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

export PKG_CONFIG_PATH="$prefix/lib/pkgconfig:$prefix/lib/$(dpkg-architecture -qDEB_HOST_MULTIARCH 2>/dev/null || echo x)/pkgconfig:${PKG_CONFIG_PATH:-}"
libdir=$(pkg-config --variable=libdir qelmaps)
flags=$(pkg-config --cflags --libs qelmaps)
if grep -qi boost <<<"$flags"; then
  echo "test-bindings: the C API's pkg-config flags name Boost: $flags" >&2
  exit 1
fi
# shellcheck disable=SC2206
compile=(cc -std=c11 -Wall -Wextra -Werror -pedantic tools/qelmaps-c-demo/main.c -o "$work/qelmaps-c-demo"
         $flags -lpthread -Wl,-rpath,"$libdir")
if [ -d /usr/include/boost ] && unshare --mount true 2>/dev/null; then
  echo "test-bindings: the C demo built with Boost's headers hidden"
  unshare --mount sh -c 'mount -t tmpfs none /usr/include/boost && exec "$@"' sh "${compile[@]}"
else
  "${compile[@]}"
fi

scripts/run-against-sim.sh "$build/tools/cabin-sim/cabin-sim" \
  "$work/qelmaps-c-demo" --resolution 800x600 --duration 3 --log-level 1
if [ "$c_only" = 1 ]; then exit 0; fi

QELMAPS_LIBRARY="$libdir/libqelmaps.so.1" QELMAPS_CABIN_SIM="$build/tools/cabin-sim/cabin-sim" \
  PYTHONPATH=python /usr/bin/python3 -m pytest -q -p no:cacheprovider python/tests
