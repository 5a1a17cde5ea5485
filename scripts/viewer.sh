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
scripts/run-against-sim.sh --out "$out" --interval "${QEL_VIEWER_INTERVAL:-2}" build/release/tools/cabin-sim/cabin-sim \
  build/release/tools/qelmaps-viewer/qelmaps-viewer "$@"
