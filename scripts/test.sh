#!/usr/bin/env bash
# Runs the whole test suite: installs what is missing, builds, runs CTest.
#   scripts/test.sh              the normal build (build/)
#   scripts/test.sh --sanitize   the same tests under AddressSanitizer and
#                                UndefinedBehaviorSanitizer (build-asan/)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
if [ "${1:-}" = "--sanitize" ]; then
  "$root/scripts/build.sh" build-asan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTEVRIN_SANITIZE=address,undefined
  export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
  export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
  dir=build-asan
else
  "$root/scripts/build.sh" build
  dir=build
fi
ctest --test-dir "$root/$dir" --output-on-failure -j2
