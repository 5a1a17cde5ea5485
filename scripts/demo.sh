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

build/release/tools/cabin-sim/cabin-sim --ca-out "$out/cabin-ca.pem" --interval 4 \
  >"$out/cabin-sim.out" 2>"$out/cabin-sim.log" &
sim=$!
trap 'kill "$sim" 2>/dev/null || true; wait "$sim" 2>/dev/null || true' EXIT

line=""
for _ in $(seq 1 200); do
  line=$(head -n 1 "$out/cabin-sim.out" 2>/dev/null || true)
  [[ $line == listening* ]] && break
  if ! kill -0 "$sim" 2>/dev/null; then
    echo "demo: the simulator did not start:" >&2
    cat "$out/cabin-sim.log" >&2
    exit 1
  fi
  sleep 0.1
done
if [[ $line != listening* ]]; then
  echo "demo: the simulator did not report its port" >&2
  exit 1
fi
address=${line#listening https://}
host=${address%:*}
port=${address##*:}
echo "cabin-sim listening on $host:$port"

build/release/tools/qelmaps-demo/qelmaps-demo --host "$host" --port "$port" \
  --ca-file "$out/cabin-ca.pem" --resolution 1024x768 --out "$out" --duration "$seconds"

kill "$sim" 2>/dev/null || true
wait "$sim" 2>/dev/null || true
trap - EXIT
count=$(find "$out" -name 'map-*.png' | wc -l)
echo "demo: $count map pictures in $out (the newest is $out/latest.png)"
[ "$count" -gt 0 ]
