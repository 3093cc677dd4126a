#!/usr/bin/env bash
# Builds the pipeline tests (tests_fuse, tests_blend) under ThreadSanitizer into
# build-tsan/ and runs them; any data race fails the run. Extra arguments go to
# both test programs (e.g. --gtest_filter=...). Not part of CI.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
dir="$root/build-tsan"
prefix=$("$root/scripts/setup.sh")
cmake -S "$root" -B "$dir" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTEVRIN_SANITIZE=thread >/dev/null
cmake --build "$dir" --parallel "${CMAKE_BUILD_PARALLEL_LEVEL:-2}" --target tests_fuse tests_blend
export TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 ${TSAN_OPTIONS:-}"
for t in tests_fuse tests_blend; do
  echo "== $t"
  "$dir/tests/$t" "$@"
done
