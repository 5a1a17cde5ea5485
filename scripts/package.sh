#!/usr/bin/env bash
# Builds the shared release configuration (libraries and tools) and makes the
# Debian packages libqelmaps1, libqelmaps-dev (C), libqelmaps-cxx-dev (C++)
# and qelmaps-tools in out/packages (QEL_PACKAGE_OUT to change). Install them
# with (a C application leaves out libqelmaps-cxx-dev)
#   apt-get install ./out/packages/libqelmaps1_*.deb ./out/packages/libqelmaps-dev_*.deb \
#     ./out/packages/libqelmaps-cxx-dev_*.deb
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/bootstrap.sh
out=${QEL_PACKAGE_OUT:-out/packages}
cmake --preset package >/dev/null
cmake --build --preset package -j "${QEL_JOBS:-$(nproc)}"
mkdir -p "$out"
out=$(cd "$out" && pwd)
(cd build/package && cpack -G DEB -B "$out" >/dev/null)
rm -rf "$out/_CPack_Packages"
ls "$out"/*.deb
