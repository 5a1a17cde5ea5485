#!/usr/bin/env bash
# The library as an application developer gets it. Builds the shared release
# configuration (libraries and tools only), installs it into a temporary
# prefix, checks the exported symbols, and builds the consumer application in
# tests/consumer four ways: find_package against the prefix, pkg-config
# against the prefix, add_subdirectory of this source tree, and find_package
# against the Debian packages unpacked into a scratch root; the C demo is
# built from the prefix and from the C packages alone, the QML sample with
# find_package(QELMaps COMPONENTS Qt). Each consumer runs
# against the simulator and must receive a map picture.
set -euo pipefail
cd "$(dirname "$0")/.."

jobs=${QEL_JOBS:-$(nproc)}
build=build/package
cmake --preset package >/dev/null
cmake --build --preset package -j "$jobs"

# Under build/ so that ccache sees the same relative paths as the presets.
work=build/install-test
rm -rf "$work"
mkdir -p "$work"
work=$(cd "$work" && pwd)
sim=$build/tools/cabin-sim/cabin-sim
run() {
  echo "-- $1"
  scripts/run-against-sim.sh "$sim" "$2" --seconds 30
}

prefix=$work/prefix
cmake --install "$build" --prefix "$prefix" >/dev/null
scripts/check-exports.sh "$(find "$prefix" -name 'libqelmaps.so.1')"

cmake -S tests/consumer -B "$work/package" -G Ninja -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/package" >/dev/null
run "find_package(QELMaps CONFIG)" "$work/package/qelmaps-consumer"

# Other languages through the C API of the same installed library.
echo "-- the C demo through pkg-config, and the Python package"
scripts/test-bindings.sh "$prefix" "$build"

pcdir=$(dirname "$(find "$prefix" -name qelmaps.pc)")
libdir=$(PKG_CONFIG_PATH=$pcdir pkg-config --variable=libdir qelmaps)
# shellcheck disable=SC2046
g++ -std=c++20 -O2 -Wall -Wextra -Werror tests/consumer/main.cpp -o "$work/pkg-config-consumer" \
  $(PKG_CONFIG_PATH=$pcdir pkg-config --cflags --libs qelmaps-cxx) -Wl,-rpath,"$libdir"
run "pkg-config --cflags --libs qelmaps-cxx" "$work/pkg-config-consumer"

# The Qt component, as a Qt Quick application finds it: the QML sample built
# on its own against the prefix, on the offscreen platform; it fails when no
# map picture was on screen.
if [ -n "$(find "$prefix" -name QELMapsQtTargets.cmake)" ]; then
  cmake -S tools/qelmaps-quick -B "$work/quick" -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
  cmake --build "$work/quick" >/dev/null
  echo "-- find_package(QELMaps COMPONENTS Qt): the QML sample"
  QT_QPA_PLATFORM=offscreen scripts/run-against-sim.sh "$sim" "$work/quick/qelmaps-quick" \
    --screenshot "$work/quick.png" --after 3
fi

# From source, in the debug configuration (its objects are the debug preset's).
cmake -S tests/consumer -B "$work/subdirectory" -G Ninja -DCMAKE_BUILD_TYPE=Debug \
  -DQEL_CONSUMER_WAY=subdirectory -DQEL_SOURCE_DIR="$PWD" >/dev/null
cmake --build "$work/subdirectory" -j "$jobs" >/dev/null
run "add_subdirectory" "$work/subdirectory/qelmaps-consumer"

(cd "$build" && cpack -G DEB -B "$work/debs" >/dev/null)
root=$work/root
for deb in "$work"/debs/*.deb; do
  dpkg-deb -f "$deb" Package Depends | paste -sd' '
  dpkg -x "$deb" "$root"
done

# A C application needs the library and libqelmaps-dev only, and nothing of
# Boost: built from those two packages alone, with Boost's headers hidden.
if dpkg-deb -f "$work"/debs/libqelmaps-dev_*.deb Depends | grep -qi boost; then
  echo "libqelmaps-dev depends on Boost" >&2
  exit 1
fi
for deb in "$work"/debs/libqelmaps1_*.deb "$work"/debs/libqelmaps-dev_*.deb; do dpkg -x "$deb" "$work/croot"; done
scripts/test-bindings.sh --c-only "$work/croot/usr" "$build"
cmake -S tests/consumer -B "$work/deb" -G Ninja -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_PREFIX_PATH="$root/usr" >/dev/null
cmake --build "$work/deb" >/dev/null
run "find_package from the Debian packages" "$work/deb/qelmaps-consumer"
rm -rf "$work"
