#!/usr/bin/env bash
# Builds the Python package as a wheel that carries libqelmaps.so.1 inside
# it (qelmaps/_lib/), so that `pip install` of the wheel is all a Python
# application needs besides the system libraries libqelmaps links (curl,
# OpenSSL, c-ares, libspng, TurboJPEG, Boost.JSON's runtime). Offline, with
# Debian's python3-build.
#   scripts/build-wheel.sh LIBRARY OUT_DIR
# LIBRARY is an installed or built libqelmaps.so.1; the wheel lands in OUT_DIR.
set -euo pipefail
cd "$(dirname "$0")/.."
library=$(realpath "$1")
out=$(mkdir -p "$2" && realpath "$2")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cp -r python "$work/python"
rm -rf "$work/python/build" "$work/python/"*.egg-info
mkdir -p "$work/python/qelmaps/_lib"
cp -L "$library" "$work/python/qelmaps/_lib/libqelmaps.so.1"
/usr/bin/python3 -m build --wheel --no-isolation --outdir "$out" "$work/python" >"$work/build.log" 2>&1 ||
  { cat "$work/build.log" >&2; exit 1; }
ls "$out"/qelmaps-*.whl
