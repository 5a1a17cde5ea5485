#!/usr/bin/env bash
# The C demo and the Python package against the simulator, using an
# installed libqelmaps: builds tools/qelmaps-c-demo/main.c with the C
# compiler through pkg-config, as on a machine without Boost's development
# files (its headers hidden where a mount namespace can be made), runs it for
# a few seconds, then pytest, mypy, and pytest again with the wheel installed
# into a fresh virtual environment.
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

sim=$(realpath "$build/tools/cabin-sim/cabin-sim")
QELMAPS_LIBRARY="$libdir/libqelmaps.so.1" QELMAPS_CABIN_SIM="$sim" \
  PYTHONPATH=python /usr/bin/python3 -m pytest -q -p no:cacheprovider python/tests

# The package's type hints hold (Debian's mypy, strict).
(cd python && mypy --cache-dir "$work/mypy" >/dev/null) || (cd python && mypy --cache-dir "$work/mypy"; exit 1)

# The wheel, as a Python developer gets it: installed into a fresh virtual
# environment, it finds the library it carries, with neither the library
# installed nor QELMAPS_LIBRARY or LD_LIBRARY_PATH set. (The environment sees
# the system's site-packages only for Debian's pytest.)
scripts/build-wheel.sh "$libdir/libqelmaps.so.1" "$work/wheel" >/dev/null
/usr/bin/python3 -m venv --system-site-packages "$work/venv"
"$work/venv/bin/python" -m pip install -q --no-index --no-deps "$work"/wheel/qelmaps-*.whl
(cd "$work" && env -u QELMAPS_LIBRARY -u LD_LIBRARY_PATH QELMAPS_EXPECT_BUNDLED=1 QELMAPS_CABIN_SIM="$sim" \
  "$work/venv/bin/python" -m pytest -q -p no:cacheprovider "$OLDPWD/python/tests/test_asyncio.py")
