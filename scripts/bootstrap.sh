#!/usr/bin/env bash
# Installs the Debian packages the build and the tests need, when missing;
# with --bench also what the benchmarks need.
set -euo pipefail

packages=(
  cmake ninja-build pkg-config g++ clang-14 libclang-rt-14-dev
  libboost1.81-dev libboost-json1.81-dev libboost-url1.81-dev
  libssl-dev libcurl4-openssl-dev libc-ares-dev libspng-dev libturbojpeg0-dev libcairo2-dev
  nginx
  libgtest-dev libgmock-dev libbenchmark-dev python3-pytest
  python3-build python3-venv python3-setuptools python3-wheel mypy
  dpkg-dev file valgrind openssl iproute2
  qt6-base-dev qt6-declarative-dev qml6-module-qtquick qml6-module-qtquick-window qml6-module-qtqml-workerscript
)
# The benchmarks' extras: gnuplot draws the whole-cabin harness's plots.
if [ "${1:-}" = --bench ]; then
  packages+=(gnuplot-nox)
fi

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "bootstrap: installing ${missing[*]}"
sudo=""
if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
