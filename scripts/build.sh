#!/usr/bin/env bash
# Configures and builds into a folder (default build/), after setting up what the
# build needs. Extra arguments go to CMake's configure step.
#   scripts/build.sh [build-dir] [-DOPTION=...]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
dir=${1:-build}
shift || true
prefix=$("$root/scripts/setup.sh")
cmake -S "$root" -B "$root/$dir" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" "$@" >/dev/null
cmake --build "$root/$dir"
