#!/usr/bin/env bash
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/bootstrap.sh
cmake --preset release >/dev/null
cmake --build --preset release --target QELMaps
strings -a build/release/Maps/libQELMaps.a | grep '@(#)'
