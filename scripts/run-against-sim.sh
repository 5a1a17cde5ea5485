#!/usr/bin/env bash
# Starts the cabin server simulator on a free loopback port with a throw-away
# CA, runs the given command with --host, --port and --ca-file appended, and
# stops the simulator. The command's exit status is the script's.
#
#   run-against-sim.sh [--out DIR] [--interval S] path/to/cabin-sim COMMAND [args...]
#
# --out keeps the CA (DIR/cabin-ca.pem) and the simulator's output and log
# there; without it they go to a temporary folder that is removed.
set -euo pipefail

out="" interval=1
while [[ $# -gt 0 && $1 == --* ]]; do
  case $1 in
    --out) out=$2 ;;
    --interval) interval=$2 ;;
    *) echo "run-against-sim: unknown option $1" >&2; exit 2 ;;
  esac
  shift 2
done
sim_bin=$1
shift

work=${out:-$(mktemp -d)}
mkdir -p "$work"
cleanup() {
  kill "$sim" 2>/dev/null || true
  wait "$sim" 2>/dev/null || true
  [ -n "$out" ] || rm -rf "$work"
}
"$sim_bin" --ca-out "$work/cabin-ca.pem" --interval "$interval" >"$work/cabin-sim.out" 2>"$work/cabin-sim.log" &
sim=$!
trap cleanup EXIT

line=""
for _ in $(seq 1 300); do
  line=$(head -n 1 "$work/cabin-sim.out" 2>/dev/null || true)
  [[ $line == listening* ]] && break
  if ! kill -0 "$sim" 2>/dev/null; then
    echo "run-against-sim: the simulator did not start:" >&2
    cat "$work/cabin-sim.log" >&2
    exit 1
  fi
  sleep 0.1
done
if [[ $line != listening* ]]; then
  echo "run-against-sim: the simulator did not report its port" >&2
  exit 1
fi
address=${line#listening https://}
echo "cabin-sim listening on $address" >&2
"$@" --host "${address%:*}" --port "${address##*:}" --ca-file "$work/cabin-ca.pem"
