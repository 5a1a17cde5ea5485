#!/usr/bin/env bash
# Starts the cabin server simulator on a free loopback port with a throw-away
# CA, runs the given command with --host, --port and --ca-file appended, and
# stops the simulator. The command's exit status is the script's.
#
#   run-against-sim.sh path/to/cabin-sim path/to/qelmaps-consumer [args...]
set -euo pipefail

sim_bin=$1
shift
work=$(mktemp -d)
"$sim_bin" --ca-out "$work/ca.pem" --interval 1 >"$work/sim.out" 2>"$work/sim.log" &
sim=$!
trap 'kill "$sim" 2>/dev/null || true; wait "$sim" 2>/dev/null || true; rm -rf "$work"' EXIT

line=""
for _ in $(seq 1 300); do
  line=$(head -n 1 "$work/sim.out" 2>/dev/null || true)
  [[ $line == listening* ]] && break
  if ! kill -0 "$sim" 2>/dev/null; then
    echo "run-against-sim: the simulator did not start:" >&2
    cat "$work/sim.log" >&2
    exit 1
  fi
  sleep 0.1
done
if [[ $line != listening* ]]; then
  echo "run-against-sim: the simulator did not report its port" >&2
  exit 1
fi
address=${line#listening https://}
"$@" --host "${address%:*}" --port "${address##*:}" --ca-file "$work/ca.pem"
