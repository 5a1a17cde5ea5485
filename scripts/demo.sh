#!/usr/bin/env bash
# The live demo: a cabin server simulator on a free loopback port, and the
# demo passenger application receiving the moving map from it for about 20
# seconds. Map pictures land in out/demo (QEL_DEMO_OUT to change).
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/bootstrap.sh
cmake --preset release >/dev/null
cmake --build --preset release --target cabin-sim qelmaps-demo

out=${QEL_DEMO_OUT:-out/demo}
seconds=${QEL_DEMO_SECONDS:-20}
rm -rf "$out"
mkdir -p "$out"

scripts/run-against-sim.sh --out "$out" --interval 4 build/release/tools/cabin-sim/cabin-sim \
  build/release/tools/qelmaps-demo/qelmaps-demo --resolution 1024x768 --out "$out" --duration "$seconds"
count=$(find "$out" -name 'map-*.png' | wc -l)
echo "demo: $count map pictures in $out (the newest is $out/latest.png)"
[ "$count" -gt 0 ]
