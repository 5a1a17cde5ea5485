#!/usr/bin/env bash
# The moving map in a window: a cabin server simulator on a free loopback
# port and qelmaps-viewer showing its map until the window is closed. Extra
# arguments go to the viewer, e.g. `--resolution 800x600` or
# `--screenshot out/viewer.png --after 6` (saves the window and exits; works
# without a display on Qt's offscreen platform).
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/bootstrap.sh
cmake --preset release >/dev/null
cmake --build --preset release --target cabin-sim qelmaps-viewer

screenshot=0
for arg in "$@"; do [[ $arg == --screenshot ]] && screenshot=1; done
if [ -z "${DISPLAY:-}" ] && [ -z "${WAYLAND_DISPLAY:-}" ]; then
  if [ "$screenshot" = 0 ]; then
    echo "viewer: no display; run it in a desktop session, or pass --screenshot FILE" >&2
    exit 2
  fi
  export QT_QPA_PLATFORM=offscreen
fi

out=${QEL_VIEWER_OUT:-out/viewer}
mkdir -p "$out"
build/release/tools/cabin-sim/cabin-sim --ca-out "$out/cabin-ca.pem" --interval "${QEL_VIEWER_INTERVAL:-2}" \
  >"$out/cabin-sim.out" 2>"$out/cabin-sim.log" &
sim=$!
trap 'kill "$sim" 2>/dev/null || true; wait "$sim" 2>/dev/null || true' EXIT

line=""
for _ in $(seq 1 200); do
  line=$(head -n 1 "$out/cabin-sim.out" 2>/dev/null || true)
  [[ $line == listening* ]] && break
  if ! kill -0 "$sim" 2>/dev/null; then
    echo "viewer: the simulator did not start:" >&2
    cat "$out/cabin-sim.log" >&2
    exit 1
  fi
  sleep 0.1
done
if [[ $line != listening* ]]; then
  echo "viewer: the simulator did not report its port" >&2
  exit 1
fi
address=${line#listening https://}
echo "cabin-sim listening on $address"

build/release/tools/qelmaps-viewer/qelmaps-viewer --host "${address%:*}" --port "${address##*:}" \
  --ca-file "$out/cabin-ca.pem" "$@"
