#!/bin/sh
# Push to pixels over a slow cabin link: push_to_pixels with the simulator in
# one network namespace and the client in another, joined by a veth pair
# whose two ends are each limited to RATE by a token bucket (tbf), for each
# picture size the simulator serves. The namespaces are removed on exit.
#
#   sudo bench/slow_link.sh BUILD_DIR [RATE_MBIT] [UPDATES]    # defaults: 2, 30
#
# Needs root (ip netns, tc) and a release build of push_to_pixels.
set -eu

build=$(cd "${1:?usage: slow_link.sh BUILD_DIR [RATE_MBIT] [UPDATES]}" && pwd)
rate=${2:-2}
updates=${3:-30}
cabin=qelmaps-cabin-$$
seat=qelmaps-seat-$$

cleanup() {
  ip netns del "$cabin" 2>/dev/null || true
  ip netns del "$seat" 2>/dev/null || true
}
trap cleanup EXIT
trap 'exit 1' INT TERM

ip netns add "$cabin"
ip netns add "$seat"
ip link add qelc$$ netns "$cabin" type veth peer name qels$$ netns "$seat"
for side in "$cabin qelc$$ 10.77.0.1" "$seat qels$$ 10.77.0.2"; do
  set -- $side
  ip -n "$1" link set lo up
  ip -n "$1" addr add "$3/24" dev "$2"
  ip -n "$1" link set "$2" up
  # A bucket of one full-size packet, so that nothing crosses faster than the
  # rate, and a queue of up to a second, as an access point buffers: more than
  # one picture's worth, so that the measurement is the rate and not TCP
  # recovering from drops.
  tc -n "$1" qdisc add dev "$2" root tbf rate "${rate}mbit" burst 1600 latency 1s
done

for resolution in 1024x768 800x600 400x300; do
  ip netns exec "$seat" "$build/bench/push_to_pixels" --updates "$updates" --poll-updates 0 \
    --resolution "$resolution" --server-netns "$cabin" --server-address 10.77.0.1 |
    awk -v rate="$rate" '
      function after(word) { for (i = 1; i < NF; i++) if ($i == word) return $(i + 1) }
      { print }
      / PNG \(/ { bytes = substr(after("PNG"), 2) }
      /^push \(/ { push = after("median") }
      /^floor \(/ { floor = after("median") }
      END {
        link = bytes * 8 / (rate * 1000)  # ms
        printf "link floor (picture bytes / rate): %.1f ms; push/link floor %.2f, warm GET/link floor %.2f\n",
               link, push / link, floor / link
      }'
done
